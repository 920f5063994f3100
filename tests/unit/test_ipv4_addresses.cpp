#include "core/signals.h"
#include "net/ipv4_addresses.h"
#include "scripted_kernel.h"
#include "settings/setting_store.h"
#include "support.h"

#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>

namespace {

using Log = std::vector<std::string>;
using Commands = std::vector<std::string>;

constexpr unsigned SEED = 4711;
const std::string ALIAS_DOWN = "/sbin/ifconfig eth0:1 down";
const std::string MULTICAST =
    "if ! /sbin/route | grep 224.0.0.0 >/dev/null ; then  /sbin/route add -net 224.0.0.0 netmask "
    "240.0.0.0 dev eth0 ; fi";
const Commands DECONFIGURATION = {ALIAS_DOWN, "/sbin/ifconfig eth0 0.0.0.0"};

std::string probe(const std::string& address)
{
    return "/usr/sbin/arping -D -c2 " + address;
}

std::string link_local_command(const std::string& address)
{
    return "/sbin/ifconfig eth0 " + address + " netmask 255.255.0.0 broadcast 169.254.255.255";
}

// The addresses that are drawn first after this seed; the generator starts there again.
Commands drawn_after(unsigned seed, int count)
{
    Commands addresses;
    g_random_set_seed(seed);
    for (int drawn = 0; drawn < count; ++drawn) {
        const unsigned number = g_random_int();
        addresses.push_back("169.254." + std::to_string(number >> 8 & 0xFF) + "." +
                            std::to_string(number & 0xFF));
    }
    g_random_set_seed(seed);
    return addresses;
}

// What the store holds, past the reader that would probe.
std::string stored(const char* key)
{
    OwnedJson value;
    return get_setting_not_default(find_setting(key), value) ? print(value.get()) : "(none)";
}

// Runs the body in a child, whose signals and remembered address end with it.
bool holds_in_a_child(bool (*body)())
{
    const pid_t child = fork();
    if (child == 0)
        _exit(body() ? EXIT_SUCCESS : EXIT_FAILURE);
    int status = -1;
    waitpid(child, &status, 0);
    return status == 0;
}

class ipv4_addresses : public QuarnTest {
protected:
    void hold(const char* key, const char* json_text)
    {
        hold_setting(setting(key, json_text).get());
        take_log();
    }
    void hold_manual(const char* address, const char* length)
    {
        hold("[IPv4/DHCP]Enabled", "false");
        hold("[IPv4/Manual]Address", address);
        hold("[IPv4/Manual]Netmask", length);
    }
    void hold_lease(const char* address, const char* length)
    {
        hold("[IPv4/DHCP]Enabled", "true");
        hold("[IPv4/DHCP]Address", address);
        hold("[IPv4/DHCP]Netmask", length);
    }
    ScriptedKernel kernel;
};

// Nothing takes the remembered address away again: such a test needs a process of its own, which ctest gives
// it.
#define NEEDS_NO_REMEMBERED_LINK_LOCAL_ADDRESS()                                                             \
    if (*current_ipv4_linklocal_text() != '\0')                                                              \
    GTEST_SKIP() << "an earlier test of this process has set the link-local address"

} // namespace

TEST_F(ipv4_addresses, a_manual_address_is_put_on_eth0)
{
    hold_manual("\"10.0.0.5\"", "24");
    EXPECT_TRUE(set_ipv4_addresses());
    const std::string command = "/sbin/ifconfig eth0 10.0.0.5 netmask 255.255.255.0 broadcast 10.0.0.255";
    EXPECT_EQ(recorded_shell.commands, (Commands{ALIAS_DOWN, command, MULTICAST}));
    EXPECT_EQ(take_log(), (Log{"<6>_do_ifconfig: Setting IPv4 address=10.0.0.5/24",
                               "<7>_do_ifconfig:LINE: Running '" + command + "'",
                               "QUARN: Set eth0 IPv4 address 10.0.0.5/24",
                               "<5>_do_ifconfig: Console Output: Set eth0 IPv4 address 10.0.0.5/24",
                               "<7>add_multicast_route:LINE: Added multicast route"}));
}

TEST_F(ipv4_addresses, a_manual_address_that_cannot_be_set_is_a_failure)
{
    hold_manual("\"10.0.0.5\"", "24");
    recorded_shell.statuses = {{"ifconfig eth0 ", 1}};
    EXPECT_FALSE(set_ipv4_addresses());
    EXPECT_EQ(recorded_shell.commands,
              (Commands{ALIAS_DOWN, "/sbin/ifconfig eth0 10.0.0.5 netmask 255.255.255.0 broadcast 10.0.0.255",
                        MULTICAST}));
    EXPECT_EQ(take_important_log(), Log{"<3>_do_ifconfig: ifconfig returned 1"});
}

TEST_F(ipv4_addresses, a_manual_address_with_netmask_0_deconfigures)
{
    hold_manual("\"10.0.0.5\"", "0");
    EXPECT_TRUE(set_ipv4_addresses());
    EXPECT_EQ(recorded_shell.commands, DECONFIGURATION);
    EXPECT_EQ(take_log(), Log{"<6>set_ipv4_addresses: Deconfiguring eth0"});
}

TEST_F(ipv4_addresses, without_a_manual_address_eth0_is_deconfigured)
{
    hold_manual("null", "24");
    EXPECT_TRUE(set_ipv4_addresses());
    EXPECT_EQ(recorded_shell.commands, DECONFIGURATION);
    EXPECT_EQ(take_log(), Log{"<6>set_ipv4_addresses: Deconfiguring eth0"});
}

TEST_F(ipv4_addresses, a_leased_address_is_put_on_eth0_alone)
{
    hold_lease("\"192.168.7.30\"", "22");
    EXPECT_TRUE(set_ipv4_addresses());
    EXPECT_EQ(recorded_shell.commands,
              (Commands{ALIAS_DOWN,
                        "/sbin/ifconfig eth0 192.168.7.30 netmask 255.255.252.0 broadcast 192.168.7.255",
                        MULTICAST}));
}

TEST_F(ipv4_addresses, a_lost_lease_without_link_local_runs_nothing_and_fails)
{
    hold_lease("\"0.0.0.0\"", "24");
    hold("[IPv4/LocalLink]Enabled", "false");
    EXPECT_FALSE(set_ipv4_addresses());
    EXPECT_EQ(recorded_shell.commands, Commands());
    EXPECT_EQ(take_log(), Log());
}

TEST_F(ipv4_addresses, a_lost_lease_leaves_a_fresh_link_local_address)
{
    NEEDS_NO_REMEMBERED_LINK_LOCAL_ADDRESS();
    hold_lease("\"0.0.0.0\"", "24");
    const std::string drawn = drawn_after(SEED, 1)[0];
    EXPECT_TRUE(set_ipv4_addresses());
    EXPECT_EQ(recorded_shell.commands, (Commands{probe(drawn), link_local_command(drawn)}));
    EXPECT_STREQ(current_ipv4_linklocal_text(), "");
}

TEST_F(ipv4_addresses, a_lost_lease_without_a_prefix_length_deconfigures)
{
    hold_lease("\"0.0.0.0\"", "0");
    EXPECT_TRUE(set_ipv4_addresses());
    EXPECT_EQ(recorded_shell.commands, DECONFIGURATION);
}

TEST_F(ipv4_addresses, without_a_lease_eth0_gets_a_link_local_address_and_the_alias_the_first_free_fallback)
{
    recorded_shell.statuses = {{"arping -D -c2 192.168.0.20", 1}};
    const std::string drawn = drawn_after(SEED, 1)[0];
    EXPECT_TRUE(set_ipv4_addresses());
    EXPECT_EQ(recorded_shell.commands,
              (Commands{probe(drawn), probe("192.168.0.20"), probe("192.168.0.21"), link_local_command(drawn),
                        "/sbin/ifconfig eth0:1 192.168.0.21 netmask 255.255.255.0 broadcast 192.168.0.255",
                        MULTICAST}));
    EXPECT_EQ(stored("[IPv4/VeskoConf]Address"), "\"192.168.0.21\"");
    EXPECT_EQ(stored("[IPv4/LocalLink]Address"), "\"" + drawn + "\"");
    restart_store();
    EXPECT_EQ(stored("[IPv4/VeskoConf]Address"), "\"192.168.0.21\"");
    EXPECT_EQ(stored("[IPv4/LocalLink]Address"), "\"" + drawn + "\"");
}

TEST_F(ipv4_addresses, without_a_lease_and_link_local_eth0_gets_the_fallback_alone)
{
    hold("[IPv4/LocalLink]Enabled", "false");
    EXPECT_TRUE(set_ipv4_addresses());
    EXPECT_EQ(recorded_shell.commands,
              (Commands{probe("192.168.0.20"), ALIAS_DOWN,
                        "/sbin/ifconfig eth0 192.168.0.20 netmask 255.255.255.0 broadcast 192.168.0.255",
                        MULTICAST}));
    EXPECT_EQ(stored("[IPv4/VeskoConf]Address"), "\"192.168.0.20\"");
    EXPECT_EQ(stored("[IPv4/LocalLink]Address"), "(none)");
}

TEST_F(ipv4_addresses, without_a_free_fallback_and_link_local_eth0_is_deconfigured)
{
    hold("[IPv4/LocalLink]Enabled", "false");
    save_text_setting("[IPv4/VeskoConf]Address", "192.168.0.99", Unchanged::WRITTEN);
    recorded_shell.statuses = {{"arping", 1}};
    EXPECT_TRUE(set_ipv4_addresses());
    Commands expected{probe("192.168.0.99")};
    for (int host = 20; host <= 254; ++host)
        expected.push_back(probe("192.168.0." + std::to_string(host)));
    expected.insert(expected.end(), DECONFIGURATION.begin(), DECONFIGURATION.end());
    EXPECT_EQ(recorded_shell.commands, expected);
    EXPECT_EQ(stored("[IPv4/VeskoConf]Address"), "null");
}

TEST_F(ipv4_addresses, without_a_free_fallback_the_link_local_address_stands_alone_and_is_not_remembered)
{
    NEEDS_NO_REMEMBERED_LINK_LOCAL_ADDRESS();
    recorded_shell.statuses = {{"arping -D -c2 192.168.0.", 1}};
    const std::string drawn = drawn_after(SEED, 1)[0];
    EXPECT_TRUE(set_ipv4_addresses());
    Commands expected{probe(drawn)};
    for (int host = 20; host <= 254; ++host)
        expected.push_back(probe("192.168.0." + std::to_string(host)));
    expected.insert(expected.end(), {ALIAS_DOWN, link_local_command(drawn), MULTICAST});
    EXPECT_EQ(recorded_shell.commands, expected);
    EXPECT_STREQ(current_ipv4_linklocal_text(), "");
}

TEST_F(ipv4_addresses, addresses_that_were_chosen_before_are_used_again_while_they_are_free)
{
    save_text_setting("[IPv4/LocalLink]Address", "169.254.3.4", Unchanged::WRITTEN);
    save_text_setting("[IPv4/VeskoConf]Address", "192.168.0.77", Unchanged::WRITTEN);
    EXPECT_TRUE(set_ipv4_addresses());
    EXPECT_EQ(recorded_shell.commands,
              (Commands{probe("169.254.3.4"), probe("192.168.0.77"), link_local_command("169.254.3.4"),
                        "/sbin/ifconfig eth0:1 192.168.0.77 netmask 255.255.255.0 broadcast 192.168.0.255",
                        MULTICAST}));
}

TEST_F(ipv4_addresses, a_chosen_address_that_is_in_use_is_replaced)
{
    save_text_setting("[IPv4/LocalLink]Address", "169.254.3.4", Unchanged::WRITTEN);
    save_text_setting("[IPv4/VeskoConf]Address", "192.168.0.77", Unchanged::WRITTEN);
    const Commands drawn = drawn_after(SEED, 2);
    recorded_shell.statuses = {{"169.254.3.4", 1}, {"192.168.0.77", 1}, {"arping -D -c2 " + drawn[0], 2}};
    EXPECT_TRUE(set_ipv4_addresses());
    EXPECT_EQ(recorded_shell.commands,
              (Commands{probe("169.254.3.4"), probe(drawn[0]), probe(drawn[1]), probe("192.168.0.77"),
                        probe("192.168.0.20"), link_local_command(drawn[1]),
                        "/sbin/ifconfig eth0:1 192.168.0.20 netmask 255.255.255.0 broadcast 192.168.0.255",
                        MULTICAST}));
    EXPECT_EQ(stored("[IPv4/LocalLink]Address"), "\"" + drawn[1] + "\"");
    EXPECT_EQ(stored("[IPv4/VeskoConf]Address"), "\"192.168.0.20\"");
}

TEST_F(ipv4_addresses, a_stored_text_that_is_no_address_is_neither_probed_nor_used)
{
    for (const char* text : {"169.254.3.4;reboot", "camera.example", "", "fe80::1"}) {
        save_text_setting("[IPv4/LocalLink]Address", text, Unchanged::WRITTEN);
        save_text_setting("[IPv4/VeskoConf]Address", text, Unchanged::WRITTEN);
        recorded_shell.commands.clear();
        const std::string drawn = drawn_after(SEED, 1)[0];
        EXPECT_TRUE(set_ipv4_addresses());
        EXPECT_EQ(
            recorded_shell.commands,
            (Commands{probe(drawn), probe("192.168.0.20"), link_local_command(drawn),
                      "/sbin/ifconfig eth0:1 192.168.0.20 netmask 255.255.255.0 broadcast 192.168.0.255",
                      MULTICAST}))
            << text;
    }
}

TEST_F(ipv4_addresses, without_a_prober_the_addresses_that_were_chosen_before_stay)
{
    for (const int status : {126, 127}) {
        save_text_setting("[IPv4/LocalLink]Address", "169.254.3.4", Unchanged::WRITTEN);
        save_text_setting("[IPv4/VeskoConf]Address", "192.168.0.77", Unchanged::WRITTEN);
        recorded_shell = {};
        recorded_shell.statuses = {{"arping", status}};
        take_log();
        EXPECT_TRUE(set_ipv4_addresses());
        EXPECT_EQ(
            recorded_shell.commands,
            (Commands{probe("169.254.3.4"), probe("192.168.0.77"), link_local_command("169.254.3.4"),
                      "/sbin/ifconfig eth0:1 192.168.0.77 netmask 255.255.255.0 broadcast 192.168.0.255",
                      MULTICAST}));
        EXPECT_EQ(stored("[IPv4/LocalLink]Address"), "\"169.254.3.4\"");
        Log errors = take_log();
        std::erase_if(errors, [](const std::string& line) { return !line.starts_with("<3>"); });
        const std::string end = ", arping returned " + std::to_string(status);
        EXPECT_EQ(errors, (Log{"<3>probe_ipv4_address: Can't probe 169.254.3.4" + end,
                               "<3>probe_ipv4_address: Can't probe 192.168.0.77" + end}));
    }
}

TEST_F(ipv4_addresses, without_a_prober_the_first_drawn_address_is_taken_and_remembered)
{
    recorded_shell.statuses = {{"arping", 127}};
    const std::string drawn = drawn_after(SEED, 1)[0];
    EXPECT_STREQ(_get_unused_ipv4_link_local_address().get(), drawn.c_str());
    EXPECT_EQ(recorded_shell.commands, Commands{probe(drawn)});
    EXPECT_EQ(stored("[IPv4/LocalLink]Address"), "\"" + drawn + "\"");
}

TEST_F(ipv4_addresses, without_a_prober_the_first_fallback_is_taken)
{
    hold("[IPv4/LocalLink]Enabled", "false");
    recorded_shell.statuses = {{"arping", 127}};
    EXPECT_TRUE(set_ipv4_addresses());
    EXPECT_EQ(recorded_shell.commands,
              (Commands{probe("192.168.0.20"), ALIAS_DOWN,
                        "/sbin/ifconfig eth0 192.168.0.20 netmask 255.255.255.0 broadcast 192.168.0.255",
                        MULTICAST}));
}

TEST_F(ipv4_addresses, the_alias_is_not_set_when_eth0_could_not_be)
{
    save_text_setting("[IPv4/LocalLink]Address", "169.254.3.4", Unchanged::WRITTEN);
    recorded_shell.statuses = {{"/sbin/ifconfig eth0 ", 1}};
    EXPECT_FALSE(set_ipv4_addresses());
    EXPECT_EQ(recorded_shell.commands, (Commands{probe("169.254.3.4"), probe("192.168.0.20"),
                                                 link_local_command("169.254.3.4"), MULTICAST}));
}

TEST_F(ipv4_addresses, an_alias_that_cannot_be_set_is_a_failure)
{
    save_text_setting("[IPv4/LocalLink]Address", "169.254.3.4", Unchanged::WRITTEN);
    recorded_shell.statuses = {{"/sbin/ifconfig eth0:1 ", 1}};
    EXPECT_FALSE(set_ipv4_addresses());
    EXPECT_EQ(recorded_shell.commands,
              (Commands{probe("169.254.3.4"), probe("192.168.0.20"), link_local_command("169.254.3.4"),
                        "/sbin/ifconfig eth0:1 192.168.0.20 netmask 255.255.255.0 broadcast 192.168.0.255",
                        MULTICAST}));
}

TEST_F(ipv4_addresses, an_nfs_root_keeps_its_address_and_gets_the_multicast_route)
{
    kernel.command_line = "console=ttyS0 root=/dev/nfs ip=dhcp";
    hold_manual("\"10.0.0.5\"", "24");
    EXPECT_TRUE(set_ipv4_addresses());
    EXPECT_EQ(recorded_shell.commands, Commands{MULTICAST});
    EXPECT_EQ(take_log(), (Log{"<4>set_ipv4_addresses: Not changing ip config because of NFS mount",
                               "<7>add_multicast_route:LINE: Added multicast route"}));
}

TEST_F(ipv4_addresses, an_nfs_root_without_a_lease_is_probed_for_and_left_alone)
{
    kernel.command_line = "root=/dev/nfs";
    const std::string drawn = drawn_after(SEED, 1)[0];
    EXPECT_TRUE(set_ipv4_addresses());
    EXPECT_EQ(recorded_shell.commands, (Commands{probe(drawn), probe("192.168.0.20"), MULTICAST}));
}

TEST_F(ipv4_addresses, the_netmask_and_the_broadcast_address_follow_from_the_prefix_length)
{
    const std::pair<unsigned, const char*> cases[] = {
        {0, "netmask 0.0.0.0 broadcast 10.1.2.5"},
        {1, "netmask 128.0.0.0 broadcast 127.255.255.255"},
        {8, "netmask 255.0.0.0 broadcast 10.255.255.255"},
        {20, "netmask 255.255.240.0 broadcast 10.1.15.255"},
        {30, "netmask 255.255.255.252 broadcast 10.1.2.7"},
        {31, "netmask 255.255.255.254 broadcast 10.1.2.5"},
        {32, "netmask 255.255.255.255 broadcast 10.1.2.5"},
    };
    for (const auto& [length, expected] : cases) {
        recorded_shell.commands.clear();
        EXPECT_TRUE(_do_ifconfig(":1", "10.1.2.5", length));
        EXPECT_EQ(recorded_shell.commands,
                  Commands{std::string("/sbin/ifconfig eth0:1 10.1.2.5 ") + expected});
    }
}

TEST_F(ipv4_addresses, an_address_that_could_be_a_command_is_not_run)
{
    EXPECT_FALSE(_do_ifconfig("", "10.0.0.5;reboot", 24));
    EXPECT_EQ(recorded_shell.commands, Commands());
    EXPECT_EQ(take_important_log().back(), "<3>_do_ifconfig: ifconfig returned 255");
}

TEST_F(ipv4_addresses, link_local_addresses_are_drawn_until_one_is_free)
{
    const Commands drawn = drawn_after(SEED, 3);
    recorded_shell.statuses = {{drawn[0], 1}, {drawn[1], 2}};
    EXPECT_EQ(_get_unused_ipv4_link_local_address().get(), drawn[2]);
    EXPECT_EQ(recorded_shell.commands, (Commands{probe(drawn[0]), probe(drawn[1]), probe(drawn[2])}));
    EXPECT_EQ(stored("[IPv4/LocalLink]Address"), "\"" + drawn[2] + "\"");
}

TEST_F(ipv4_addresses, the_broadcast_address_of_the_link_local_network_is_never_drawn)
{
    unsigned seed = 1;
    while (drawn_after(seed, 1)[0] != "169.254.255.255")
        ++seed;
    EXPECT_STREQ(_get_unused_ipv4_link_local_address().get(), "169.254.255.254");
}

TEST_F(ipv4_addresses, the_first_and_the_last_third_octet_are_drawn_too)
{
    for (const char* network : {"169.254.0.", "169.254.255."}) {
        unsigned seed = 1;
        while (!drawn_after(seed, 1)[0].starts_with(network))
            ++seed;
        const std::string expected = drawn_after(seed, 1)[0];
        save_text_setting("[IPv4/LocalLink]Address", nullptr, Unchanged::WRITTEN);
        EXPECT_EQ(_get_unused_ipv4_link_local_address().get(), expected);
    }
}

TEST_F(ipv4_addresses, a_terminating_signal_ends_a_draw_and_touches_no_address)
{
    NEEDS_NO_REMEMBERED_LINK_LOCAL_ADDRESS();
    EXPECT_TRUE(holds_in_a_child([] {
        recorded_shell.statuses = {{"arping", 1}};
        install_signal_handlers();
        std::signal(SIGALRM, [](int) { std::raise(SIGTERM); });
        const itimerval soon{{0, 0}, {0, 20000}};
        setitimer(ITIMER_REAL, &soon, nullptr);
        const bool succeeded = set_ipv4_addresses();
        std::erase_if(recorded_shell.commands,
                      [](const std::string& command) { return command.starts_with(probe("169.254.")); });
        return !succeeded && recorded_shell.commands.empty() && *current_ipv4_linklocal_text() == '\0' &&
               stored("[IPv4/LocalLink]Address") == "(none)" && stored("[IPv4/VeskoConf]Address") == "(none)";
    }));
}

TEST_F(ipv4_addresses, a_terminating_signal_ends_the_fallback_search_and_touches_no_address)
{
    hold("[IPv4/LocalLink]Enabled", "false");
    EXPECT_TRUE(holds_in_a_child([] {
        install_signal_handlers();
        std::raise(SIGTERM);
        const bool succeeded = set_ipv4_addresses();
        return !succeeded && recorded_shell.commands.empty() && stored("[IPv4/VeskoConf]Address") == "(none)";
    }));
}

TEST_F(ipv4_addresses, a_terminating_signal_leaves_a_drawn_address_unproven_and_unstored)
{
    EXPECT_TRUE(holds_in_a_child([] {
        install_signal_handlers();
        std::raise(SIGTERM);
        const std::string drawn = drawn_after(SEED, 1)[0];
        return _get_unused_ipv4_link_local_address().get() == drawn && recorded_shell.commands.empty() &&
               stored("[IPv4/LocalLink]Address") == "(none)";
    }));
}

TEST_F(ipv4_addresses, a_terminating_signal_does_not_keep_a_known_address_from_eth0)
{
    hold_manual("\"10.0.0.5\"", "24");
    EXPECT_TRUE(holds_in_a_child([] {
        install_signal_handlers();
        std::raise(SIGTERM);
        return set_ipv4_addresses() &&
               recorded_shell.commands ==
                   Commands{ALIAS_DOWN,
                            "/sbin/ifconfig eth0 10.0.0.5 netmask 255.255.255.0 broadcast 10.0.0.255",
                            MULTICAST};
    }));
}

TEST_F(ipv4_addresses, the_link_local_address_beside_the_alias_is_remembered_once_and_serves_a_lost_lease)
{
    NEEDS_NO_REMEMBERED_LINK_LOCAL_ADDRESS();
    // It counts although it could not be set.
    recorded_shell.statuses = {{"/sbin/ifconfig eth0 ", 1}};
    save_text_setting("[IPv4/LocalLink]Address", "169.254.3.4", Unchanged::WRITTEN);
    EXPECT_FALSE(set_ipv4_addresses());
    EXPECT_STREQ(current_ipv4_linklocal_text(), "169.254.3.4");
    save_text_setting("[IPv4/LocalLink]Address", "169.254.5.6", Unchanged::WRITTEN);
    recorded_shell = {};
    EXPECT_TRUE(set_ipv4_addresses());
    EXPECT_STREQ(current_ipv4_linklocal_text(), "169.254.3.4");
    recorded_shell = {};
    hold_lease("\"0.0.0.0\"", "24");
    EXPECT_TRUE(set_ipv4_addresses());
    EXPECT_EQ(recorded_shell.commands, Commands{link_local_command("169.254.3.4")});
    EXPECT_EQ(value_of("[IPv4/LocalLink]Address"), "\"169.254.3.4\"");
}
