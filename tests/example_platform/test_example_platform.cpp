#include "api/get_set.h"
#include "core/log.h"
#include "example_platform.h"
#include "msgbus.h"
#include "services/hostname.h"
#include "settings/setting_store.h"

#include <gtest/gtest.h>

namespace {

const std::string SUCCESS = R"({"success":true,"errors":[]})";

// The daemon's start as far as no network is touched: nothing is applied.
class ExamplePlatform : public testing::Test {
protected:
    ExamplePlatform()
    {
        static constexpr com_vesko_networkingV2_provider PROVIDER = {api_get, api_set};
        example::reset();
        start_logging();
        msgbus_connect(&bus_);
        init_setting_storage();
        msgbus_register_com_vesko_networkingV2_provider(bus_, &PROVIDER, 0);
        example::call("api_set", R"({"[Settings]Apply":false})");
    }
    ~ExamplePlatform() override
    {
        msgbus_disconnect(bus_);
        deinit_setting_storage();
        stop_logging();
    }

private:
    MsgBus* bus_ = nullptr;
};

using example_platform = ExamplePlatform;

} // namespace

TEST_F(example_platform, a_setting_goes_over_its_bus_into_its_store_and_back)
{
    EXPECT_EQ(example::call("api_set", R"({"[NIC/eth0]MTU":1400})"), SUCCESS);
    EXPECT_EQ(example::platform().stored, (std::map<std::string, std::string>{{"NIC.eth0.MTU", "1400"}}));
    EXPECT_EQ(example::call("api_get", R"({"settings":["[NIC/eth0]MTU"]})"),
              R"({"success":true,"errors":[],"[NIC/eth0]MTU":1400})");
}

TEST_F(example_platform, a_value_that_must_not_stand_leaves_its_store_as_it_was)
{
    EXPECT_EQ(example::call("api_set", R"({"[DNS/Manual]Enabled":true,"[NIC/eth0]MTU":9000})"),
              R"json({"success":false,"errors":[{"key":"[NIC/eth0]MTU","code":4,)json"
              R"json("msg":"Invalid MTU (9000) (must be 1200 to 1500)"}]})json");
    EXPECT_TRUE(example::platform().stored.empty());
}

TEST_F(example_platform, a_manual_address_is_mirrored_in_its_boot_environment)
{
    EXPECT_EQ(example::call("api_set", R"({"[IPv4/Manual]Address":"10.9.8.7"})"), SUCCESS);
    // The address stands behind the hardware's, netmask and gateway follow.
    EXPECT_EQ(example::platform().environment["netdev0"],
              std::string(6, '\0') + "\x0a\x09\x08\x07" + std::string(8, '\0'));
}

TEST_F(example_platform, the_default_host_name_is_made_of_its_device_information)
{
    construct_default_hostname();
    EXPECT_EQ(example::call("api_get", R"({"settings":["[Hostname]Name"]})"),
              R"({"success":true,"errors":[],"[Hostname]Name":"Lookout-0042"})");
    EXPECT_EQ(example::platform().environment["hostname"], "Lookout-0042");
}

TEST_F(example_platform, a_message_arrives_in_its_log_with_its_priority)
{
    log_message(LEVEL_NOTICE, "%s: the lens is clean", "somebody");
    EXPECT_EQ(example::platform().log.back(), "5 somebody: the lens is clean");
}
