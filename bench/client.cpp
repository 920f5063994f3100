// bench-client: measures several things by turns, so that whatever else the machine does meets all of them
// alike.
//
// usage: bench-client ROUNDS BLOCK <CASES
//
// In each round every case has its turn, BLOCK runs long, in an order that changes; the first round only
// warms up. A case is lines of text:
//     call, NAME, PATH, METHOD, TEXT...    a call on the system bus (the interface is NAME)
//     commit, DATABASE, TEXT...            one row of a table replaced, in a transaction of its own
// Successive runs of a case take the next text, and begin anew after the last.
// Output: "first CASE RESULT" for each case, RESULT being the answer, then
// "sample CASE NANOSECONDS" for each run.
#include <sqlite3.h>
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
// Runs a case with one of its texts and returns the result.
using Run = std::function<std::string(const std::string& text)>;

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

std::string call(sd_bus* bus, const Lines& target, const std::string& text)
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
    std::string result = answer;
    sd_bus_message_unref(message);
    sd_bus_message_unref(reply);
    return result;
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

std::string commit(sqlite3_stmt* update, const std::string& text)
{
    sqlite3_bind_text(update, 1, text.data(), static_cast<int>(text.size()), SQLITE_STATIC);
    const int code = sqlite3_step(update);
    sqlite3_reset(update);
    if (code != SQLITE_DONE)
        give_up("commit", sqlite3_errstr(code));
    return "done";
}

Case make_case(sd_bus* bus, const Lines& lines)
{
    const std::string kind = lines.empty() ? "" : lines[0];
    if (kind == "call" && lines.size() > 4)
        return {[bus, lines](const std::string& text) { return call(bus, lines, text); },
                {lines.begin() + 4, lines.end()}};
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

std::int64_t nanoseconds()
{
    timespec now = {};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return now.tv_sec * std::int64_t{1'000'000'000} + now.tv_nsec;
}

void take_turn(Case& taken, int block, bool warming_up)
{
    for (int run = 0; run < block; ++run) {
        const std::string& text = taken.texts[taken.next++ % taken.texts.size()];
        const std::int64_t begin = nanoseconds();
        const std::string result = taken.run(text);
        const std::int64_t end = nanoseconds();
        if (taken.first_result.empty())
            taken.first_result = result;
        if (!warming_up)
            taken.samples.push_back(end - begin);
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
