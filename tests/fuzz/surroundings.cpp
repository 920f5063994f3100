#include "surroundings.h"

#include "core/log.h"
#include "core/owned.h"
#include "core/shell.h"
#include "settings/setting_store.h"

#include <net/if.h>

#include <filesystem>
#include <fstream>
#include <iterator>

namespace {

std::string scratch;

bool is_carried_by_bus(const char* text)
{
    for (const char* at = text; *at != '\0'; at = g_utf8_next_char(at)) {
        const gunichar character = g_utf8_get_char_validated(at, -1);
        if (character > 0x10FFFF || (character & 0xFFFE) == 0xFFFE ||
            (character >= 0xFDD0 && character <= 0xFDEF))
            return false;
    }
    return true;
}

} // namespace

// Nothing of an input may reach a real shell: every program is one that cannot be found.
extern "C" int system(const char*)
{
    return NOT_FOUND_STATUS << 8;
}

// The same answers on every machine: there is no eth0.
extern "C" unsigned if_nametoindex(const char*)
{
    return 0;
}

void open_surroundings()
{
    if (!scratch.empty())
        return;
    const bool has_memory_files = access("/dev/shm", W_OK) == 0;
    scratch = has_memory_files ? "/dev/shm/quarn-fuzz-XXXXXX" : "/tmp/quarn-fuzz-XXXXXX";
    require(mkdtemp(scratch.data()) != nullptr, "a scratch directory");
    setenv("STATE_DIRECTORY", scratch.c_str(), 1);
    setenv("QUARN_CONFIGURATION_DIRECTORY", scratch.c_str(), 1);
    setenv("QUARN_FW_ENV_CONFIG", (scratch + "/fw_env.config").c_str(), 1);
    setenv("QUARN_LOG_LEVEL", "critical", 1);
    unsetenv("JOURNAL_STREAM");
    start_logging();
    init_setting_storage();
    std::atexit([] {
        deinit_setting_storage();
        stop_logging();
        std::filesystem::remove_all(scratch);
    });
}

std::string text_of(const std::uint8_t* data, std::size_t size)
{
    const std::string input(reinterpret_cast<const char*>(data), size);
    return input.c_str();
}

std::uint8_t Input::take_byte()
{
    const std::string byte = take(1);
    return byte.empty() ? std::uint8_t{0} : static_cast<std::uint8_t>(byte.front());
}

std::size_t Input::take_number()
{
    const std::size_t low = take_byte();
    return low | std::size_t{take_byte()} << 8;
}

std::string Input::take(std::size_t size)
{
    const std::string taken(left_.substr(0, size));
    left_.remove_prefix(taken.size());
    return taken;
}

std::string scratch_path(std::string_view name)
{
    return scratch + "/" + std::string(name);
}

void write_scratch_file(std::string_view name, std::string_view content)
{
    std::ofstream stream(scratch_path(name), std::ios::binary | std::ios::trunc);
    stream.write(content.data(), static_cast<std::streamsize>(content.size()));
    stream.close();
    require(stream.good(), "the scratch directory takes a file");
}

std::string read_scratch_file(std::string_view name)
{
    std::ifstream stream(scratch_path(name), std::ios::binary);
    return {std::istreambuf_iterator<char>(stream), std::istreambuf_iterator<char>()};
}

void empty_scratch()
{
    for (const auto& entry : std::filesystem::directory_iterator(scratch))
        std::filesystem::remove_all(entry.path());
}

void require(bool promise, const char* what)
{
    if (promise)
        return;
    std::fprintf(stderr, "broken promise: %s\n", what);
    std::abort();
}

void require_response(const char* text)
{
    require(text != nullptr, "every call is answered");
    require(is_carried_by_bus(text), "the bus carries the response");
    const OwnedJson response(cJSON_ParseWithOpts(text, nullptr, 1));
    require(response != nullptr, "the response is one JSON value");
    require(cJSON_IsBool(cJSON_GetObjectItemCaseSensitive(response.get(), "success")),
            "success is a boolean");
    const cJSON* errors = cJSON_GetObjectItemCaseSensitive(response.get(), "errors");
    require(cJSON_IsArray(errors), "errors is an array");
    const cJSON* entry = nullptr;
    cJSON_ArrayForEach(entry, errors)
    {
        require(cJSON_IsNumber(cJSON_GetObjectItemCaseSensitive(entry, "code")), "an error has a code");
        require(cJSON_IsString(cJSON_GetObjectItemCaseSensitive(entry, "msg")), "an error has a message");
    }
}
