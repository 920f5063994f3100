#include "services/hostname.h"

#include "api/json_response.h"
#include "api/text_tests.h"
#include "api/verifiers.h"
#include "core/console.h"
#include "core/log.h"
#include "core/shell.h"
#include "services/generated_files.h"
#include "settings/setting_store.h"
#include "trell_api.h"
#include "trell_core.h"

#include <cstring>

namespace {

constexpr char HOSTNAME_KEY[] = "[Hostname]Name";
constexpr char HOSTNAME_FILE[] = "/etc/hostname";
constexpr char FALLBACK_MODEL[] = "Corvy";
constexpr char FALLBACK_SERIAL[] = "0000000";

using OwnedBroker = std::unique_ptr<TrellBroker, Releaser<trell_api_broker_initiator_deinit>>;
using OwnedDeviceInformation =
    std::unique_ptr<TrellDeviceInformation, Releaser<trell_api_device_information_initiator_deinit>>;
using OwnedTargets = std::unique_ptr<char*, Releaser<trell_core_free_string_array>>;
using OwnedFlags = std::unique_ptr<bool, Releaser<trell_core_free_bool_array>>;

// What the name is made of; either may be missing.
struct DeviceName {
    OwnedMallocText model;
    OwnedMallocText serial;
};

bool has_value(const char* key)
{
    const OwnedJson value = get_json_value(key);
    return value && !cJSON_IsNull(value.get());
}

// Takes the two texts that count, and releases the others.
DeviceName take_name(TrellStaticInformation& information)
{
    DeviceName name;
    name.model.reset(information.model_name);
    name.serial.reset(information.serial_number);
    for (char* text :
         {information.manufacturer, information.hardware_id, information.hardware_version,
          information.product_class, information.firmware_version, information.boot_loader_version})
        OwnedMallocText released(text);
    return name;
}

// Each failure is logged for its caller, whose name the lines carry.
DeviceName ask_for_device_name(const char* caller)
{
    DeviceName name;
    TrellBroker* broker = nullptr;
    if (trell_api_broker_initiator_init(&broker) != 0) {
        log_message(LEVEL_WARNING, "%s: Couldn't connect to broker", caller);
        return name;
    }
    const OwnedBroker owned_broker(broker);
    char** names = nullptr;
    char** providers = nullptr;
    bool* active = nullptr;
    const int result = trell_api_broker_get_targets_send(broker, "broker", "device_information", &names,
                                                         &providers, &active);
    const OwnedTargets owned_names(names);
    const OwnedTargets owned_providers(providers);
    const OwnedFlags owned_active(active);
    if (result != 0 || providers == nullptr || providers[0] == nullptr) {
        log_message(LEVEL_WARNING, "%s: Couldn't get device_information targets", caller);
        return name;
    }
    TrellDeviceInformation* device = nullptr;
    if (trell_api_device_information_initiator_init(&device) != 0) {
        log_message(LEVEL_WARNING, "%s: Couldn't connect to device_information", caller);
        return name;
    }
    const OwnedDeviceInformation owned_device(device);
    TrellStaticInformation information = {};
    if (trell_api_device_information_get_static_information_send(device, providers[0], &information) != 0)
        log_message(LEVEL_WARNING, "%s: Couldn't get device_information static information", caller);
    return take_name(information);
}

// A name that would be a second line of the file is none: only damage of the stored value can bring it about.
bool is_one_line(const char* text)
{
    for (; *text != '\0'; ++text) {
        if (g_ascii_iscntrl(*text))
            return false;
    }
    return true;
}

} // namespace

void construct_default_hostname()
{
    if (has_value(HOSTNAME_KEY))
        return;
    const DeviceName device = ask_for_device_name(__func__);
    if (!device.model)
        log_message(LEVEL_WARNING, "%s: no ModelName available; using Corvy", __func__);
    if (!device.serial)
        log_message(LEVEL_WARNING, "%s: no SerialNumber available; using 0000000", __func__);
    const OwnedText name(g_strdup_printf("%s-%s", device.model ? device.model.get() : FALLBACK_MODEL,
                                         device.serial ? device.serial.get() : FALLBACK_SERIAL));
    OwnedJson value(cJSON_CreateString(name.get()));
    if (!value) {
        log_message(LEVEL_CRITICAL, "%s:%d: Could not construct JSON object from %s", HERE, name.get());
        return;
    }
    set_json_value(with_key(std::move(value), HOSTNAME_KEY).get());
}

bool verify_hostname(cJSON* item, JsonResponse* response)
{
    if (!verify_is_string(item, response))
        return false;
    if (cJSON_IsNull(item)) {
        json_response_add_error(*response, ERROR_WRONG_TYPE, item->string, "Hostname value was NULL");
        return false;
    }
    if (!is_valid_hostname(item->valuestring)) {
        json_response_add_error(*response, ERROR_WRONG_TYPE, item->string, "Value wasn't a valid hostname");
        return false;
    }
    return true;
}

bool verify_domain(cJSON* item, JsonResponse* response)
{
    if (item == nullptr) {
        if (response != nullptr)
            json_response_add_error(*response, ERROR_INTERNAL, nullptr, "Null pointer in domain validation");
        else
            log_message(LEVEL_ERROR, "%s: Null value and response pointers for domain validate", __func__);
        return false;
    }
    return verify_hostname(item, response);
}

void quarn_write_hostname()
{
    const OwnedText name = get_string(HOSTNAME_KEY);
    if (!name || !is_one_line(name.get())) {
        log_message(LEVEL_CRITICAL, "%s:%d: Could not create or get hostname", HERE);
        return;
    }
    OwnedFile stream = open_file(HOSTNAME_FILE);
    if (!stream) {
        log_message(LEVEL_CRITICAL, "%s:%d: Cannot open hostname file %s", HERE, HOSTNAME_FILE);
        return;
    }
    log_message(LEVEL_INFO, "%s: Writing hostname '%s' to %s", __func__, name.get(), HOSTNAME_FILE);
    std::fprintf(stream.get(), "%s\n# hostname set by quarn\n", name.get());
    if (!close_file(std::move(stream))) {
        log_message(LEVEL_CRITICAL, "%s:%d: Cannot write %s", HERE, HOSTNAME_FILE);
        return;
    }
    print_console(__func__, "Hostname set to %s", name.get());
}

bool run_hostname_command()
{
    const ShellCommand command("/bin/hostname -F /etc/hostname");
    const int status = exit_status(run_shell(command));
    if (status == 0)
        return true;
    log_message(LEVEL_ERROR, "%s: Call to '%s' had rc=%d", __func__, command.text(), status);
    return false;
}
