#include "net/dhcp.h"
#include "scripted_kernel.h"
#include "settings/setting_store.h"
#include "support.h"

#include <dirent.h>
#include <dlfcn.h>
#include <sys/socket.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstdarg>
#include <cstring>

namespace {

using Log = std::vector<std::string>;
using Texts = std::vector<std::string>;

// While one is alive, background starts are recorded instead of carried out, and the machine has neither
// processes nor pid files: a DHCP client of the machine itself must outlive the tests. The real clients are
// in the system tests.
struct RecordedStarts {
    RecordedStarts();
    ~RecordedStarts();
    RecordedStarts(const RecordedStarts&) = delete;
    RecordedStarts& operator=(const RecordedStarts&) = delete;

    Texts commands;
    bool fail = false;
    std::string no_memory_for; // the beginning of a command that cannot be built
};

RecordedStarts* starts = nullptr;

RecordedStarts::RecordedStarts()
{
    starts = this;
}

RecordedStarts::~RecordedStarts()
{
    starts = nullptr;
}

template <typename Function> Function* real(const char* name)
{
    return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

const std::string KILL_IPV4 = "/bin/kill `cat /var/run/udhcpc.eth0.pid 2>/dev/null` 2>/dev/null";
const std::string KILL_IPV6 = "/bin/kill `cat /var/run/dhclient6.pid 2>/dev/null` 2>/dev/null";
const std::string DHCLIENT = "/usr/sbin/dhclient -6 -cf /etc/isc-dhcp/isc_dhclient6.conf -pf "
                             "/var/run/dhclient6.pid eth0";

std::string udhcpc(const std::string& hostname, const std::string& mac = "00005E005301")
{
    return "/sbin/udhcpc -p /var/run/udhcpc.eth0.pid -i eth0 -T10 -t2 -A60 -f -a -S  -x hostname:" +
           hostname + "  -x 0x3d:01" + mac + " ";
}

class dhcp : public QuarnTest {
protected:
    void SetUp() override
    {
        QuarnTest::SetUp();
        hold("[IPv4/DHCP]Enabled", "true");
        kernel.datagrams[{RTM_GETLINK, AF_INET6}] = {link_message(std::string("\0\0\x5e\0\x53\x01", 6)) +
                                                     done_message()};
    }
    void hold(const char* key, const char* json_text)
    {
        ASSERT_TRUE(save_or_hold_setting(setting(key, json_text).get(), Keep::HELD, Unchanged::WRITTEN));
        take_log();
    }
    static Texts values_of(const std::vector<const char*>& keys)
    {
        Texts values;
        for (const char* key : keys)
            values.push_back(value_of(key));
        return values;
    }
    ScriptedKernel kernel;
    RecordedStarts background;
};

} // namespace

extern "C" gboolean g_spawn_command_line_async(const gchar* command, GError** error)
{
    if (starts == nullptr)
        return real<gboolean(const gchar*, GError**)>("g_spawn_command_line_async")(command, error);
    starts->commands.emplace_back(command);
    return starts->fail ? FALSE : TRUE;
}

extern "C" gchar* g_strdup_vprintf(const gchar* format, va_list arguments)
{
    if (starts != nullptr && !starts->no_memory_for.empty() &&
        std::string_view(format).starts_with(starts->no_memory_for))
        return nullptr;
    return real<gchar*(const gchar*, va_list)>("g_strdup_vprintf")(format, arguments);
}

extern "C" DIR* opendir(const char* path)
{
    if (starts == nullptr || std::strcmp(path, "/proc") != 0)
        return real<DIR*(const char*)>("opendir")(path);
    errno = ENOENT;
    return nullptr;
}

extern "C" int lstat(const char* path, struct stat* status) noexcept
{
    if (starts == nullptr || std::strncmp(path, "/var/run/", 9) != 0)
        return real<int(const char*, struct stat*)>("lstat")(path, status);
    errno = ENOENT;
    return -1;
}

// IPv4

TEST_F(dhcp, the_ipv4_client_is_started_with_host_name_and_hardware_address)
{
    hold("[Hostname]Name", R"("camera-7")");
    start_dhcpv4();
    EXPECT_EQ(recorded_shell.commands, Texts{KILL_IPV4});
    EXPECT_EQ(background.commands, Texts{udhcpc("camera-7")});
    EXPECT_EQ(take_log(),
              (Log{"<6>stop_any_dhcpv4: Stopping any running DHCPv4 client",
                   "<7>start_dhcpv4:LINE: DHCPv4 is enabled.  Starting client: '" + udhcpc("camera-7") + "'",
                   "QUARN: Started IPv4 DHCP client in background",
                   "<5>start_dhcpv4: Console Output: Started IPv4 DHCP client in background"}));
}

TEST_F(dhcp, with_no_host_name_stored_the_command_holds_hostname_and_nothing_behind_it)
{
    start_dhcpv4();
    EXPECT_EQ(background.commands, Texts{udhcpc("")});
    hold("[Hostname]Name", "null");
    start_dhcpv4();
    hold("[Hostname]Name", R"("")");
    start_dhcpv4();
    EXPECT_EQ(background.commands, (Texts{udhcpc(""), udhcpc(""), udhcpc("")}));
}

TEST_F(dhcp, without_a_hardware_address_its_place_stays_empty)
{
    kernel.datagrams.clear();
    hold("[Hostname]Name", R"("camera")");
    start_dhcpv4();
    EXPECT_EQ(background.commands, Texts{udhcpc("camera", "")});
}

TEST_F(dhcp, a_host_name_of_other_bytes_stays_one_argument)
{
    hold("[Hostname]Name", R"("Camera 7's -x 0x3d:02; reboot $(reboot)\n")");
    start_dhcpv4();
    ASSERT_EQ(background.commands.size(), 1U);
    char** arguments = nullptr;
    ASSERT_TRUE(g_shell_parse_argv(background.commands[0].c_str(), nullptr, &arguments, nullptr));
    const OwnedStringArray owned(arguments);
    const Texts parsed(arguments, arguments + g_strv_length(arguments));
    EXPECT_EQ(parsed,
              (Texts{"/sbin/udhcpc", "-p", "/var/run/udhcpc.eth0.pid", "-i", "eth0", "-T10", "-t2", "-A60",
                     "-f", "-a", "-S", "-x", "hostname:Camera 7's -x 0x3d:02; reboot $(reboot)\n", "-x",
                     "0x3d:0100005E005301"}));
}

TEST_F(dhcp, an_ipv4_client_that_cannot_be_started_is_logged)
{
    background.fail = true;
    start_dhcpv4();
    EXPECT_EQ(take_important_log(), Log{"<4>start_dhcpv4: Couldn't start dhcpv4 with '" + udhcpc("") + "'"});
}

TEST_F(dhcp, a_stop_command_that_fails_is_the_normal_case)
{
    recorded_shell.statuses = {{"/bin/kill", 1}};
    stop_any_dhcpv4();
    stop_any_dhcpv6();
    EXPECT_EQ(recorded_shell.commands, (Texts{KILL_IPV4, KILL_IPV6}));
    EXPECT_EQ(take_log(), (Log{"<6>stop_any_dhcpv4: Stopping any running DHCPv4 client",
                               "<7>stop_any_dhcpv4:LINE: Received code 1 on '" + KILL_IPV4 + "'",
                               "<6>stop_any_dhcpv6: Stopping any running DHCPv6 client",
                               "<7>stop_any_dhcpv6:LINE: Received code 1 on '" + KILL_IPV6 + "'"}));
}

TEST_F(dhcp, switched_off_the_ipv4_client_is_stopped_and_its_six_keys_go_back_to_their_defaults)
{
    hold("[IPv4/DHCP]Enabled", "false");
    hold("[IPv4/DHCP]Address", R"("10.1.2.3")");
    hold("[IPv4/DHCP]Netmask", "16");
    hold("[IPv4/DHCP]Gateways", R"(["10.1.0.1"])");
    hold("[NTP/IPv4/DHCP]Servers", R"(["10.1.0.2"])");
    hold("[DNS/IPv4/DHCP]Servers", R"(["10.1.0.3"])");
    hold("[DNS/IPv4/DHCP]Search", R"(["example.com"])");
    start_dhcpv4();
    EXPECT_EQ(recorded_shell.commands, Texts{KILL_IPV4});
    EXPECT_EQ(background.commands, Texts());
    EXPECT_EQ(values_of({"[IPv4/DHCP]Address", "[IPv4/DHCP]Netmask", "[IPv4/DHCP]Gateways",
                         "[NTP/IPv4/DHCP]Servers", "[DNS/IPv4/DHCP]Servers", "[DNS/IPv4/DHCP]Search"}),
              (Texts{"null", "null", "[]", "[]", "[]", "[]"}));
    EXPECT_EQ(take_log(), Log{"<6>stop_any_dhcpv4: Stopping any running DHCPv4 client"});
}

TEST_F(dhcp, the_keys_of_ipv4_are_restored_in_their_order)
{
    // What is not being changed says so: here nothing is.
    hold("[IPv4/DHCP]Enabled", "false");
    start_dhcpv4();
    Log expected = {"<6>stop_any_dhcpv4: Stopping any running DHCPv4 client"};
    for (const char* key : {"[IPv4/DHCP]Address", "[IPv4/DHCP]Netmask", "[IPv4/DHCP]Gateways",
                            "[NTP/IPv4/DHCP]Servers", "[DNS/IPv4/DHCP]Servers", "[DNS/IPv4/DHCP]Search"})
        expected.push_back("<7>save_or_hold_setting:LINE: The setting " + std::string(key) +
                           " is not being changed");
    EXPECT_EQ(take_log(), expected);
}

// IPv6

TEST_F(dhcp, the_ipv6_client_is_started_where_ipv6_and_stateful_addresses_are_enabled)
{
    hold("[IPv6]Enabled", "true");
    hold("[IPv6/Stateful]Enabled", "true");
    start_dhcpv6();
    EXPECT_EQ(recorded_shell.commands, Texts{KILL_IPV6});
    EXPECT_EQ(background.commands, Texts{DHCLIENT});
    EXPECT_EQ(take_log(),
              (Log{"<6>stop_any_dhcpv6: Stopping any running DHCPv6 client",
                   "<7>start_dhcpv6:LINE: DHCPv6 is enabled.  Starting client: '" + DHCLIENT + "'",
                   "QUARN: Started DHCPv6 client in background",
                   "<5>start_dhcpv6: Console Output: Started DHCPv6 client in background"}));
}

TEST_F(dhcp, an_ipv6_client_that_cannot_be_started_is_logged)
{
    hold("[IPv6]Enabled", "true");
    background.fail = true;
    start_dhcpv6();
    EXPECT_EQ(take_important_log(),
              Log{"<4>start_dhcpv6: Couldn't start DHCPv6 client with '" + DHCLIENT + "'"});
}

TEST_F(dhcp, without_memory_for_its_command_the_ipv6_client_is_neither_started_nor_stopped)
{
    hold("[IPv6]Enabled", "true");
    const std::string stopping = "<6>stop_any_dhcpv6: Stopping any running DHCPv6 client";
    background.no_memory_for = "/usr/sbin/dhclient";
    start_dhcpv6();
    EXPECT_EQ(recorded_shell.commands, Texts{KILL_IPV6});
    EXPECT_EQ(take_log(), (Log{stopping, "<2>start_dhcpv6:LINE: g_strdup_printf failure"}));
    background.no_memory_for = "/bin/kill";
    stop_any_dhcpv6();
    EXPECT_EQ(recorded_shell.commands, Texts{KILL_IPV6});
    EXPECT_EQ(take_log(), (Log{stopping, "<2>stop_any_dhcpv6:LINE: g_strdup_printf failure"}));
    EXPECT_EQ(background.commands, Texts());
}

TEST_F(dhcp, stateful_addresses_without_ipv6_run_no_client_and_its_four_keys_are_reset)
{
    for (const auto& [ipv6, stateful] :
         {std::pair{"false", "true"}, std::pair{"true", "false"}, std::pair{"false", "false"}}) {
        hold("[IPv6]Enabled", ipv6);
        hold("[IPv6/Stateful]Enabled", stateful);
        hold("[IPv6/Stateful]Addresses", R"(["2001:db8::5/64"])");
        hold("[NTP/IPv6/DHCP]Servers", R"(["2001:db8::2"])");
        hold("[DNS/IPv6/DHCP]Servers", R"(["2001:db8::3"])");
        hold("[DNS/IPv6/DHCP]Search", R"(["example.com"])");
        recorded_shell.commands.clear();
        start_dhcpv6();
        EXPECT_EQ(recorded_shell.commands, Texts{KILL_IPV6});
        EXPECT_EQ(background.commands, Texts());
        EXPECT_EQ(values_of({"[IPv6/Stateful]Addresses", "[NTP/IPv6/DHCP]Servers", "[DNS/IPv6/DHCP]Servers",
                             "[DNS/IPv6/DHCP]Search"}),
                  (Texts{"[]", "[]", "[]", "[]"}));
    }
}

TEST_F(dhcp, the_keys_of_ipv6_are_restored_in_their_order)
{
    hold("[IPv6]Enabled", "false");
    start_dhcpv6();
    Log expected = {"<6>stop_any_dhcpv6: Stopping any running DHCPv6 client"};
    for (const char* key : {"[IPv6/Stateful]Addresses", "[NTP/IPv6/DHCP]Servers", "[DNS/IPv6/DHCP]Servers",
                            "[DNS/IPv6/DHCP]Search"})
        expected.push_back("<7>save_or_hold_setting:LINE: The setting " + std::string(key) +
                           " is not being changed");
    EXPECT_EQ(take_log(), expected);
}
