// quarn-wait-online: waits until eth0 has the address that the settings ask for, and then lets those start
// who wait for network-online.target. Status 0 when it has, 1 after a minute without, 2 for a wrong use.
#include "daemon_bus.h"

#include <cstdio>
#include <cstring>
#include <memory>

namespace {

constexpr char REQUEST[] = R"({"settings":["[IPv4]Enabled","[IPv4/DHCP]Enabled","[IPv4/DHCP]Address",)"
                           R"("[IPv4/Actual]Address","[IPv6/Actual]Addresses"]})";
constexpr char LINK_LOCAL_PREFIX[] = "fe80:";

constexpr gint64 PATIENCE = gint64(60) * G_USEC_PER_SEC;
// A lease can bring the very address that eth0 has already: nobody announces that.
constexpr gint64 ASK_AGAIN = gint64(5) * G_USEC_PER_SEC;

const char* text_of(const cJSON* answer, const char* key)
{
    return cJSON_GetStringValue(cJSON_GetObjectItemCaseSensitive(answer, key));
}

bool is_true(const cJSON* answer, const char* key)
{
    return cJSON_IsTrue(cJSON_GetObjectItemCaseSensitive(answer, key)) != 0;
}

// With DHCP on only the lease counts: until it comes, eth0 has a fallback address.
bool has_ipv4_address(const cJSON* answer)
{
    const char* actual = text_of(answer, "[IPv4/Actual]Address");
    if (!is_true(answer, "[IPv4]Enabled") || actual == nullptr)
        return false;
    const char* leased = text_of(answer, "[IPv4/DHCP]Address");
    return !is_true(answer, "[IPv4/DHCP]Enabled") || (leased != nullptr && std::strcmp(actual, leased) == 0);
}

bool has_ipv6_address(const cJSON* answer)
{
    const cJSON* address = nullptr;
    cJSON_ArrayForEach(address, cJSON_GetObjectItemCaseSensitive(answer, "[IPv6/Actual]Addresses"))
    {
        const char* text = cJSON_GetStringValue(address);
        if (text != nullptr &&
            g_ascii_strncasecmp(text, LINK_LOCAL_PREFIX, sizeof LINK_LOCAL_PREFIX - 1) != 0)
            return true;
    }
    return false;
}

// 1 online, 0 not yet, negative when the daemon does not answer.
int is_online(sd_bus* bus)
{
    sd_bus_message* answered = nullptr;
    const int result =
        sd_bus_call_method(bus, DAEMON, DAEMON_PATH, DAEMON, "api_get", nullptr, &answered, "s", REQUEST);
    const OwnedMessage message(answered);
    const char* text = nullptr;
    if (result < 0 || sd_bus_message_read(message.get(), "s", &text) < 0)
        return -1;
    const OwnedJson answer(cJSON_Parse(text));
    return has_ipv4_address(answer.get()) || has_ipv6_address(answer.get()) ? 1 : 0;
}

int mark_change(sd_bus_message* /*message*/, void* has_changed, sd_bus_error* /*error*/)
{
    *static_cast<bool*>(has_changed) = true;
    return 0;
}

// Until a signal of the daemon comes, or the time is over.
void wait_for_change(sd_bus* bus, bool& has_changed, gint64 deadline)
{
    has_changed = false;
    while (!has_changed) {
        const int processed = sd_bus_process(bus, nullptr);
        if (processed > 0)
            continue;
        const gint64 left = deadline - g_get_monotonic_time();
        if (processed < 0 || left <= 0 || sd_bus_wait(bus, static_cast<std::uint64_t>(left)) < 0)
            return;
    }
}

int wait_online(sd_bus* bus)
{
    bool has_changed = false;
    // Before the first question, so that no change falls between the two.
    int result =
        sd_bus_match_signal(bus, nullptr, DAEMON, DAEMON_PATH, DAEMON, nullptr, mark_change, &has_changed);
    const gint64 deadline = g_get_monotonic_time() + PATIENCE;
    while (result >= 0) {
        result = is_online(bus);
        const gint64 now = g_get_monotonic_time();
        if (result > 0)
            return 0;
        if (result == 0 && now >= deadline) {
            std::fputs("quarn-wait-online: eth0 did not get its address\n", stderr);
            return 1;
        }
        if (result == 0)
            wait_for_change(bus, has_changed, std::min(now + ASK_AGAIN, deadline));
    }
    std::fputs("quarn-wait-online: the daemon does not answer: systemctl status quarn\n", stderr);
    return 1;
}

} // namespace

int main(int argc, char** /*argv*/)
{
    if (argc > 1) {
        std::fputs("usage: quarn-wait-online\n", stderr);
        return 2;
    }
    sd_bus* opened = nullptr;
    const int result = sd_bus_open_system(&opened);
    const OwnedBus bus(opened);
    if (result < 0) {
        std::fprintf(stderr, "quarn-wait-online: no system bus: %s\n", std::strerror(-result));
        return 1;
    }
    return wait_online(bus.get());
}
