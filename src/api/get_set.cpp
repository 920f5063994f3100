#include "api/get_set.h"

#include "api/json_response.h"
#include "api/setting_request.h"
#include "api/verify_settings.h"
#include "apply/apply.h"
#include "core/log.h"
#include "settings/setting_store.h"

namespace {

int hand_over(const JsonResponse& response, char** response_text)
{
    *response_text = json_response_print(response).release();
    return *response_text != nullptr;
}

// False only when there is a value that could not be read.
bool answer_key(const char* key, const SettingRequest& request, JsonResponse& response)
{
    if (json_request_is_repeated(request, key)) {
        json_response_add_error(response, ERROR_REPEATED_KEY, key, "Ignoring repeated get request for key");
        return true;
    }
    const SettingDef* row = find_setting(key);
    if (row == nullptr) {
        json_response_add_error(response, ERROR_UNKNOWN_KEY, key, "Unknown key");
        return true;
    }
    OwnedJson value;
    if (row->read == nullptr) {
        value.reset(cJSON_CreateNull());
    } else if (!row->read(row, value) || !value) {
        json_response_add_error(response, ERROR_INTERNAL, key, "Could not read value or default");
        return false;
    }
    json_response_add_value(response, key, std::move(value));
    return true;
}

// Apply flags of the rows that were saved, apart by where their values went: a failed commit takes back what
// was written to the store, while held values stay.
struct ChangedFlags {
    std::uint32_t stored = 0;
    std::uint32_t held = 0;
};

bool save_item(const SettingDef& row, const cJSON* item, ChangedFlags& changed)
{
    const std::size_t stored_before = saves_in_group();
    if (!row.save(item))
        return false;
    std::uint32_t& flags = saves_in_group() > stored_before ? changed.stored : changed.held;
    flags |= static_cast<std::uint32_t>(row.apply_flags);
    return true;
}

// Saves the members of a verified request as one group. False when it could not be walked to its end. Shares
// the name of the call, which its log lines carry.
bool api_set(SettingRequest& request, std::uint32_t& apply_flags)
{
    bool complete = true;
    ChangedFlags changed;
    begin_save_group();
    json_request_rewind(request);
    while (json_request_has_next(request)) {
        const cJSON* item = json_request_next_item(request);
        if (item == nullptr || item->string == nullptr) {
            log_message(LEVEL_ERROR, "%s: error while iterating through setting list", __func__);
            complete = false;
            continue;
        }
        const SettingDef* row = find_setting(item->string);
        if (row == nullptr || row->save == nullptr)
            continue;
        log_message(LEVEL_DEBUG, "%s:%d: Saving setting '%s'", HERE, row->key);
        if (!save_item(*row, item, changed))
            log_message(LEVEL_DEBUG, "%s:%d: %s was not changed.  Will not reapply.", HERE, row->key);
    }
    apply_flags = end_save_group() ? changed.held | changed.stored : changed.held;
    return complete;
}

} // namespace

int api_get(const char* request_text, char** response_text)
{
    const std::unique_ptr<JsonResponse> response = json_response_new();
    if (!response) {
        log_message(LEVEL_CRITICAL, "%s:%d: Critical problem creating JSON response object: %s", HERE,
                    "NULL returned");
        return 0;
    }
    const std::unique_ptr<SettingRequest> request = json_get_request_new(request_text, response.get());
    if (request) {
        bool all_read = true;
        while (const char* key = json_request_next_key(*request))
            all_read = answer_key(key, *request, *response) && all_read;
        if (all_read)
            json_response_set_success(*response);
    }
    return hand_over(*response, response_text);
}

int api_set(const char* request_text, char** response_text)
{
    log_message(LEVEL_NOTICE, "%s: API call: SET.  Data: %s", __func__,
                request_text != nullptr ? request_text : "(null)");
    const std::unique_ptr<JsonResponse> response = json_response_new();
    if (!response)
        log_message(LEVEL_CRITICAL, "%s:%d: Critical problem creating JSON response object: %s", HERE,
                    "NULL returned");
    std::unique_ptr<SettingRequest> request =
        response ? json_set_request_new(request_text, response.get()) : nullptr;
    bool saved = false;
    std::uint32_t apply_flags = 0;
    if (!request) {
        log_message(LEVEL_ERROR, "%s: Null request object on SET call", __func__);
    } else if (!verify_settings(request.get(), response.get())) {
        const OwnedMallocText printed(cJSON_PrintUnformatted(request->root.get()));
        log_message(LEVEL_ERROR, "%s: Failed setting validation: %s", __func__, printed ? printed.get() : "");
    } else {
        saved = api_set(*request, apply_flags);
    }
    if (saved)
        json_response_set_success(*response);
    if (!get_bool("[Settings]Apply"))
        log_message(LEVEL_NOTICE, "%s: By request, not applying settings. Anticipating reboot.", __func__);
    else if (saved && !apply_settings(apply_flags, ApplyRun::LIVE_CHANGE))
        json_response_add_error(*response, ERROR_INTERNAL, nullptr,
                                "There was an error in applying the settings");
    if (!response)
        return 0;
    const int produced = hand_over(*response, response_text);
    log_message(LEVEL_DEBUG, "%s:%d: Finished with SET command", HERE);
    return produced;
}
