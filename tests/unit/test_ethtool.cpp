#include "api/json_response.h"
#include "api/setting_request.h"
#include "link_hardware.h"
#include "net/ethtool.h"
#include "settings/setting_store.h"
#include "support.h"

#include <sys/resource.h>

namespace {

using Log = std::vector<std::string>;
using Texts = std::vector<std::string>;

constexpr char CACHE[] = "[NIC/eth0]SupportedModes";
constexpr char RATE_LIMIT[] = "[TrafficShaping]AvgRateLimit";
constexpr char CACHE_MISS[] = "<7>ethtool_get_data:LINE: Ethtool capabilities cache miss";
constexpr char GET_FAILURE[] =
    "<3>ethtool_ioctl_get_cmd: ioctl failure for eth0 AF_INET socket with ETHTOOL_GSET";

// 10 and 100 Mb/s of both kinds and 1000 Mb/s full duplex, autonegotiation, twisted pair, both pauses.
constexpr std::uint32_t GIGABIT_PORT = 0x60EF;

class ethtool : public QuarnTest {
protected:
    void SetUp() override
    {
        QuarnTest::SetUp();
        hardware.link.supported = GIGABIT_PORT;
        hardware.link.duplex = DUPLEX_FULL;
        hardware.link.autoneg = AUTONEG_ENABLE;
        hardware.set_speed(1000);
    }
    void hold(const char* key, const char* json_text)
    {
        ASSERT_TRUE(save_or_hold_setting(setting(key, json_text).get(), Keep::HELD, Unchanged::WRITTEN));
        take_log();
    }
    LinkHardware hardware;
};

// No descriptor can be opened while one is alive.
class NoDescriptors {
public:
    NoDescriptors()
    {
        getrlimit(RLIMIT_NOFILE, &limit_);
        const rlimit none{0, limit_.rlim_max};
        setrlimit(RLIMIT_NOFILE, &none);
    }
    ~NoDescriptors() { setrlimit(RLIMIT_NOFILE, &limit_); }
    NoDescriptors(const NoDescriptors&) = delete;
    NoDescriptors& operator=(const NoDescriptors&) = delete;

private:
    rlimit limit_{};
};

struct Verdict {
    bool accepted;
    std::string errors;

    bool operator==(const Verdict&) const = default;
};

void PrintTo(const Verdict& verdict, std::ostream* stream)
{
    *stream << (verdict.accepted ? "accepted with " : "refused with ") << verdict.errors;
}

Verdict verdict_on(const char* request_text)
{
    const auto response = json_response_new();
    const auto request = json_set_request_new(request_text, response.get());
    const bool accepted = verify_group_eth0_mode(request.get(), response.get());
    return {accepted, print(cJSON_GetObjectItemCaseSensitive(response->root.get(), "errors"))};
}

const Verdict ACCEPTED{true, "[]"};
const Verdict UNSUPPORTED{
    false,
    R"([{"key":"[NIC/eth0/Manual]FullDuplex","code":10,"msg":"The duplex mode and link speed for eth0 are unsupported"},)"
    R"({"key":"[NIC/eth0/Manual]LinkSpeed","code":10,"msg":"The duplex mode and link speed for eth0 are unsupported"}])"};

} // namespace

// The kernel's record

TEST_F(ethtool, the_record_of_the_kernel_is_read_and_written)
{
    hardware.set_speed(100000);
    ethtool_cmd command;
    EXPECT_TRUE(ethtool_ioctl_get_cmd(command));
    EXPECT_EQ(command.cmd, static_cast<unsigned>(ETHTOOL_GSET));
    EXPECT_EQ(ethtool_cmd_speed(&command), 100000U);
    EXPECT_EQ(command.supported, GIGABIT_PORT);
    command.autoneg = AUTONEG_DISABLE;
    command.advertising = 0xF;
    EXPECT_TRUE(ethtool_ioctl_set_cmd(command));
    EXPECT_EQ(hardware.modes_set, Texts{"speed 100000 full autoneg off advertising 0x0000000F"});
    EXPECT_EQ(take_log(), Log());
}

TEST_F(ethtool, a_kernel_that_refuses_is_logged)
{
    hardware.answered_gets = 0;
    hardware.refuses_set = true;
    ethtool_cmd command;
    EXPECT_FALSE(ethtool_ioctl_get_cmd(command));
    EXPECT_FALSE(ethtool_ioctl_set_cmd(command));
    EXPECT_EQ(
        take_log(),
        (Log{GET_FAILURE, "<3>ethtool_ioctl_set_cmd: ioctl failure on AF_INET socket with ETHTOOL_SSET"}));
}

TEST_F(ethtool, without_a_socket_nothing_is_read_or_written)
{
    ethtool_cmd command{};
    {
        const NoDescriptors none;
        EXPECT_FALSE(ethtool_ioctl_get_cmd(command));
        EXPECT_FALSE(ethtool_ioctl_set_cmd(command));
    }
    EXPECT_EQ(take_log(), (Log{"<3>ethtool_ioctl_get_cmd: Could not open AF_INET socket -1",
                               "<3>ethtool_ioctl_set_cmd: Could not open AF_INET socket"}));
}

// The link's data and the capabilities cache

TEST_F(ethtool, the_data_are_those_of_the_kernel)
{
    hardware.set_speed(70000);
    EthtoolData data = ethtool_get_data();
    EXPECT_TRUE(data.valid && data.autoneg && data.full_duplex);
    EXPECT_EQ(data.speed, 70000U);
    EXPECT_EQ(data.half_duplex_speeds, (LinkSpeeds{10, 100}));
    EXPECT_EQ(data.full_duplex_speeds, (LinkSpeeds{10, 100, 1000}));
    hardware.link.autoneg = AUTONEG_DISABLE;
    hardware.link.duplex = DUPLEX_UNKNOWN;
    data = ethtool_get_data();
    EXPECT_TRUE(data.valid && !data.autoneg && !data.full_duplex);
}

TEST_F(ethtool, every_mode_has_its_speed)
{
    struct Case {
        std::uint32_t supported;
        LinkSpeeds half;
        LinkSpeeds full;
    };
    for (const Case& port : std::initializer_list<Case>{{0x1, {10}, {}},
                                                        {0x2, {}, {10}},
                                                        {0x4, {100}, {}},
                                                        {0x8, {}, {100}},
                                                        {0x10, {1000}, {}},
                                                        {0x20, {}, {1000}},
                                                        {0x1000, {}, {10000}},
                                                        {0xFFFFFFFF, {10, 100, 1000}, {10, 100, 1000, 10000}},
                                                        {~0x103FU, {}, {}}}) {
        hold(CACHE, "{}");
        hardware.link.supported = port.supported;
        const EthtoolData data = ethtool_get_data();
        EXPECT_EQ(data.half_duplex_speeds, port.half) << port.supported;
        EXPECT_EQ(data.full_duplex_speeds, port.full) << port.supported;
    }
}

TEST_F(ethtool, the_capabilities_are_kept_in_the_store_and_stand_after_a_restart)
{
    ethtool_get_data();
    EXPECT_EQ(take_log(), Log{CACHE_MISS});
    EXPECT_EQ(value_of(CACHE), R"({"full_duplex":[10,100,1000],"half_duplex":[10,100]})");
    restart_store();
    take_log();
    hardware.link.supported = 0;
    EXPECT_EQ(ethtool_get_data().full_duplex_speeds, (LinkSpeeds{10, 100, 1000}));
    EXPECT_EQ(take_log(), Log());
}

TEST_F(ethtool, a_cache_that_holds_only_its_default_is_rebuilt)
{
    for (const char* json_text : {R"({"half_duplex":[10,100,1000],"full_duplex":[10,100,1000]})",
                                  R"({"full_duplex":[10,100,1000],"half_duplex":[10,100,1000]})"}) {
        hold(CACHE, json_text);
        EXPECT_EQ(ethtool_get_data().half_duplex_speeds, (LinkSpeeds{10, 100}));
        EXPECT_EQ(take_log(), Log{CACHE_MISS});
    }
}

TEST_F(ethtool, a_cache_without_a_full_duplex_list_is_rebuilt)
{
    for (const char* json_text : {R"({"half_duplex":[10]})", R"({"full_duplex":10})", "[]", "[1]", "null",
                                  R"({"Full_Duplex":[10]})"}) {
        hold(CACHE, json_text);
        EXPECT_EQ(ethtool_get_data().full_duplex_speeds, (LinkSpeeds{10, 100, 1000})) << json_text;
        EXPECT_EQ(take_log().front(), CACHE_MISS);
    }
}

TEST_F(ethtool, up_to_five_cached_speeds_count_and_what_is_no_number_is_0)
{
    hold(CACHE, R"({"full_duplex":[1,"x",3,4,5,6],"half_duplex":7})");
    const EthtoolData data = ethtool_get_data();
    EXPECT_EQ(data.full_duplex_speeds, (LinkSpeeds{1, 0, 3, 4, 5}));
    EXPECT_EQ(data.half_duplex_speeds, LinkSpeeds());
}

TEST_F(ethtool, without_the_kernels_answer_the_data_are_invalid_and_nothing_is_cached)
{
    hardware.answered_gets = 0;
    EXPECT_FALSE(ethtool_get_data().valid);
    EXPECT_EQ(take_log(), Log{GET_FAILURE});
    OwnedJson cached;
    EXPECT_FALSE(get_setting_not_default(find_setting(CACHE), cached));
}

// The readers

TEST_F(ethtool, the_actual_mode_is_read_from_the_kernel)
{
    EXPECT_EQ(value_of("[NIC/eth0/Actual]Autonegotiated"), "true");
    EXPECT_EQ(value_of("[NIC/eth0/Actual]FullDuplex"), "true");
    EXPECT_EQ(value_of("[NIC/eth0/Actual]LinkSpeed"), "1000");
    EXPECT_EQ(value_of("[NIC/eth0/Supported]LinkSpeed"), "1000");
    hardware.link.autoneg = AUTONEG_DISABLE;
    hardware.link.duplex = DUPLEX_HALF;
    hardware.set_speed(10);
    EXPECT_EQ(value_of("[NIC/eth0/Actual]Autonegotiated"), "false");
    EXPECT_EQ(value_of("[NIC/eth0/Actual]FullDuplex"), "false");
    EXPECT_EQ(value_of("[NIC/eth0/Actual]LinkSpeed"), "10");
}

TEST_F(ethtool, a_link_without_a_partner_has_the_speed_that_the_kernel_tells)
{
    hardware.set_speed(static_cast<std::uint32_t>(SPEED_UNKNOWN));
    EXPECT_EQ(value_of("[NIC/eth0/Actual]LinkSpeed"), "4294967295");
}

TEST_F(ethtool, the_supported_speed_is_the_largest_of_full_duplex)
{
    hold(CACHE, R"({"full_duplex":[10,2500,100],"half_duplex":[5000]})");
    EXPECT_EQ(value_of("[NIC/eth0/Supported]LinkSpeed"), "2500");
    hold(CACHE, R"({"full_duplex":[],"half_duplex":[10]})");
    EXPECT_EQ(value_of("[NIC/eth0/Supported]LinkSpeed"), "(none)");
}

TEST_F(ethtool, without_the_kernels_answer_speed_and_duplex_are_the_stored_ones)
{
    hardware.answered_gets = 0;
    hold("[NIC/eth0/Actual]FullDuplex", "false");
    EXPECT_EQ(value_of("[NIC/eth0/Actual]FullDuplex"), "false");
    EXPECT_EQ(value_of("[NIC/eth0/Actual]LinkSpeed"), "null");
    EXPECT_EQ(take_log(), (Log{GET_FAILURE,
                               "<4>read_duplex_mode: Could not get valid ethtool data for "
                               "[NIC/eth0/Actual]FullDuplex, using ubrix-setting value instead",
                               GET_FAILURE,
                               "<4>read_link_speed: Could not get valid ethtool data for "
                               "[NIC/eth0/Actual]LinkSpeed, using ubrix-setting value instead"}));
}

TEST_F(ethtool, without_a_stored_value_either_there_is_none)
{
    hardware.answered_gets = 0;
    const SettingDef row{"[NIC/eth0/Actual]Lost", nullptr, nullptr, nullptr, 0, nullptr};
    OwnedJson value;
    EXPECT_FALSE(read_duplex_mode(&row, value));
    EXPECT_FALSE(read_link_speed(&row, value));
    EXPECT_EQ(value, nullptr);
    EXPECT_EQ(
        take_log(),
        (Log{GET_FAILURE,
             "<4>read_duplex_mode: Could not get valid ethtool data for "
             "[NIC/eth0/Actual]Lost, using ubrix-setting value instead",
             "<3>read_duplex_mode: Failure getting [NIC/eth0/Actual]Lost from trell-settings", GET_FAILURE,
             "<4>read_link_speed: Could not get valid ethtool data for "
             "[NIC/eth0/Actual]Lost, using ubrix-setting value instead",
             "<3>read_link_speed: Failure getting [NIC/eth0/Actual]Lost from trell-settings"}));
}

TEST_F(ethtool, without_the_kernels_answer_autonegotiation_and_supported_speed_have_no_value)
{
    hardware.answered_gets = 0;
    EXPECT_EQ(value_of("[NIC/eth0/Actual]Autonegotiated"), "(none)");
    EXPECT_EQ(value_of("[NIC/eth0/Supported]LinkSpeed"), "(none)");
}

TEST_F(ethtool, a_reader_without_its_row_fails)
{
    OwnedJson value;
    EXPECT_FALSE(read_duplex_mode(nullptr, value));
    EXPECT_FALSE(read_link_speed(nullptr, value));
    EXPECT_FALSE(read_autoneg(nullptr, value));
    EXPECT_FALSE(read_supported_speed(nullptr, value));
    EXPECT_EQ(take_log(),
              (Log{"<3>read_duplex_mode: Null setting object", "<3>read_link_speed: Null setting object",
                   "<3>read_autoneg: Null setting object", "<3>read_supported_speed: Null setting object"}));
}

// The group check

TEST_F(ethtool, a_manual_1000_half_duplex_on_a_port_without_it_is_two_errors)
{
    EXPECT_EQ(verdict_on(R"({"[NIC/eth0/Manual]LinkSpeed": 1000, "[NIC/eth0/Manual]FullDuplex": false})"),
              UNSUPPORTED);
}

TEST_F(ethtool, a_mode_that_the_port_supports_is_accepted)
{
    EXPECT_EQ(verdict_on(R"({"[NIC/eth0/Manual]LinkSpeed": 100, "[NIC/eth0/Manual]FullDuplex": false})"),
              ACCEPTED);
    EXPECT_EQ(verdict_on(R"({"[NIC/eth0/Manual]LinkSpeed": 1000, "[NIC/eth0/Manual]FullDuplex": true})"),
              ACCEPTED);
    EXPECT_EQ(verdict_on(R"({"[NIC/eth0/Manual]LinkSpeed": 10000, "[NIC/eth0/Manual]FullDuplex": true})"),
              UNSUPPORTED);
    EXPECT_EQ(verdict_on(R"({"[NIC/eth0/Manual]LinkSpeed": 0, "[NIC/eth0/Manual]FullDuplex": true})"),
              UNSUPPORTED);
    EXPECT_EQ(verdict_on(R"({"[NIC/eth0/Manual]LinkSpeed": -10, "[NIC/eth0/Manual]FullDuplex": true})"),
              UNSUPPORTED);
}

TEST_F(ethtool, what_a_request_leaves_out_of_the_mode_is_the_present_one)
{
    EXPECT_EQ(verdict_on(R"({"[NIC/eth0/Manual]FullDuplex": true})"), ACCEPTED);
    EXPECT_EQ(verdict_on(R"({"[NIC/eth0/Manual]FullDuplex": false})"), UNSUPPORTED);
    hardware.set_speed(100);
    EXPECT_EQ(verdict_on(R"({"[NIC/eth0/Manual]FullDuplex": false})"), ACCEPTED);
    EXPECT_EQ(verdict_on(R"({"[NIC/eth0/Manual]LinkSpeed": 1000})"), ACCEPTED);
    hardware.link.duplex = DUPLEX_HALF;
    EXPECT_EQ(verdict_on(R"({"[NIC/eth0/Manual]LinkSpeed": 1000})"), UNSUPPORTED);
}

TEST_F(ethtool, a_duplex_that_is_not_true_is_half_duplex)
{
    EXPECT_EQ(verdict_on(R"({"[NIC/eth0/Manual]LinkSpeed": 1000, "[NIC/eth0/Manual]FullDuplex": 1})"),
              UNSUPPORTED);
    EXPECT_EQ(verdict_on(R"({"[NIC/eth0/Manual]LinkSpeed": 100, "[NIC/eth0/Manual]FullDuplex": "true"})"),
              ACCEPTED);
}

TEST_F(ethtool, a_list_of_speeds_ends_at_a_0)
{
    hold(CACHE, R"({"full_duplex":[10,0,100],"half_duplex":[]})");
    EXPECT_EQ(verdict_on(R"({"[NIC/eth0/Manual]LinkSpeed": 10, "[NIC/eth0/Manual]FullDuplex": true})"),
              ACCEPTED);
    EXPECT_EQ(verdict_on(R"({"[NIC/eth0/Manual]LinkSpeed": 100, "[NIC/eth0/Manual]FullDuplex": true})"),
              UNSUPPORTED);
}

TEST_F(ethtool, a_full_list_of_speeds_is_searched_to_its_end)
{
    hold(CACHE, R"({"full_duplex":[1,2,3,4,5],"half_duplex":[]})");
    EXPECT_EQ(verdict_on(R"({"[NIC/eth0/Manual]LinkSpeed": 5, "[NIC/eth0/Manual]FullDuplex": true})"),
              ACCEPTED);
    EXPECT_EQ(verdict_on(R"({"[NIC/eth0/Manual]LinkSpeed": 6, "[NIC/eth0/Manual]FullDuplex": true})"),
              UNSUPPORTED);
}

TEST_F(ethtool, a_request_without_a_manual_mode_is_not_checked)
{
    hardware.answered_gets = 0;
    EXPECT_EQ(verdict_on(R"({"[NIC/eth0/AutoNegotiated]LinkSpeed": 7})"), ACCEPTED);
    EXPECT_EQ(take_log(), Log());
}

TEST_F(ethtool, without_the_kernels_answer_no_manual_mode_is_accepted)
{
    hardware.answered_gets = 0;
    EXPECT_EQ(verdict_on(R"({"[NIC/eth0/Manual]LinkSpeed": 100, "[NIC/eth0/Manual]FullDuplex": true})"),
              UNSUPPORTED);
}

TEST_F(ethtool, a_missing_request_is_an_internal_error)
{
    const auto response = json_response_new();
    EXPECT_FALSE(verify_group_eth0_mode(nullptr, response.get()));
    EXPECT_EQ(
        print(response->root.get()),
        R"({"success":false,"errors":[{"code":1,"msg":"Null request during eth0 mode verification"}]})");
    take_log();
    EXPECT_FALSE(verify_group_eth0_mode(nullptr, nullptr));
    EXPECT_EQ(take_log(), Log{"<3>verify_group_eth0_mode: Null request during eth0 mode verification"});
}

// Saving a speed

TEST_F(ethtool, a_change_of_the_manual_speed_from_100_to_1000_also_stores_its_rate_limit)
{
    hardware.set_speed(100);
    EXPECT_TRUE(save_link_speed(setting("[NIC/eth0/Manual]LinkSpeed", "1000").get()));
    EXPECT_EQ(value_of("[NIC/eth0/Manual]LinkSpeed"), "1000");
    EXPECT_EQ(value_of(RATE_LIMIT), "240000");
    restart_store();
    EXPECT_EQ(value_of(RATE_LIMIT), "240000");
}

TEST_F(ethtool, a_change_to_100_stores_the_rate_limit_of_100)
{
    save_setting(setting(RATE_LIMIT, "240000").get());
    EXPECT_TRUE(save_link_speed(setting("[NIC/eth0/AutoNegotiated]LinkSpeed", "10").get()));
    EXPECT_TRUE(save_link_speed(setting("[NIC/eth0/AutoNegotiated]LinkSpeed", "100").get()));
    EXPECT_EQ(value_of("[NIC/eth0/AutoNegotiated]LinkSpeed"), "100");
    EXPECT_EQ(value_of(RATE_LIMIT), "80000");
}

TEST_F(ethtool, a_change_to_10_or_to_the_present_speed_stores_nothing_extra)
{
    save_setting(setting(RATE_LIMIT, "5000").get());
    for (const char* speed : {"10", "1000", "10000"}) {
        EXPECT_TRUE(save_link_speed(setting("[NIC/eth0/Manual]LinkSpeed", speed).get())) << speed;
        EXPECT_EQ(value_of("[NIC/eth0/Manual]LinkSpeed"), speed);
        EXPECT_EQ(value_of(RATE_LIMIT), "5000");
    }
}

TEST_F(ethtool, the_result_is_that_of_saving_the_speed_whatever_becomes_of_the_rate_limit)
{
    hardware.set_speed(10);
    EXPECT_FALSE(save_link_speed(setting("[NIC/eth0/Manual]LinkSpeed", "100").get()));
    EXPECT_TRUE(save_link_speed(setting("[NIC/eth0/AutoNegotiated]LinkSpeed", "1000").get()));
    EXPECT_FALSE(save_link_speed(nullptr));
}
