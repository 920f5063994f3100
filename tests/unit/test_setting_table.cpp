#include "settings/setting_def.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

namespace {

struct ExpectedRow {
    const char* key;
    std::uintptr_t apply_flags;
    const char* default_json;
};

// clang-format off
const ExpectedRow EXPECTED_ROWS[] = {
    {"[Settings]Apply", 0x0, R"(true)"},
    {"[IPv4]Enabled", 0x0, R"(true)"},
    {"[IPv4/DHCP]Enabled", 0x501A, R"(true)"},
    {"[IPv4/DHCP]Address", 0x2, R"(null)"},
    {"[IPv4/DHCP]Netmask", 0x2, R"(null)"},
    {"[IPv4/DHCP]Gateways", 0x1010, R"([])"},
    {"[IPv4/VeskoConf]Address", 0x0, R"(null)"},
    {"[IPv4/LocalLink]Address", 0x0, R"(null)"},
    {"[IPv4/LocalLink]Enabled", 0x0, R"(true)"},
    {"[IPv4/Manual]Address", 0x2, R"(null)"},
    {"[IPv4/Manual]Netmask", 0x2, R"(24)"},
    {"[IPv4/Manual]Gateways", 0x1010, R"([])"},
    {"[IPv4/Actual]Address", 0x0, R"(null)"},
    {"[IPv4/Actual]Netmask", 0x0, R"(null)"},
    {"[IPv6]Enabled", 0xACBC, R"(true)"},
    {"[IPv6/LocalLink]Address", 0x0, R"(null)"},
    {"[IPv6/Manual]Addresses", 0x4, R"([])"},
    {"[IPv6/Manual]Gateways", 0x2010, R"([])"},
    {"[IPv6/Stateless]AcceptRA", 0x800, R"(true)"},
    {"[IPv6/Stateless]Addresses", 0x0, R"([])"},
    {"[IPv6/Stateless]Gateways", 0x0, R"([])"},
    {"[IPv6/Stateful]Enabled", 0x801C, R"(true)"},
    {"[IPv6/Stateful]UseAddress", 0x4, R"(true)"},
    {"[IPv6/Stateful]Addresses", 0x4, R"([])"},
    {"[IPv6/Actual]Addresses", 0x0, R"(null)"},
    {"[IPv6/Actual]Gateways", 0x0, R"(null)"},
    {"[IPTables/Allow]IPv4List", 0x40, R"([])"},
    {"[IPTables/Allow]IPv6List", 0x80, R"([])"},
    {"[IPTables/Deny]IPv4List", 0x40, R"([])"},
    {"[IPTables/Deny]IPv6List", 0x80, R"([])"},
    {"[IPTables/Allow]TcpDestPorts", 0xC0, R"([22, 161, 8888])"},
    {"[IPTables/Allow]TcpSourcePorts", 0xC0, R"([])"},
    {"[IPTables/Allow]UdpDestPorts", 0xC0, R"([123, 161, 546, 800, 1900, 2901, 3702, [7000, 8000], 30001])"},
    {"[IPTables/Allow]UdpSourcePorts", 0xC0, R"([[6700, 8000]])"},
    {"[IPTables/Allow]UdpSourceNfsPorts", 0xC0, R"([2049, [6700, 8000]])"},
    {"[NTP]Enabled", 0x10, R"(true)"},
    {"[NTP/IPv4/DHCP]Enabled", 0x10, R"(true)"},
    {"[NTP/IPv4/DHCP]Servers", 0x10, R"([])"},
    {"[NTP/IPv6/DHCP]Enabled", 0x10, R"(true)"},
    {"[NTP/IPv6/DHCP]Servers", 0x10, R"([])"},
    {"[NTP/IPv6/Discovery]Enabled", 0x10, R"(true)"},
    {"[NTP/IPv6/Discovery]Servers", 0x10, R"([])"},
    {"[NTP/Manual]Enabled", 0x10, R"(false)"},
    {"[NTP/Manual]Servers", 0x10, R"([])"},
    {"[NIC/eth0]MAC", 0x0, R"(null)"},
    {"[NIC/eth0]MTU", 0x10000, R"(1500)"},
    {"[NIC/eth0]EUI64", 0x0, R"(null)"},
    {"[NIC/eth0/AutoNegotiated]Enabled", 0x100, R"(true)"},
    {"[NIC/eth0/AutoNegotiated]FullDuplex", 0x100, R"(true)"},
    {"[NIC/eth0/AutoNegotiated]LinkSpeed", 0x100, nullptr},
    {"[NIC/eth0/Actual]Autonegotiated", 0x0, R"(null)"},
    {"[NIC/eth0/Actual]FullDuplex", 0x0, R"(null)"},
    {"[NIC/eth0/Actual]LinkSpeed", 0x0, R"(null)"},
    {"[NIC/eth0/Manual]FullDuplex", 0x100, R"(true)"},
    {"[NIC/eth0/Manual]LinkSpeed", 0x100, R"(100)"},
    {"[NIC/eth0/Supported]LinkSpeed", 0x0, R"(100)"},
    {"[TrafficShaping]Enabled", 0x20000, R"(true)"},
    {"[TrafficShaping]AvgRateLimit", 0x20000, R"(80000)"},
    {"[TrafficShaping]BurstSize", 0x20000, R"(10240)"},
    {"[TrafficShaping]Rtp/BurstPercent", 0x20000, R"(100)"},
    {"[TrafficShaping]Rtp/CeilPercent", 0x20000, R"(100)"},
    {"[TrafficShaping]LowLatency/Rate", 0x20000, R"(90)"},
    {"[TrafficShaping]LowLatency/BurstPercent", 0x20000, R"(100)"},
    {"[TrafficShaping]LowLatency/CeilPercent", 0x20000, R"(85)"},
    {"[TrafficShaping]Bulk/Rate", 0x20000, R"(400)"},
    {"[TrafficShaping]Bulk/BurstPercent", 0x20000, R"(100)"},
    {"[TrafficShaping]Bulk/CeilPercent", 0x20000, R"(100)"},
    {"[TrafficShaping]Misc/Rate", 0x20000, R"(10)"},
    {"[TrafficShaping]Misc/BurstPercent", 0x20000, R"(100)"},
    {"[TrafficShaping]Misc/CeilPercent", 0x20000, R"(80)"},
    {"[TrafficShaping]MinAvgRateLimit", 0x0, R"(null)"},
    {"[TrafficShaping]BurstTime", 0x0, R"(null)"},
    {"[DNS]Enabled", 0x18, R"(true)"},
    {"[DNS/IPv4/DHCP]Enabled", 0x18, R"(true)"},
    {"[DNS/IPv4/DHCP]Servers", 0x18, R"([])"},
    {"[DNS/IPv4/DHCP]Search", 0x18, R"([])"},
    {"[DNS/IPv6/DHCP]Enabled", 0x18, R"(true)"},
    {"[DNS/IPv6/DHCP]Servers", 0x18, R"([])"},
    {"[DNS/IPv6/DHCP]Search", 0x18, R"([])"},
    {"[DNS/IPv6/Discovery]Enabled", 0x8, R"(true)"},
    {"[DNS/IPv6/Discovery]Servers", 0x8, R"([])"},
    {"[DNS/IPv6/Discovery]Search", 0x8, R"([])"},
    {"[DNS/Manual]Enabled", 0x18, R"(true)"},
    {"[DNS/Manual]Servers", 0x18, R"([])"},
    {"[DNS/Manual]Search", 0x18, R"([])"},
    {"[Hostname]Name", 0x200, R"(null)"},
    {"[Hostname]Domain", 0x8, R"(null)"},
    {"[Webserver/HTTP]Enabled", 0xE0, R"(true)"},
    {"[Webserver/HTTP]Port", 0x400E0, R"(80)"},
    {"[Webserver/HTTPS]Enabled", 0xE0, R"(false)"},
    {"[Webserver/HTTPS]Port", 0x400E0, R"(443)"},
    {"[Webserver/HTTPS]Certificate", 0x20, R"(null)"},
    {"[Webserver/HTTPS]Authority", 0x20, R"(null)"},
    {"[TCP/Port]InUse", 0x0, R"(null)"},
    {"[RTSP]Enabled", 0xC0, R"(true)"},
    {"[RTSP]Port", 0x400C0, R"(554)"},
    {"[NIC/eth0]SupportedModes", 0x0, R"( { "half_duplex":[10,100,1000],"full_duplex":[10,100,1000] } )"},
    {"[IPv4/Manual]DefaultGateway", 0x0, R"(null)"},
};
// clang-format on

std::string describe(const char* key, std::uintptr_t flags, const char* default_json)
{
    return std::string(key) + " " + std::to_string(flags) + " " +
           (default_json != nullptr ? default_json : "(none)");
}

} // namespace

TEST(setting_table, has_98_rows_in_order_with_their_flags_and_defaults)
{
    std::vector<std::string> expected;
    for (const ExpectedRow& row : EXPECTED_ROWS)
        expected.push_back(describe(row.key, row.apply_flags, row.default_json));
    std::vector<std::string> actual;
    for (const SettingDef* row = SETTING_TABLE; row->key != nullptr; ++row)
        actual.push_back(describe(row->key, row->apply_flags, row->default_json));
    EXPECT_EQ(actual, expected);
    EXPECT_EQ(actual.size(), 98U);
}

TEST(setting_table, every_default_parses)
{
    for (const SettingDef* row = SETTING_TABLE; row->key != nullptr; ++row) {
        if (row->default_json != nullptr) {
            EXPECT_TRUE(OwnedJson(cJSON_Parse(row->default_json))) << row->key;
        }
    }
}

TEST(setting_table, the_supported_modes_keep_the_blanks_around_their_default_and_parse_to_two_arrays)
{
    const SettingDef& row = SETTING_TABLE[96];
    EXPECT_STREQ(row.default_json, R"( { "half_duplex":[10,100,1000],"full_duplex":[10,100,1000] } )");
    const OwnedJson value(cJSON_Parse(row.default_json));
    const OwnedMallocText text(cJSON_PrintUnformatted(value.get()));
    EXPECT_STREQ(text.get(), R"({"half_duplex":[10,100,1000],"full_duplex":[10,100,1000]})");
}

TEST(setting_table, the_manual_netmask_defaults_to_the_prefix_length_24)
{
    const OwnedJson value(cJSON_Parse(SETTING_TABLE[10].default_json));
    ASSERT_TRUE(cJSON_IsNumber(value.get()));
    EXPECT_EQ(value->valueint, 24);
}

TEST(setting_table, boot_environment_rows_have_functions_of_their_own)
{
    std::vector<const SettingDef*> rows;
    for (const int number : {2, 8, 9, 10, 14, 16, 85, 97})
        rows.push_back(&SETTING_TABLE[number]);
    for (const SettingDef* row : rows) {
        ASSERT_NE(row->read, nullptr);
        ASSERT_NE(row->save, nullptr);
        for (const SettingDef* other : rows) {
            if (row != other) {
                EXPECT_NE(row->read, other->read);
                EXPECT_NE(row->save, other->save);
            }
        }
    }
}
