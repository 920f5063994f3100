// api/setting_request.h: the two forms of a request, and the walk over its settings.
// Set: an object whose members are the settings to set. Get: an object with an array "settings" of keys.
#pragma once

#include "core/owned.h"

#include <memory>
#include <string_view>
#include <unordered_set>

struct JsonResponse;

enum class RequestKind { GET = 0, SET = 1 };

struct SettingRequest {
    cJSON* next = nullptr;
    cJSON* current = nullptr;
    OwnedJson root;
    RequestKind kind = RequestKind::GET;
    // The names of the elements before the current one; they point into root.
    std::unordered_set<std::string_view> seen;
};

// Null, with an error in the response, for a text that is not exactly one well-formed request. Both texts and
// responses may be null.
std::unique_ptr<SettingRequest> json_set_request_new(const char* text, JsonResponse* response);
std::unique_ptr<SettingRequest> json_get_request_new(const char* text, JsonResponse* response);

bool json_request_has_next(const SettingRequest& request);
// The next member of a set request.
cJSON* json_request_next_item(SettingRequest& request);
// The next key of a get request; elements that are no strings are passed over. Null at the end.
const char* json_request_next_key(SettingRequest& request);
// Whether an element before the current one has this key.
bool json_request_is_repeated(const SettingRequest& request, const char* key);
void json_request_rewind(SettingRequest& request);
// The member that a set request proposes for a key (where the key stands twice: the last, which is the one
// that will stand), or null. Byte-exact.
cJSON* json_request_find(const SettingRequest& request, const char* key);
