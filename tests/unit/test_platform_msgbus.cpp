#include "msgbus.h"
#include "platform_fixture.h"

#include <fcntl.h>
#include <glib.h>
#include <spawn.h>
#include <sys/wait.h>
#include <systemd/sd-bus.h>

#include <array>
#include <atomic>
#include <csignal>
#include <ctime>
#include <functional>
#include <memory>
#include <thread>

namespace {

constexpr char NAME[] = "com.vesko.networkingV2";
constexpr char PATH[] = "/com/vesko/networkingV2";

void unref(sd_bus* bus)
{
    sd_bus_flush_close_unref(bus);
}

using Client = std::unique_ptr<sd_bus, decltype(&unref)>;

Client connect_client()
{
    sd_bus* bus = nullptr;
    EXPECT_GE(sd_bus_open_system(&bus), 0);
    return {bus, unref};
}

std::atomic<int> calls = 0;

int answer_get(const char* request, char** response)
{
    calls++;
    const std::string text(request);
    if (text == "nothing")
        return 0;
    *response = strdup(text == "broken" ? "\xff" : ("got " + text).c_str());
    return 1;
}

int answer_set(const char* request, char** response)
{
    *response = strdup((std::string("set ") + request).c_str());
    return 1;
}

constexpr com_vesko_networkingV2_provider PROVIDER = {answer_get, answer_set};

// A real message bus of our own, at the place where the system's is looked for.
class platform_msgbus : public PlatformTest {
protected:
    void SetUp() override
    {
        PlatformTest::SetUp();
        write_text(scratch / "bus.conf",
                   "<busconfig><type>system</type><listen>unix:path=" + (scratch / "bus").string() +
                       "</listen><auth>EXTERNAL</auth><policy context=\"default\">"
                       "<allow user=\"*\"/><allow own=\"*\"/><allow send_destination=\"*\"/>"
                       "<allow receive_sender=\"*\"/></policy></busconfig>");
        start_bus();
        setenv("DBUS_SYSTEM_BUS_ADDRESS", ("unix:path=" + (scratch / "bus").string()).c_str(), 1);
    }

    void TearDown() override
    {
        if (bus != nullptr)
            msgbus_disconnect(bus);
        stop_bus();
        unsetenv("DBUS_SYSTEM_BUS_ADDRESS");
        PlatformTest::TearDown();
    }

    // Returns once the bus has printed its address, and so listens.
    void start_bus()
    {
        int ends[2];
        ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_adddup2(&actions, ends[1], STDOUT_FILENO);
        // It complains of limits that only root may raise.
        posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, "/dev/null", O_WRONLY, 0);
        const std::string config = "--config-file=" + (scratch / "bus.conf").string();
        const char* const arguments[] = {"dbus-daemon", config.c_str(), "--nofork", "--print-address",
                                         nullptr};
        const int result = posix_spawnp(&daemon, arguments[0], &actions, nullptr,
                                        const_cast<char* const*>(arguments), environ);
        posix_spawn_file_actions_destroy(&actions);
        close(ends[1]);
        ASSERT_EQ(result, 0);
        char byte = 0;
        ASSERT_EQ(read(ends[0], &byte, 1), 1);
        close(ends[0]);
    }

    void stop_bus()
    {
        if (daemon == 0)
            return;
        kill(daemon, SIGKILL);
        waitpid(daemon, nullptr, 0);
        daemon = 0;
    }

    void serve()
    {
        ASSERT_NE(msgbus_connect(&bus), 0);
        ASSERT_NE(msgbus_register_com_vesko_networkingV2_provider(bus, &PROVIDER, 0), 0);
    }

    // Runs the main loop until a client of the bus, on a thread of its own, is done.
    static void serve_client(const std::function<void(sd_bus* client)>& steps)
    {
        std::atomic<bool> done = false;
        std::thread thread([&] {
            const Client client = connect_client();
            steps(client.get());
            done = true;
            g_main_context_wakeup(nullptr);
        });
        while (!done)
            g_main_context_iteration(nullptr, TRUE);
        thread.join();
    }

    // The response, or the name of the error.
    static std::string call(const char* method, const char* request)
    {
        std::string answer;
        serve_client([&](sd_bus* client) {
            sd_bus_error error = {nullptr, nullptr, 0};
            sd_bus_message* reply = nullptr;
            const char* text = nullptr;
            if (sd_bus_call_method(client, NAME, PATH, NAME, method, &error, &reply, "s", request) >= 0)
                sd_bus_message_read(reply, "s", &text);
            answer = text != nullptr ? text : error.name;
            sd_bus_message_unref(reply);
            sd_bus_error_free(&error);
        });
        return answer;
    }

    MsgBus* bus = nullptr;
    pid_t daemon = 0;
};

} // namespace

TEST_F(platform_msgbus, both_calls_are_answered_by_the_provider)
{
    serve();
    EXPECT_EQ(call("api_get", "{\"a\":1}"), "got {\"a\":1}");
    EXPECT_EQ(call("api_set", "[]"), "set []");
}

TEST_F(platform_msgbus, a_call_without_a_response_text_answers_an_error)
{
    serve();
    EXPECT_EQ(call("api_get", "nothing"), "com.vesko.networkingV2.Error.NoResponse");
}

TEST_F(platform_msgbus, a_response_that_the_bus_refuses_answers_an_error)
{
    serve();
    EXPECT_EQ(call("api_get", "broken"), "com.vesko.networkingV2.Error.NoResponse");
    EXPECT_EQ(call("api_get", "again"), "got again");
}

TEST_F(platform_msgbus, an_unknown_method_answers_an_error)
{
    serve();
    EXPECT_EQ(call("api_reset", "x"), "org.freedesktop.DBus.Error.UnknownMethod");
}

TEST_F(platform_msgbus, a_call_that_wants_no_reply_is_carried_out)
{
    serve();
    calls = 0;
    serve_client([](sd_bus* client) {
        sd_bus_message* message = nullptr;
        EXPECT_GE(sd_bus_message_new_method_call(client, &message, NAME, PATH, NAME, "api_get"), 0);
        sd_bus_message_append(message, "s", "quiet");
        sd_bus_message_set_expect_reply(message, 0);
        EXPECT_GE(sd_bus_send(client, message, nullptr), 0);
        sd_bus_message_unref(message);
    });
    EXPECT_EQ(call("api_get", "loud"), "got loud");
    EXPECT_EQ(calls, 2);
}

TEST_F(platform_msgbus, calls_that_come_together_are_all_answered)
{
    serve();
    int answered = 0;
    serve_client([&](sd_bus* client) {
        for (int i = 0; i < 50; i++)
            sd_bus_call_method_async(
                client, nullptr, NAME, PATH, NAME, "api_get",
                [](sd_bus_message* reply, void* data, sd_bus_error*) {
                    *static_cast<int*>(data) += sd_bus_message_is_method_error(reply, nullptr) == 0;
                    return 1;
                },
                &answered, "s", "x");
        while (answered < 50) {
            if (sd_bus_process(client, nullptr) == 0)
                sd_bus_wait(client, UINT64_MAX);
        }
    });
    EXPECT_EQ(answered, 50);
}

TEST_F(platform_msgbus, a_name_that_somebody_owns_is_a_failure)
{
    const Client owner = connect_client();
    ASSERT_GE(sd_bus_request_name(owner.get(), NAME, 0), 0);
    EXPECT_EQ(msgbus_connect(&bus), 0);
    EXPECT_EQ(bus, nullptr);
    EXPECT_EQ(take_log(), Lines{"<3>msgbus_connect: no place on the message bus: File exists"});
}

TEST_F(platform_msgbus, no_bus_is_a_failure)
{
    stop_bus();
    EXPECT_EQ(msgbus_connect(&bus), 0);
    EXPECT_EQ(bus, nullptr);
}

TEST_F(platform_msgbus, every_signal_carries_its_value)
{
    serve();
    const Client client = connect_client();
    Lines signals;
    ASSERT_GE(sd_bus_match_signal(
                  client.get(), nullptr, NAME, PATH, NAME, nullptr,
                  [](sd_bus_message* signal, void* data, sd_bus_error*) {
                      std::string text = sd_bus_message_get_member(signal);
                      const char* address = nullptr;
                      std::int32_t mtu = 0;
                      if (sd_bus_message_has_signature(signal, "s") > 0 &&
                          sd_bus_message_read(signal, "s", &address) > 0)
                          text += std::string(" ") + address;
                      else if (sd_bus_message_read(signal, "i", &mtu) > 0)
                          text += " " + std::to_string(mtu);
                      static_cast<Lines*>(data)->push_back(text);
                      return 1;
                  },
                  &signals),
              0);
    EXPECT_NE(com_vesko_networkingV2_IPv4AddressChange_notify(bus, "192.0.2.1"), 0);
    EXPECT_NE(com_vesko_networkingV2_IPv6AddressAdded_notify(bus, "2001:db8::1"), 0);
    EXPECT_NE(com_vesko_networkingV2_IPv6AddressRemoved_notify(bus, "2001:db8::2"), 0);
    EXPECT_NE(com_vesko_networkingV2_MTUChange_notify(bus, 1400), 0);
    while (signals.size() < 4) {
        if (sd_bus_process(client.get(), nullptr) == 0)
            sd_bus_wait(client.get(), UINT64_MAX);
    }
    EXPECT_EQ(signals, (Lines{"IPv4AddressChange 192.0.2.1", "IPv6AddressAdded 2001:db8::1",
                              "IPv6AddressRemoved 2001:db8::2", "MTUChange 1400"}));
}

TEST_F(platform_msgbus, the_loss_of_the_bus_is_told_once_and_then_no_signal_can_be_sent)
{
    serve();
    int times = 0;
    msgbus_on_connection_lost(
        bus, [](void* data) { ++*static_cast<int*>(data); }, &times);
    stop_bus();
    while (times == 0)
        g_main_context_iteration(nullptr, TRUE);
    while (g_main_context_iteration(nullptr, FALSE) != 0) {
    }
    EXPECT_EQ(times, 1);
    EXPECT_EQ(com_vesko_networkingV2_MTUChange_notify(bus, 1400), 0);
}

TEST_F(platform_msgbus, an_idle_connection_does_not_wake_the_main_loop)
{
    serve();
    EXPECT_EQ(call("api_get", "x"), "got x");
    while (g_main_context_iteration(nullptr, FALSE) != 0) {
    }
    // A time-out of ours ends the one long turn; a source that wakes the loop would end it earlier.
    bool ended = false;
    g_timeout_add(
        300,
        [](gpointer data) -> gboolean {
            *static_cast<bool*>(data) = true;
            return G_SOURCE_REMOVE;
        },
        &ended);
    int turns = 0;
    while (!ended) {
        g_main_context_iteration(nullptr, TRUE);
        ++turns;
    }
    EXPECT_LE(turns, 2);
}
