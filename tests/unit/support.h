// support.h: what the unit tests share: a daemon's surroundings in a scratch directory, the log as it was
// written, and a shell that records instead of running.
#pragma once

#include "core/owned.h"

#include <gtest/gtest.h>
#include <sys/resource.h>

#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <utility>
#include <vector>

// The shell of a unit test: every command text that reached `system`, and the exit status that each gets.
// Real commands are run by the system tests.
struct RecordedShell {
    std::vector<std::string> commands;
    // First match wins: a command that contains the text exits with the status. Default 0.
    std::vector<std::pair<std::string, int>> statuses;
};
extern RecordedShell recorded_shell;

// The interface index that if_nametoindex gives for "eth0" in unit tests.
inline constexpr unsigned ETH0_INDEX = 7;

// A fresh scratch directory with logging at debug level on standard error, no configuration, no boot
// environment of U-Boot (so that the key file beside the settings database serves), and an open settings
// store.
class QuarnTest : public testing::Test {
protected:
    void SetUp() override;
    void TearDown() override;

    // Closes and opens the store, as a restart of the daemon does: held values are gone, stored ones stay.
    void restart_store();
    // What was written to standard error since SetUp or the last call, line by line. Log lines have the form
    // "<priority>text", priorities being level + 2; the numbers after "function:" are replaced by "LINE".
    std::vector<std::string> take_log();
    // The same without the lines of levels 4 and 5.
    std::vector<std::string> take_important_log();

    std::filesystem::path scratch;
};

// Makes every file that grows beyond its present size fail, as a full disk does.
class FullDisk {
public:
    explicit FullDisk(const std::filesystem::path& largest_file)
    {
        std::signal(SIGXFSZ, SIG_IGN);
        getrlimit(RLIMIT_FSIZE, &before_);
        rlimit full = before_;
        full.rlim_cur = std::filesystem::file_size(largest_file);
        setrlimit(RLIMIT_FSIZE, &full);
    }
    FullDisk(const FullDisk&) = delete;
    FullDisk& operator=(const FullDisk&) = delete;
    ~FullDisk()
    {
        setrlimit(RLIMIT_FSIZE, &before_);
        std::signal(SIGXFSZ, SIG_DFL);
    }

private:
    rlimit before_{};
};

// Has cJSON find no memory once: for its allocation of this number, counted from 1 on.
class FailingAllocation {
public:
    explicit FailingAllocation(int number)
    {
        left = number;
        cJSON_Hooks hooks = {[](std::size_t size) { return --left == 0 ? nullptr : std::malloc(size); },
                             std::free};
        cJSON_InitHooks(&hooks);
    }
    FailingAllocation(const FailingAllocation&) = delete;
    FailingAllocation& operator=(const FailingAllocation&) = delete;
    ~FailingAllocation() { cJSON_InitHooks(nullptr); }

private:
    inline static int left = 0;
};

// A JSON item from its text, with its key attached where one is given.
OwnedJson json(const char* text);
OwnedJson setting(const char* key, const char* json_text);
// Unformatted.
std::string print(const cJSON* item);
// The unformatted value of a setting as get_json_value gives it; "(none)" when it cannot be read.
std::string value_of(const char* key);
void write_text(const std::filesystem::path& path, const std::string& text);
std::string read_text(const std::filesystem::path& path);
