#include "configuration_file.h"

#include "catalogue.h"
#include "values.h"
#include "words.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <set>

namespace quarnctl {

namespace {

constexpr std::size_t LARGEST_FILE = std::size_t{1} << 20U;

bool read_stream(FILE* stream, std::string& text)
{
    char buffer[4096];
    text.clear();
    while (text.size() <= LARGEST_FILE) {
        const std::size_t size = std::fread(buffer, 1, sizeof buffer, stream);
        text.append(buffer, size);
        if (size < sizeof buffer)
            return std::ferror(stream) == 0;
    }
    errno = EFBIG;
    return false;
}

// The ends of lines from one offset to another.
std::size_t count_lines(std::string_view text, std::size_t from, std::size_t to)
{
    const std::string_view part = text.substr(std::min(from, text.size()), to - from);
    return static_cast<std::size_t>(std::ranges::count(part, '\n'));
}

std::size_t line_at(const std::string& text, std::size_t offset)
{
    return 1 + count_lines(text, 0, offset);
}

std::string in_line(std::size_t line, const std::string& message)
{
    return "line " + std::to_string(line) + ": " + message;
}

// A member's line is that of its name's next appearance.
std::size_t find_member(const std::string& text, const char* key, std::size_t from)
{
    const OwnedJson name(cJSON_CreateString(key));
    const std::size_t found = text.find(json_text(name.get()), from);
    return found != std::string::npos ? found : from;
}

Fault fault_of_json(const std::string& text)
{
    if (const std::size_t zero = text.find("\\u0000"); zero != std::string::npos)
        return {"", CODE_MALFORMED, in_line(line_at(text, zero), "a text holds a zero byte")};
    const char* end = nullptr;
    const OwnedJson value(cJSON_ParseWithOpts(text.c_str(), &end, 1));
    const std::size_t offset = end != nullptr ? static_cast<std::size_t>(end - text.c_str()) : 0;
    if (value)
        return {"", CODE_MALFORMED, "the file is no JSON object of settings"};
    return {"", CODE_MALFORMED, in_line(line_at(text, offset), "this is no JSON")};
}

// Zero and an empty message: it can be set.
Fault fault_of_member(const cJSON* item, bool is_repeated, std::size_t line)
{
    const Setting* setting = find_setting(item->string);
    if (setting == nullptr)
        return {item->string, CODE_UNKNOWN_KEY, in_line(line, "Unknown key")};
    if (!can_be_set(*setting))
        return {item->string, CODE_WRONG_FORM, in_line(line, "is read-only")};
    if (has_endless_number(item))
        return {item->string, CODE_WRONG_FORM, in_line(line, "is no such value")};
    if (is_repeated)
        return {item->string, CODE_REPEATED_KEY, in_line(line, "is there twice")};
    return {};
}

// The daemon keeps the length: a file with dotted netmasks would never be found to be applied already.
void shorten_netmasks(cJSON* settings)
{
    for (const Setting& setting : all_settings()) {
        if (setting.type != Type::NETMASK)
            continue;
        if (const std::optional<int> length = length_of_netmask(text_member(settings, setting.key)))
            put(settings, setting.key, OwnedJson(cJSON_CreateNumber(*length)));
    }
}

} // namespace

bool read_configuration_file(const std::string& path, std::string& text, Failure& failure)
{
    const OwnedFile opened(path == "-" ? nullptr : std::fopen(path.c_str(), "re"));
    FILE* stream = path == "-" ? stdin : opened.get();
    if (stream != nullptr && read_stream(stream, text))
        return true;
    failure = {REFUSED, printable(path) + ": " + std::strerror(errno)};
    return false;
}

ConfigurationFile parse_configuration(const std::string& text)
{
    ConfigurationFile file;
    if (const std::size_t bad = find_bad_byte(text); bad != std::string::npos) {
        file.faults.push_back({"", CODE_MALFORMED, in_line(line_at(text, bad), "this is no UTF-8 text")});
        return file;
    }
    file.settings = parse_json(text);
    if (!cJSON_IsObject(file.settings.get())) {
        file.faults.push_back(fault_of_json(text));
        return file;
    }
    std::set<std::string> seen;
    std::size_t offset = 0;
    std::size_t line = 1;
    for (const cJSON* item = file.settings->child; item != nullptr; item = item->next) {
        const std::size_t found = find_member(text, item->string, offset);
        line += count_lines(text, offset, found);
        offset = found + 1;
        Fault fault = fault_of_member(item, !seen.insert(item->string).second, line);
        if (fault.code != 0)
            file.faults.push_back(std::move(fault));
    }
    shorten_netmasks(file.settings.get());
    return file;
}

void skip_unknown_keys(ConfigurationFile& configuration)
{
    for (const Fault& fault : configuration.faults) {
        if (fault.code != CODE_UNKNOWN_KEY)
            continue;
        cJSON_DeleteItemFromObjectCaseSensitive(configuration.settings.get(), fault.key.c_str());
        configuration.skipped.push_back(fault.key);
    }
    std::erase_if(configuration.faults, [](const Fault& fault) { return fault.code == CODE_UNKNOWN_KEY; });
}

} // namespace quarnctl
