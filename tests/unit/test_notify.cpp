#include "core/notify.h"
#include "msgbus.h"
#include "net/netlink.h"
#include "scripted_kernel.h"
#include "settings/setting_store.h"
#include "support.h"

#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <systemd/sd-bus.h>

namespace {

using Log = std::vector<std::string>;
using Signals = std::vector<std::string>;

constexpr std::uint32_t ALL_SIGNALS = SIGNAL_IPV4_ADDRESS_CHANGED | SIGNAL_IPV6_ADDRESSES_ADDED |
                                      SIGNAL_IPV6_ADDRESSES_REMOVED | SIGNAL_MTU_CHANGED;

// The signals' source in a main context of its own, so that a turn dispatches nothing else.
class notify : public QuarnTest {
protected:
    void SetUp() override
    {
        QuarnTest::SetUp();
        // Without addresses nothing stays remembered of an earlier test.
        detect_address_changes(Notify::QUEUE_ONLY);
        source.reset(create_signal_source());
        flags = signal_flags_of(source.get());
        *flags = ALL_SIGNALS;
        init_signal_queues(flags, nullptr);
        take_log();
    }
    void TearDown() override
    {
        g_source_destroy(source.get());
        clear_signal_queues();
        QuarnTest::TearDown();
    }
    void set_ipv6(const std::vector<const char*>& addresses)
    {
        std::vector<std::string> messages;
        for (const char* address : addresses)
            messages.push_back(address_message(address, 64));
        kernel.set_addresses(AF_INET6, messages);
    }
    void attach(GSourceFunc callback)
    {
        g_source_set_callback(source.get(), callback, flags, nullptr);
        g_source_attach(source.get(), context.get());
    }
    // True when the source was dispatched.
    bool turn() { return g_main_context_iteration(context.get(), FALSE); }

    ScriptedKernel kernel;
    std::unique_ptr<GMainContext, Releaser<g_main_context_unref>> context{g_main_context_new()};
    std::unique_ptr<GSource, Releaser<g_source_unref>> source;
    std::uint32_t* flags = nullptr;
};

constexpr char BUS_CONFIGURATION[] =
    R"(<busconfig><type>session</type><listen>unix:path=%s/bus</listen><auth>EXTERNAL</auth>
<policy context="default"><allow send_destination="*"/><allow receive_sender="*"/><allow own="*"/></policy>
</busconfig>)";

// As above, on a message bus that only this test uses, with a listener on it.
class notify_on_the_bus : public notify {
protected:
    void SetUp() override
    {
        notify::SetUp();
        start_daemon();
        ASSERT_NE(msgbus_connect(&bus), 0) << testing::PrintToString(take_log());
        ASSERT_GE(sd_bus_open_system(&listener), 0);
        ASSERT_GE(sd_bus_match_signal(listener, nullptr, nullptr, "/com/vesko/networkingV2",
                                      "com.vesko.networkingV2", nullptr, note_signal, &heard),
                  0);
        init_signal_queues(flags, bus);
        attach(send_signals);
        take_log();
    }
    void TearDown() override
    {
        sd_bus_flush_close_unref(listener);
        msgbus_disconnect(bus);
        stop_daemon();
        notify::TearDown();
    }
    void start_daemon()
    {
        const std::string configuration = scratch / "bus.conf";
        write_text(configuration, OwnedText(g_strdup_printf(BUS_CONFIGURATION, scratch.c_str())).get());
        const std::string argument = "--config-file=" + configuration;
        const char* arguments[] = {"dbus-daemon", argument.c_str(), "--nofork", "--print-address", nullptr};
        int output = -1;
        ASSERT_TRUE(g_spawn_async_with_pipes(nullptr, const_cast<char**>(arguments), nullptr,
                                             static_cast<GSpawnFlags>(G_SPAWN_SEARCH_PATH |
                                                                      G_SPAWN_DO_NOT_REAP_CHILD |
                                                                      G_SPAWN_STDERR_TO_DEV_NULL),
                                             nullptr, nullptr, &daemon, nullptr, &output, nullptr, nullptr));
        // It prints its address once it listens.
        const OwnedFile address(fdopen(output, "r"));
        char line[256] = "";
        ASSERT_NE(std::fgets(line, sizeof line, address.get()), nullptr);
        setenv("DBUS_SYSTEM_BUS_ADDRESS", ("unix:path=" + (scratch / "bus").string()).c_str(), 1);
    }
    void stop_daemon()
    {
        if (daemon > 0) {
            kill(daemon, SIGTERM);
            waitpid(daemon, nullptr, 0);
        }
        daemon = 0;
    }
    static int note_signal(sd_bus_message* message, void* heard, sd_bus_error*)
    {
        const char* text = nullptr;
        int number = 0;
        const std::string name = sd_bus_message_get_member(message);
        const bool has_text = sd_bus_message_has_signature(message, "s") != 0;
        EXPECT_GE(has_text ? sd_bus_message_read(message, "s", &text)
                           : sd_bus_message_read(message, "i", &number),
                  0);
        static_cast<Signals*>(heard)->push_back(name + "=" + (has_text ? text : std::to_string(number)));
        return 0;
    }
    // What was sent since the last call: all that arrives before a signal that is sent behind it.
    Signals take_signals()
    {
        const std::string last = "MTUChange=-1";
        EXPECT_NE(com_vesko_networkingV2_MTUChange_notify(bus, -1), 0);
        while (heard.empty() || heard.back() != last) {
            const int result = sd_bus_process(listener, nullptr);
            if (result < 0 || (result == 0 && sd_bus_wait(listener, UINT64_MAX) < 0)) {
                ADD_FAILURE() << "the listener has lost the bus";
                break;
            }
        }
        Signals signals = std::exchange(heard, {});
        if (!signals.empty())
            signals.pop_back();
        return signals;
    }

    GPid daemon = 0;
    MsgBus* bus = nullptr;
    sd_bus* listener = nullptr;
    Signals heard;
};

} // namespace

TEST_F(notify, making_the_queues_takes_all_flags_away)
{
    EXPECT_EQ(*flags, 0U);
}

TEST_F(notify, the_source_is_ready_while_a_flag_is_set)
{
    static int calls = 0;
    calls = 0;
    attach([](gpointer data) -> gboolean {
        ++calls;
        *static_cast<std::uint32_t*>(data) &= *static_cast<std::uint32_t*>(data) - 1;
        return G_SOURCE_CONTINUE;
    });
    EXPECT_FALSE(turn());
    EXPECT_EQ(calls, 0);
    mark_signal_flag(SIGNAL_IPV4_ADDRESS_CHANGED);
    mark_signal_flag(SIGNAL_MTU_CHANGED);
    EXPECT_TRUE(turn());
    EXPECT_TRUE(turn());
    EXPECT_FALSE(turn());
    EXPECT_EQ(calls, 2);
}

TEST_F(notify, the_source_never_shortens_the_wait_of_the_main_loop)
{
    attach(send_signals);
    int priority = 0;
    ASSERT_TRUE(g_main_context_acquire(context.get()));
    EXPECT_FALSE(g_main_context_prepare(context.get(), &priority));
    int timeout = 0;
    GPollFD polled[8];
    g_main_context_query(context.get(), G_MAXINT, &timeout, polled, 8);
    EXPECT_EQ(timeout, -1);
    g_main_context_release(context.get());
}

TEST_F(notify, the_source_goes_when_its_callback_returns_zero)
{
    attach([](gpointer) -> gboolean { return 0; });
    mark_signal_flag(SIGNAL_MTU_CHANGED);
    EXPECT_TRUE(turn());
    EXPECT_TRUE(g_source_is_destroyed(source.get()));
}

TEST_F(notify, marking_adds_to_the_flags_and_is_logged)
{
    mark_signal_flag(SIGNAL_MTU_CHANGED);
    mark_signal_flag(SIGNAL_IPV4_ADDRESS_CHANGED);
    EXPECT_EQ(*flags, SIGNAL_MTU_CHANGED | SIGNAL_IPV4_ADDRESS_CHANGED);
    EXPECT_EQ(take_log(), (Log{"<7>mark_signal_flag:LINE: Adding signal flag 0X8",
                               "<7>mark_signal_flag:LINE: Adding signal flag 0X1"}));
}

TEST_F(notify, marking_wakes_the_main_loop)
{
    // Were it not woken, the loop's turn would end with this source's dispatch.
    const guint guard = g_timeout_add_seconds(
        10, [](gpointer) -> gboolean { return G_SOURCE_CONTINUE; }, nullptr);
    mark_signal_flag(SIGNAL_MTU_CHANGED);
    EXPECT_FALSE(g_main_context_iteration(nullptr, TRUE));
    g_source_remove(guard);
}

TEST_F(notify, a_first_and_a_different_ipv4_address_are_changes)
{
    EXPECT_FALSE(detect_address_changes(Notify::MARK));
    kernel.set_addresses(AF_INET, {address_message("10.0.0.5", 8)});
    EXPECT_TRUE(detect_address_changes(Notify::MARK));
    EXPECT_EQ(*flags, SIGNAL_IPV4_ADDRESS_CHANGED);
    *flags = 0;
    EXPECT_FALSE(detect_address_changes(Notify::MARK));
    EXPECT_EQ(*flags, 0U);
    kernel.set_addresses(AF_INET, {address_message("10.0.0.6", 8)});
    EXPECT_TRUE(detect_address_changes(Notify::MARK));
    EXPECT_EQ(*flags, SIGNAL_IPV4_ADDRESS_CHANGED);
}

TEST_F(notify, another_prefix_length_is_no_change)
{
    kernel.set_addresses(AF_INET, {address_message("10.0.0.5", 8)});
    detect_address_changes(Notify::QUEUE_ONLY);
    kernel.set_addresses(AF_INET, {address_message("10.0.0.5", 24)});
    EXPECT_FALSE(detect_address_changes(Notify::MARK));
    EXPECT_EQ(*flags, 0U);
}

TEST_F(notify, an_ipv4_address_that_went_is_no_change_but_its_return_is_one)
{
    kernel.set_addresses(AF_INET, {address_message("10.0.0.5", 8)});
    detect_address_changes(Notify::QUEUE_ONLY);
    kernel.set_addresses(AF_INET, {});
    EXPECT_FALSE(detect_address_changes(Notify::MARK));
    kernel.set_addresses(AF_INET, {address_message("10.0.0.5", 8)});
    EXPECT_TRUE(detect_address_changes(Notify::MARK));
    EXPECT_EQ(*flags, SIGNAL_IPV4_ADDRESS_CHANGED);
}

TEST_F(notify, ipv6_addresses_that_came_and_went_are_marked)
{
    set_ipv6({"2001:db8::1", "2001:db8::2"});
    EXPECT_TRUE(detect_address_changes(Notify::MARK));
    EXPECT_EQ(*flags, SIGNAL_IPV6_ADDRESSES_ADDED);
    *flags = 0;
    EXPECT_FALSE(detect_address_changes(Notify::MARK));
    set_ipv6({"2001:db8::2"});
    EXPECT_TRUE(detect_address_changes(Notify::MARK));
    EXPECT_EQ(*flags, SIGNAL_IPV6_ADDRESSES_REMOVED);
    *flags = 0;
    set_ipv6({"2001:db8::3"});
    EXPECT_TRUE(detect_address_changes(Notify::MARK));
    EXPECT_EQ(*flags, SIGNAL_IPV6_ADDRESSES_ADDED | SIGNAL_IPV6_ADDRESSES_REMOVED);
}

TEST_F(notify, addresses_without_notice_are_queued_and_nothing_is_marked)
{
    kernel.set_addresses(AF_INET, {address_message("10.0.0.5", 8)});
    set_ipv6({"2001:db8::1"});
    EXPECT_TRUE(detect_address_changes(Notify::QUEUE_ONLY));
    EXPECT_EQ(*flags, 0U);
}

TEST_F(notify, with_ipv6_off_only_the_ipv4_address_is_read)
{
    hold_setting(setting("[IPv6]Enabled", "false").get());
    kernel.requests.clear();
    detect_address_changes(Notify::MARK);
    EXPECT_EQ(kernel.requests.size(), 1U);
}

TEST_F(notify_on_the_bus, each_signal_carries_its_value_and_the_bits_are_served_in_order)
{
    set_ipv6({"2001:db8::1"});
    detect_address_changes(Notify::QUEUE_ONLY);
    set_ipv6({"2001:db8::2"});
    kernel.set_addresses(AF_INET, {address_message("10.0.0.5", 8)});
    // The second call queues ::2 behind ::1.
    detect_address_changes(Notify::MARK);
    mark_signal_flag(SIGNAL_MTU_CHANGED);
    hold_setting(setting("[NIC/eth0]MTU", "1400").get());
    EXPECT_EQ(*flags, ALL_SIGNALS);
    take_log();

    const std::tuple<const char*, const char*, std::uint32_t, std::uint32_t> turns[] = {
        {"IPv4AddressChange", "10.0.0.5", 0xF, 0xE},
        {"IPv6AddressAdded", "2001:db8::1", 0xE, 0xE},
        {"IPv6AddressAdded", "2001:db8::2", 0xE, 0xC},
        {"IPv6AddressRemoved", "2001:db8::1", 0xC, 0x8},
        {"MTUChange", "1400", 0x8, 0x0},
    };
    for (const auto& [name, value, before, after] : turns) {
        EXPECT_TRUE(turn());
        const std::string signal = std::string(name) + "=" + value;
        EXPECT_EQ(take_signals(), Signals{signal});
        EXPECT_EQ(*flags, after);
        const OwnedText line(g_strdup_printf("<7>send_signals:LINE: Sending signals.  Flags=0X%4X", before));
        EXPECT_EQ(take_log(), (Log{line.get(), "<7>send_signals:LINE: Sending DBUS Signal " + signal}));
    }
    EXPECT_FALSE(turn());
    EXPECT_FALSE(g_source_is_destroyed(source.get()));
}

TEST_F(notify_on_the_bus, three_added_addresses_take_three_turns)
{
    set_ipv6({"2001:db8::1", "2001:db8::2", "2001:db8::3"});
    detect_address_changes(Notify::MARK);
    for (const char* signal :
         {"IPv6AddressAdded=2001:db8::3", "IPv6AddressAdded=2001:db8::2", "IPv6AddressAdded=2001:db8::1"}) {
        EXPECT_EQ(*flags, SIGNAL_IPV6_ADDRESSES_ADDED);
        EXPECT_TRUE(turn());
        EXPECT_EQ(take_signals(), Signals{signal});
    }
    EXPECT_EQ(*flags, 0U);
    EXPECT_FALSE(turn());
}

TEST_F(notify_on_the_bus, added_addresses_all_go_before_removed_ones_and_the_mtu_waits_for_both)
{
    set_ipv6({"2001:db8::1", "2001:db8::2"});
    detect_address_changes(Notify::QUEUE_ONLY);
    init_signal_queues(flags, bus);
    set_ipv6({"2001:db8::3", "2001:db8::4"});
    mark_signal_flag(SIGNAL_MTU_CHANGED);
    detect_address_changes(Notify::MARK);
    Signals each_turn;
    while (turn()) {
        const Signals sent = take_signals();
        ASSERT_EQ(sent.size(), 1U);
        each_turn.push_back(sent[0]);
    }
    EXPECT_EQ(each_turn, (Signals{"IPv6AddressAdded=2001:db8::4", "IPv6AddressAdded=2001:db8::3",
                                  "IPv6AddressRemoved=2001:db8::2", "IPv6AddressRemoved=2001:db8::1",
                                  "MTUChange=1500"}));
}

TEST_F(notify_on_the_bus, addresses_queued_without_notice_are_sent_after_the_next_marking)
{
    set_ipv6({"2001:db8::1"});
    detect_address_changes(Notify::QUEUE_ONLY);
    EXPECT_FALSE(turn());
    set_ipv6({"2001:db8::1", "2001:db8::2"});
    detect_address_changes(Notify::MARK);
    while (turn()) {
    }
    EXPECT_EQ(take_signals(), (Signals{"IPv6AddressAdded=2001:db8::1", "IPv6AddressAdded=2001:db8::2"}));
}

TEST_F(notify_on_the_bus, a_signal_without_a_value_is_cleared_and_not_sent)
{
    for (const std::uint32_t bit :
         {SIGNAL_IPV4_ADDRESS_CHANGED, SIGNAL_IPV6_ADDRESSES_ADDED, SIGNAL_IPV6_ADDRESSES_REMOVED}) {
        mark_signal_flag(bit);
        EXPECT_TRUE(turn());
        EXPECT_EQ(*flags, 0U);
    }
    EXPECT_EQ(take_signals(), Signals());
    EXPECT_FALSE(g_source_is_destroyed(source.get()));
}

TEST_F(notify_on_the_bus, cleared_queues_hold_nothing_to_send)
{
    set_ipv6({"2001:db8::1"});
    detect_address_changes(Notify::MARK);
    set_ipv6({"2001:db8::2"});
    detect_address_changes(Notify::MARK);
    clear_signal_queues();
    while (turn()) {
    }
    EXPECT_EQ(take_signals(), Signals());
}

TEST_F(notify_on_the_bus, a_signal_that_the_bus_refuses_ends_the_announcements)
{
    stop_daemon();
    mark_signal_flag(SIGNAL_MTU_CHANGED);
    EXPECT_TRUE(turn());
    EXPECT_EQ(*flags, 0U);
    EXPECT_TRUE(g_source_is_destroyed(source.get()));
}
