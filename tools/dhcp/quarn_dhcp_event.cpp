// quarn-dhcp-event: called by the scripts of udhcpc, dhclient and rdnssd, it reports to the daemon what they
// have learned, and leaves at once. The daemon, which may at this moment wait for a client to end, is never
// waited for; what a client's first words wait for is the state of the link, and not for long.
#include "core/log.h"
#include "daemon_bus.h"
#include "last_report.h"
#include "lease_requests.h"
#include "link_local.h"
#include "link_queue.h"
#include "small_files.h"

#include <cstring>

namespace {

constexpr char ADVERTISED_SERVERS[] = "/run/rdnssd/resolv.conf";

// A bus that hangs must not hold a client up for ever. SIGALRM ends the process.
constexpr unsigned PATIENCE_IN_SECONDS = 15;

Variables read_environment()
{
    Variables variables;
    for (char** entry = environ; *entry != nullptr; ++entry) {
        const std::string_view text = *entry;
        const std::size_t end = std::min(text.find('='), text.size());
        variables.emplace(text.substr(0, end), text.substr(std::min(end + 1, text.size())));
    }
    return variables;
}

// The process id with the time of its start, since ids are given again. A name in the file may hold blanks
// and brackets, so fields are counted behind its last bracket.
std::string identity_of(pid_t pid)
{
    constexpr int FIELDS_BEFORE_START_TIME = 20;
    const OwnedText path(g_strdup_printf("/proc/%d/stat", pid));
    const std::string stat = read_file(path.get());
    std::size_t position = stat.rfind(')');
    for (int i = 0; i < FIELDS_BEFORE_START_TIME && position != std::string::npos; ++i)
        position = stat.find(' ', position + 1);
    const std::string rest = position != std::string::npos ? stat.substr(position + 1) : "";
    return std::to_string(pid) + ":" + rest.substr(0, rest.find(' '));
}

// The bus passes messages on in their order, so its answer to the question behind the request proves that
// the request is on its way, and tells whether anybody is there to take it.
int send_request(const char* text)
{
    sd_bus* opened = nullptr;
    int result = sd_bus_open_system(&opened);
    const OwnedBus bus(opened);
    sd_bus_message* created = nullptr;
    if (result >= 0)
        result = sd_bus_message_new_method_call(bus.get(), &created, DAEMON, DAEMON_PATH, DAEMON, "api_set");
    const OwnedMessage message(created);
    if (result >= 0)
        result = sd_bus_message_append(message.get(), "s", text);
    if (result >= 0)
        result = sd_bus_message_set_expect_reply(message.get(), 0);
    if (result >= 0)
        result = sd_bus_message_set_auto_start(message.get(), 0);
    if (result >= 0)
        result = sd_bus_send(bus.get(), message.get(), nullptr);
    sd_bus_message* answered = nullptr;
    if (result >= 0)
        result = sd_bus_call_method(bus.get(), "org.freedesktop.DBus", "/org/freedesktop/DBus",
                                    "org.freedesktop.DBus", "NameHasOwner", nullptr, &answered, "s", DAEMON);
    const OwnedMessage answer(answered);
    int is_running = 0;
    if (result >= 0)
        result = sd_bus_message_read(answer.get(), "b", &is_running);
    return result < 0 || is_running ? result : -ENOENT;
}

bool report(const cJSON* request)
{
    const OwnedMallocText text(cJSON_PrintUnformatted(request));
    const int result = text ? send_request(text.get()) : -ENOMEM;
    if (result >= 0) {
        log_message(LEVEL_DEBUG, "%s:%d: Reported %s", HERE, text.get());
        return true;
    }
    log_message(LEVEL_WARNING, "%s: The daemon could not be told: %s", __func__,
                result == -ENOENT ? "it does not run" : std::strerror(-result));
    return false;
}

// What was not delivered does not count as reported. A client that has been ended meanwhile has nothing to
// say any more: its lease may just have been given up.
bool report_lease(const char* name, pid_t client, const LastReport& event)
{
    if (!event.request)
        return true;
    if (client == 1 || getppid() != client) {
        log_message(LEVEL_INFO, "%s: Not reporting: the client has ended", __func__);
        return true;
    }
    return report(event.request.get()) && keep_last_report(name, event);
}

bool handle_udhcpc(std::string_view event)
{
    constexpr char NAME[] = "udhcpc.json";
    const pid_t client = getppid();
    const LastReport last = read_last_report(NAME);
    const LastReport change = udhcpc_report(event, read_environment(), identity_of(client), last);
    const bool succeeded = report_lease(NAME, client, change);
    // Every client begins with this event, and then sends its first question.
    if (event == "deconfig")
        wait_for_shaping(client);
    return succeeded;
}

bool handle_dhclient()
{
    constexpr char NAME[] = "dhclient6.json";
    const pid_t client = getppid();
    const Variables variables = read_environment();
    const auto reason = variables.find("reason");
    const bool is_first = reason != variables.end() && reason->second == "PREINIT6";
    if (is_first && !wait_for_link_local(client) && getppid() == client)
        log_message(LEVEL_WARNING, "%s: eth0 has no usable IPv6 link-local address yet", __func__);
    return report_lease(NAME, client,
                        dhclient_report(variables, identity_of(client), read_last_report(NAME)));
}

bool handle_rdnssd()
{
    return report(router_advertisement_request(read_file(ADVERTISED_SERVERS)).get());
}

} // namespace

int main(int argc, char** argv)
{
    alarm(PATIENCE_IN_SECONDS);
    start_logging();
    const std::string_view source = argc > 1 ? argv[1] : "";
    if (source == "udhcpc" && argc == 3)
        return handle_udhcpc(argv[2]) ? 0 : 1;
    if (source == "dhclient" && argc == 2)
        return handle_dhclient() ? 0 : 1;
    if (source == "rdnssd" && argc == 2)
        return handle_rdnssd() ? 0 : 1;
    std::fprintf(stderr, "usage: quarn-dhcp-event udhcpc EVENT | dhclient | rdnssd\n"
                         "Called by the scripts of these programs, with their environment.\n");
    return 2;
}
