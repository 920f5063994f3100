// bench-client: measures several things by turns, so that whatever else the machine does meets all of them
// alike.
//
// usage: bench-client ROUNDS BLOCK <CASES
//
// In each round every case has its turn, BLOCK runs long, in an order that changes; the first round only
// warms up. A case is lines of text:
//     call, NAME, PATH, METHOD, TEXT...               a call on the system bus (the interface is NAME)
//     address, NAME, PATH, METHOD, TEXT...            the same until the kernel tells of an IPv4 address
//     signal, NAME, PATH, METHOD, SIGNAL, TEXT...     the same until the signal is here
//     commit, DATABASE, TEXT...                       one row of a table replaced, in a transaction
// Successive runs of a case take the next text, and begin anew after the last.
// Output: "first CASE RESULT" for each case, RESULT being the answer, then
// "sample CASE NANOSECONDS" for each run.
#include <linux/rtnetlink.h>
#include <poll.h>
#include <sqlite3.h>
#include <sys/socket.h>
#include <systemd/sd-bus.h>

#include <algorithm>
#include <cinttypes>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <functional>
#include <iostream>
#include <numeric>
#include <random>
#include <sstream>
#include <string>
#include <vector>

namespace {

constexpr std::uint64_t CALL_TIMEOUT_MICROSECONDS = 60'000'000;

using Lines = std::vector<std::string>;
// What a run gave, and how many nanoseconds it took until what it is measured by; 0: until it was over.
struct Result {
    std::string text;
    std::int64_t time = 0;
};
// Runs a case with one of its texts.
using Run = std::function<Result(const std::string& text)>;

struct Case {
    Run run;
    Lines texts;
    std::size_t next = 0;
    std::string first_result = {};
    std::vector<std::int64_t> samples = {};
};

[[noreturn]] void give_up(const std::string& what, const char* why)
{
    std::fprintf(stderr, "bench-client: %s: %s\n", what.c_str(), why);
    std::exit(1);
}

std::int64_t nanoseconds()
{
    timespec now = {};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return now.tv_sec * std::int64_t{1'000'000'000} + now.tv_nsec;
}

Result call(sd_bus* bus, const Lines& target, const std::string& text)
{
    sd_bus_error error = SD_BUS_ERROR_NULL;
    sd_bus_message* message = nullptr;
    sd_bus_message* reply = nullptr;
    const char* answer = nullptr;
    sd_bus_message_new_method_call(bus, &message, target[1].c_str(), target[2].c_str(), target[1].c_str(),
                                   target[3].c_str());
    sd_bus_message_append(message, "s", text.c_str());
    if (sd_bus_call(bus, message, CALL_TIMEOUT_MICROSECONDS, &error, &reply) < 0 ||
        sd_bus_message_read(reply, "s", &answer) < 0)
        give_up(target[1], error.message != nullptr ? error.message : "no answer");
    Result result = {answer};
    sd_bus_message_unref(message);
    sd_bus_message_unref(reply);
    return result;
}

// A call whose answer and whose effect come in either order.
struct Awaited {
    std::string answer = {};
    bool answered = false;
    std::int64_t time = 0;
};

int take_answer(sd_bus_message* reply, void* data, sd_bus_error*)
{
    const char* answer = nullptr;
    if (sd_bus_message_is_method_error(reply, nullptr) != 0 || sd_bus_message_read(reply, "s", &answer) < 0)
        give_up("call", "no answer");
    static_cast<Awaited*>(data)->answer = answer;
    static_cast<Awaited*>(data)->answered = true;
    return 1;
}

// The first one counts.
int take_signal(sd_bus_message*, void* data, sd_bus_error*)
{
    auto* const awaited = static_cast<Awaited*>(data);
    if (awaited->time == 0)
        awaited->time = nanoseconds();
    return 0;
}

// Whether the kernel has told of a new IPv4 address since the last question.
bool address_is_told(int kernel)
{
    char buffer[16384];
    bool told = false;
    for (ssize_t size = 0; (size = recv(kernel, buffer, sizeof buffer, MSG_DONTWAIT)) > 0;) {
        auto length = static_cast<unsigned>(size);
        for (auto* header = reinterpret_cast<nlmsghdr*>(buffer); NLMSG_OK(header, length);
             header = NLMSG_NEXT(header, length))
            told |= header->nlmsg_type == RTM_NEWADDR;
    }
    return told;
}

int open_kernel_socket()
{
    const int kernel = socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_ROUTE);
    sockaddr_nl address = {};
    address.nl_family = AF_NETLINK;
    address.nl_groups = RTMGRP_IPV4_IFADDR;
    if (kernel < 0 || bind(kernel, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0)
        give_up("kernel", "no netlink socket");
    return kernel;
}

// Waits for both the answer and what the case is measured by; `kernel` is -1 where that is a signal.
Result call_and_wait(sd_bus* bus, const Lines& target, const char* signal, int kernel,
                     const std::string& text)
{
    Awaited awaited;
    sd_bus_slot* signal_slot = nullptr;
    sd_bus_slot* call_slot = nullptr;
    if (kernel >= 0)
        address_is_told(kernel);
    else if (sd_bus_match_signal(bus, &signal_slot, target[1].c_str(), target[2].c_str(), target[1].c_str(),
                                 signal, take_signal, &awaited) < 0)
        give_up(signal, "no match");
    const std::int64_t begin = nanoseconds();
    const std::int64_t end = begin + std::int64_t{CALL_TIMEOUT_MICROSECONDS} * 1000;
    sd_bus_call_method_async(bus, &call_slot, target[1].c_str(), target[2].c_str(), target[1].c_str(),
                             target[3].c_str(), take_answer, &awaited, "s", text.c_str());
    sd_bus_flush(bus);
    while (!awaited.answered || awaited.time == 0) {
        if (nanoseconds() > end)
            give_up(text, awaited.answered ? "no sign of its effect" : "no answer");
        pollfd sources[] = {{sd_bus_get_fd(bus), POLLIN, 0}, {kernel, POLLIN, 0}};
        poll(sources, 2, 1000);
        if (kernel >= 0 && awaited.time == 0 && address_is_told(kernel))
            awaited.time = nanoseconds();
        while (sd_bus_process(bus, nullptr) > 0) {
        }
    }
    sd_bus_slot_unref(signal_slot);
    sd_bus_slot_unref(call_slot);
    // Subscribing is not part of it.
    return {awaited.answer, awaited.time - begin};
}

void execute(sqlite3* database, const char* sql)
{
    if (sqlite3_exec(database, sql, nullptr, nullptr, nullptr) != SQLITE_OK)
        give_up(sql, sqlite3_errmsg(database));
}

// A table like the one of the settings store, and the same care for its safety.
sqlite3_stmt* prepare_update(const std::string& path)
{
    sqlite3* database = nullptr;
    sqlite3_open(path.c_str(), &database);
    execute(database, "PRAGMA journal_mode = WAL; PRAGMA synchronous = FULL");
    execute(database, "CREATE TABLE IF NOT EXISTS settings (key TEXT PRIMARY KEY, value TEXT NOT NULL,"
                      " checksum INTEGER NOT NULL) WITHOUT ROWID;"
                      "INSERT OR REPLACE INTO settings VALUES ('NIC.eth0.MTU', '', 0)");
    sqlite3_stmt* update = nullptr;
    const char sql[] =
        "UPDATE settings SET value = ?1, checksum = 7521465781425784217 WHERE key = 'NIC.eth0.MTU'";
    if (sqlite3_prepare_v2(database, sql, -1, &update, nullptr) != SQLITE_OK)
        give_up(sql, sqlite3_errmsg(database));
    return update;
}

Result commit(sqlite3_stmt* update, const std::string& text)
{
    sqlite3_bind_text(update, 1, text.data(), static_cast<int>(text.size()), SQLITE_STATIC);
    const int code = sqlite3_step(update);
    sqlite3_reset(update);
    if (code != SQLITE_DONE)
        give_up("commit", sqlite3_errstr(code));
    return {"done"};
}

Case make_case(sd_bus* bus, const Lines& lines)
{
    const std::string kind = lines.empty() ? "" : lines[0];
    if (kind == "call" && lines.size() > 4)
        return {[bus, lines](const std::string& text) { return call(bus, lines, text); },
                {lines.begin() + 4, lines.end()}};
    if (kind == "address" && lines.size() > 4) {
        const int kernel = open_kernel_socket();
        return {[bus, lines, kernel](const std::string& text) {
                    return call_and_wait(bus, lines, nullptr, kernel, text);
                },
                {lines.begin() + 4, lines.end()}};
    }
    if (kind == "signal" && lines.size() > 5)
        return {[bus, lines](const std::string& text) {
                    return call_and_wait(bus, lines, lines[4].c_str(), -1, text);
                },
                {lines.begin() + 5, lines.end()}};
    if (kind == "commit" && lines.size() > 2) {
        sqlite3_stmt* const update = prepare_update(lines[1]);
        return {[update](const std::string& text) { return commit(update, text); },
                {lines.begin() + 2, lines.end()}};
    }
    give_up(kind, "no such case");
}

std::vector<Case> read_cases(sd_bus* bus)
{
    std::vector<Case> cases;
    for (std::string text; std::getline(std::cin, text, '\0');) {
        std::istringstream stream(text);
        Lines lines;
        for (std::string line; std::getline(stream, line);)
            lines.push_back(line);
        cases.push_back(make_case(bus, lines));
    }
    return cases;
}

void take_turn(Case& taken, int block, bool warming_up)
{
    for (int run = 0; run < block; ++run) {
        const std::string& text = taken.texts[taken.next++ % taken.texts.size()];
        const std::int64_t begin = nanoseconds();
        const Result result = taken.run(text);
        const std::int64_t end = nanoseconds();
        if (taken.first_result.empty())
            taken.first_result = result.text;
        if (!warming_up)
            taken.samples.push_back(result.time != 0 ? result.time : end - begin);
    }
}

} // namespace

int main(int argc, char** argv)
{
    if (argc != 3)
        return 2;
    const int rounds = std::atoi(argv[1]);
    const int block = std::atoi(argv[2]);
    sd_bus* bus = nullptr;
    if (const int result = sd_bus_open_system(&bus); result < 0)
        give_up("bus", "no connection");
    std::vector<Case> cases = read_cases(bus);
    std::vector<std::size_t> order(cases.size());
    std::iota(order.begin(), order.end(), std::size_t{0});
    std::minstd_rand shuffle_source;
    for (int round = 0; round <= rounds; ++round) {
        // What ran before a case leaves its traces in the caches.
        std::shuffle(order.begin(), order.end(), shuffle_source);
        for (const std::size_t index : order)
            take_turn(cases[index], block, round == 0);
    }
    for (std::size_t i = 0; i < cases.size(); ++i) {
        std::printf("first %zu %s\n", i, cases[i].first_result.c_str());
        for (const std::int64_t sample : cases[i].samples)
            std::printf("sample %zu %" PRId64 "\n", i, sample);
    }
    return 0;
}
