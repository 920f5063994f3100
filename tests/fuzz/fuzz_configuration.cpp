// fuzz_configuration: any bytes as quarn.conf and as device-information.conf.
#include "core/owned.h"
#include "settings/setting_store.h"
#include "surroundings.h"
#include "trell_api.h"
#include "trell_core.h"

#include <algorithm>
#include <cstring>
#include <vector>

namespace {

constexpr const char* KEYS[] = {"eth0_max_speed", "flag", "numbers", "last"};

bool is_text(const char* text)
{
    return g_utf8_validate(text, -1, nullptr) != 0;
}

bool has_control_byte(const char* text)
{
    return std::any_of(text, text + std::strlen(text), [](char byte) { return g_ascii_iscntrl(byte); });
}

void get_every_type(TrellConfiguration* configuration, const char* key)
{
    char* text = nullptr;
    if (trell_core_configuration_get_string_value(configuration, key, &text) == 0)
        require(is_text(text), "a text is UTF-8");
    const OwnedMallocText owned(text);
    bool flag = false;
    int number = 0;
    const bool is_flag = trell_core_configuration_get_bool_value(configuration, key, &flag) == 0;
    const bool is_number = trell_core_configuration_get_int_value(configuration, key, &number) == 0;
    require(!is_flag || !is_number, "no value is of two types");
    int* numbers = nullptr;
    std::size_t count = 0;
    if (trell_core_configuration_get_arrayofint_value(configuration, key, &numbers, &count) != 0)
        return require(numbers == nullptr && count == 0, "a failed call leaves its parameters as they were");
    // Reads them all.
    const std::vector<int> copy(numbers, numbers + count);
    require(!is_number || copy == std::vector{number}, "one number is an array of one");
    trell_core_free_int_array(numbers);
}

void read_configuration(const std::string& content)
{
    write_scratch_file("quarn.conf", content + "\n[quarn]\nlast=7\n");
    TrellConfiguration* configuration = nullptr;
    require(trell_core_configuration_init("quarn", &configuration) == 0, "bad lines do no harm to the rest");
    for (const char* const key : KEYS)
        get_every_type(configuration, key);
    int last = 0;
    require(trell_core_configuration_get_int_value(configuration, "last", &last) == 0 && last == 7,
            "the last line is read");
    trell_core_configuration_deinit(configuration);

    const OwnedJson speed = get_json_value("[NIC/eth0/AutoNegotiated]LinkSpeed");
    require(cJSON_IsNumber(speed.get()), "the link speed is a number");
    const OwnedMallocText printed(cJSON_PrintUnformatted(speed.get()));
    require(std::strcmp(printed.get(), "null") != 0, "the link speed can be sent");
}

void read_device_information(const std::string& content)
{
    write_scratch_file("device-information.conf", content + "\n[device_information]\nModelName=last\n");
    TrellStaticInformation information{};
    require(trell_api_device_information_get_static_information_send(nullptr, "device-information.conf",
                                                                     &information) == 0,
            "bad lines do no harm to the rest");
    const OwnedMallocText texts[] = {
        OwnedMallocText(information.model_name),       OwnedMallocText(information.manufacturer),
        OwnedMallocText(information.serial_number),    OwnedMallocText(information.hardware_id),
        OwnedMallocText(information.hardware_version), OwnedMallocText(information.product_class),
        OwnedMallocText(information.firmware_version), OwnedMallocText(information.boot_loader_version)};
    require(texts[0] != nullptr && std::strcmp(texts[0].get(), "last") == 0, "the last line is read");
    for (const OwnedMallocText& text : texts) {
        if (text != nullptr)
            require(*text != '\0' && is_text(text.get()) && !has_control_byte(text.get()),
                    "what is known is one line of text");
    }
}

} // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    open_surroundings();
    const std::string content = Input(data, size).take_rest();
    read_configuration(content);
    read_device_information(content);
    return 0;
}
