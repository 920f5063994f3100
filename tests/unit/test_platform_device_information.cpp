#include "platform_fixture.h"
#include "trell_api.h"

#include <memory>

namespace {

class platform_device_information : public PlatformTest {
protected:
    void describe(const std::string& text) { write_text(scratch / "device-information.conf", text); }

    // The providers that the broker names.
    static Lines providers(const char* interface)
    {
        TrellBroker* broker = nullptr;
        EXPECT_EQ(trell_api_broker_initiator_init(&broker), 0);
        char** names = nullptr;
        char** found = nullptr;
        bool* active = nullptr;
        EXPECT_EQ(trell_api_broker_get_targets_send(broker, "broker", interface, &names, &found, &active), 0);
        Lines texts;
        for (char** next = found; *next != nullptr; next++)
            texts.emplace_back(*next);
        trell_core_free_string_array(names);
        trell_core_free_string_array(found);
        trell_core_free_bool_array(active);
        trell_api_broker_initiator_deinit(broker);
        return texts;
    }

    // The eight texts in the order of the record, "(none)" for one that is missing; empty when the call
    // fails.
    static Lines information(const char* provider)
    {
        TrellDeviceInformation* device = nullptr;
        EXPECT_EQ(trell_api_device_information_initiator_init(&device), 0);
        TrellStaticInformation known = {};
        const int result = trell_api_device_information_get_static_information_send(device, provider, &known);
        Lines texts;
        for (char* const text : {known.manufacturer, known.model_name, known.serial_number, known.hardware_id,
                                 known.hardware_version, known.product_class, known.firmware_version,
                                 known.boot_loader_version}) {
            texts.emplace_back(text != nullptr ? text : "(none)");
            std::free(text);
        }
        trell_api_device_information_initiator_deinit(device);
        return result == 0 ? texts : Lines{};
    }
};

} // namespace

TEST_F(platform_device_information, without_a_file_the_broker_knows_no_provider)
{
    EXPECT_EQ(providers("device_information"), Lines{});
}

TEST_F(platform_device_information, another_interface_has_no_provider)
{
    describe("[device_information]\n");
    EXPECT_EQ(providers("weather"), Lines{});
}

TEST_F(platform_device_information, every_text_of_the_file_is_told)
{
    describe("[device_information]\nManufacturer=Vesko\nModelName=V 1\nSerialNumber=0001234\nHardwareId=a\n"
             "HardwareVersion=b\nProductClass=c\nFirmwareVersion=d\nBootLoaderVersion=e\n");
    const Lines found = providers("device_information");
    ASSERT_EQ(found.size(), 1U);
    EXPECT_EQ(information(found[0].c_str()), (Lines{"Vesko", "V 1", "0001234", "a", "b", "c", "d", "e"}));
}

TEST_F(platform_device_information, a_text_that_is_missing_or_empty_or_has_control_bytes_counts_as_missing)
{
    describe(
        "[device_information]\nManufacturer=\nModelName=V1\\nroot\nSerialNumber=12\x7f\nHardwareId=\xff\n"
        "ProductClass=camera\n");
    EXPECT_EQ(information(providers("device_information").at(0).c_str()),
              (Lines{"(none)", "(none)", "(none)", "(none)", "(none)", "camera", "(none)", "(none)"}));
}

TEST_F(platform_device_information, an_unknown_provider_tells_nothing)
{
    describe("[device_information]\nModelName=V1\n");
    EXPECT_EQ(information("somebody"), Lines{});
}
