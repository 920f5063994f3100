#include "trell_api.h"

#include "files.h"

#include <algorithm>
#include <cstring>
#include <string>
#include <string_view>

// Both clients are calls into this process: what the broker knows and what the device tells of itself stand
// in one file, and there is no connection to hold.
struct TrellBroker {};
struct TrellDeviceInformation {};

namespace {

constexpr char INTERFACE[] = "device_information";
constexpr char PROVIDER[] = "device-information.conf";

std::string device_information_path()
{
    return platform::configuration_directory() + "/" + PROVIDER;
}

char** one_text(const char* text)
{
    char** const texts = g_new0(char*, 2);
    texts[0] = g_strdup(text);
    return texts;
}

bool is_control_byte(char byte)
{
    return static_cast<unsigned char>(byte) < 0x20 || byte == 0x7f;
}

// Null for what is missing, empty or could not stand in one line of text.
char* known_text(GKeyFile* file, const char* key)
{
    const platform::GlibText text(g_key_file_get_string(file, INTERFACE, key, nullptr));
    if (!text || *text == '\0' || std::ranges::any_of(std::string_view(text.get()), is_control_byte))
        return nullptr;
    return strdup(text.get());
}

} // namespace

int trell_api_broker_initiator_init(TrellBroker** broker)
{
    *broker = new TrellBroker;
    return 0;
}

int trell_api_broker_get_targets_send(TrellBroker*, const char* target, const char* interface, char*** names,
                                      char*** providers, bool** active)
{
    if (std::string_view(target) != "broker")
        return 1;
    const bool known =
        std::string_view(interface) == INTERFACE && access(device_information_path().c_str(), F_OK) == 0;
    *names = known ? one_text(INTERFACE) : g_new0(char*, 1);
    *providers = known ? one_text(PROVIDER) : g_new0(char*, 1);
    *active = g_new0(bool, 1);
    **active = known;
    return 0;
}

void trell_api_broker_initiator_deinit(TrellBroker* broker)
{
    delete broker;
}

int trell_api_device_information_initiator_init(TrellDeviceInformation** device_information)
{
    *device_information = new TrellDeviceInformation;
    return 0;
}

int trell_api_device_information_get_static_information_send(TrellDeviceInformation*, const char* provider,
                                                             TrellStaticInformation* information)
{
    *information = TrellStaticInformation{};
    if (std::string_view(provider) != PROVIDER)
        return 1;
    const platform::KeyFile file = platform::read_key_file(device_information_path());
    if (!file)
        return 1;
    information->manufacturer = known_text(file.get(), "Manufacturer");
    information->model_name = known_text(file.get(), "ModelName");
    information->serial_number = known_text(file.get(), "SerialNumber");
    information->hardware_id = known_text(file.get(), "HardwareId");
    information->hardware_version = known_text(file.get(), "HardwareVersion");
    information->product_class = known_text(file.get(), "ProductClass");
    information->firmware_version = known_text(file.get(), "FirmwareVersion");
    information->boot_loader_version = known_text(file.get(), "BootLoaderVersion");
    return 0;
}

void trell_api_device_information_initiator_deinit(TrellDeviceInformation* device_information)
{
    delete device_information;
}
