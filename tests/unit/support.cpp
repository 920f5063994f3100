#include "support.h"

#include "core/log.h"
#include "settings/setting_store.h"

#include <cstdlib>
#include <fstream>
#include <regex>
#include <sstream>

RecordedShell recorded_shell;

// Stands before libc's: the whole command text is compared, nothing is run.
extern "C" int system(const char* command)
{
    recorded_shell.commands.emplace_back(command);
    for (const auto& [text, status] : recorded_shell.statuses) {
        if (recorded_shell.commands.back().find(text) != std::string::npos)
            return status << 8;
    }
    return 0;
}

extern "C" unsigned if_nametoindex(const char* name)
{
    return std::string(name) == "eth0" ? ETH0_INDEX : 0;
}

void QuarnTest::SetUp()
{
    char directory[] = "/tmp/quarn-unit-XXXXXX";
    scratch = mkdtemp(directory);
    setenv("STATE_DIRECTORY", scratch.c_str(), 1);
    setenv("QUARN_CONFIGURATION_DIRECTORY", scratch.c_str(), 1);
    setenv("QUARN_FW_ENV_CONFIG", (scratch / "fw_env.config").c_str(), 1);
    setenv("QUARN_LOG_LEVEL", "debug", 1);
    unsetenv("JOURNAL_STREAM");
    recorded_shell = RecordedShell();
    testing::internal::CaptureStderr();
    ASSERT_TRUE(start_logging());
    init_setting_storage();
}

void QuarnTest::TearDown()
{
    deinit_setting_storage();
    stop_logging();
    testing::internal::GetCapturedStderr();
    std::filesystem::remove_all(scratch);
}

void QuarnTest::restart_store()
{
    deinit_setting_storage();
    init_setting_storage();
}

std::vector<std::string> QuarnTest::take_log()
{
    std::istringstream text(testing::internal::GetCapturedStderr());
    testing::internal::CaptureStderr();
    static const std::regex source_line("^(<[2-7]>[A-Za-z_0-9]+):[0-9]+: ");
    std::vector<std::string> lines;
    for (std::string line; std::getline(text, line);)
        lines.push_back(std::regex_replace(line, source_line, "$1:LINE: "));
    return lines;
}

std::vector<std::string> QuarnTest::take_important_log()
{
    std::vector<std::string> lines = take_log();
    std::erase_if(lines,
                  [](const std::string& line) { return line.starts_with("<6>") || line.starts_with("<7>"); });
    return lines;
}

OwnedJson json(const char* text)
{
    return OwnedJson(cJSON_Parse(text));
}

OwnedJson setting(const char* key, const char* json_text)
{
    OwnedJson object(cJSON_CreateObject());
    cJSON_AddItemToObject(object.get(), key, cJSON_Parse(json_text));
    return OwnedJson(cJSON_DetachItemViaPointer(object.get(), object->child));
}

std::string print(const cJSON* item)
{
    const OwnedMallocText text(cJSON_PrintUnformatted(item));
    return text ? text.get() : "(none)";
}

std::string value_of(const char* key)
{
    const OwnedJson value = get_json_value(key);
    return value ? print(value.get()) : "(none)";
}

void write_text(const std::filesystem::path& path, const std::string& text)
{
    std::ofstream(path, std::ios::binary) << text;
}

std::string read_text(const std::filesystem::path& path)
{
    std::ifstream stream(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(stream), std::istreambuf_iterator<char>()};
}
