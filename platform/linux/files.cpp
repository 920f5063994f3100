#include "files.h"

#include "platform_log.h"

#include <fcntl.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>

namespace platform {

namespace {

constexpr std::string_view BYTE_ORDER_MARK = "\xef\xbb\xbf";

std::string directory_from(const char* variable, const char* otherwise)
{
    const char* const value = std::getenv(variable);
    return value != nullptr && *value != '\0' ? value : otherwise;
}

bool write_all(int descriptor, std::string_view content)
{
    while (!content.empty()) {
        const ssize_t written = write(descriptor, content.data(), content.size());
        if (written < 0 && errno != EINTR)
            return false;
        if (written > 0)
            content.remove_prefix(static_cast<std::size_t>(written));
    }
    return true;
}

bool write_synced(const std::string& path, std::string_view content)
{
    const Descriptor file(open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC, 0600));
    return file.is_open() && write_all(file.get(), content) && fsync(file.get()) == 0;
}

bool sync_directory_of(const std::string& path)
{
    const std::string directory = path.substr(0, path.rfind('/') + 1);
    const Descriptor descriptor(open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    return descriptor.is_open() && fsync(descriptor.get()) == 0;
}

bool parses(const std::string& text)
{
    // GLib would take what stands before a zero byte for the whole line.
    if (text.find('\0') != std::string::npos)
        return false;
    const KeyFile scratch(g_key_file_new());
    return g_key_file_load_from_data(scratch.get(), text.data(), text.size(), G_KEY_FILE_NONE, nullptr) != 0;
}

bool is_group_line(std::string_view line)
{
    const std::size_t first = line.find_first_not_of(" \t");
    return first != std::string_view::npos && line[first] == '[';
}

// GLib gives up on the whole file at the first line that it cannot read, so each line is tried by itself,
// behind the group that it belongs to. The lines behind a bad group line belong to no group.
std::string readable_lines(const std::string& path, std::string_view text)
{
    std::string readable;
    std::string group;
    for (int number = 1; !text.empty(); number++) {
        const std::size_t end = text.find('\n');
        const std::string line(text.substr(0, end));
        text.remove_prefix(end == std::string_view::npos ? text.size() : end + 1);
        if (is_group_line(line))
            group.clear();
        if (!parses(group + line + "\n")) {
            platform_log(PRIORITY_ERROR, "%s: %s, line %d cannot be read and is left out: %s", __func__,
                         path.c_str(), number, line.c_str());
            continue;
        }
        if (is_group_line(line))
            group = line + "\n";
        readable += line + "\n";
    }
    return readable;
}

} // namespace

std::string state_directory()
{
    const std::string directories = directory_from("STATE_DIRECTORY", "/var/lib/quarn");
    return directories.substr(0, directories.find(':'));
}

std::string configuration_directory()
{
    return directory_from("QUARN_CONFIGURATION_DIRECTORY", "/etc/quarn");
}

bool replace_file(const std::string& path, std::string_view content)
{
    const std::string scratch = path + ".new";
    if (write_synced(scratch, content) && rename(scratch.c_str(), path.c_str()) == 0)
        return sync_directory_of(path);
    const int reason = errno;
    unlink(scratch.c_str());
    errno = reason;
    return false;
}

KeyFile read_key_file(const std::string& path)
{
    char* contents = nullptr;
    gsize size = 0;
    GlibError error;
    const bool read = g_file_get_contents(path.c_str(), &contents, &size, error.out()) != 0;
    const GlibText owned(contents);
    if (!read && !error.matches(G_FILE_ERROR, G_FILE_ERROR_NOENT)) {
        platform_log(PRIORITY_ERROR, "%s: %s", __func__, error.text());
        return nullptr;
    }
    std::string_view text(read ? contents : "", size);
    if (text.starts_with(BYTE_ORDER_MARK))
        text.remove_prefix(BYTE_ORDER_MARK.size());
    const std::string readable = readable_lines(path, text);
    KeyFile file(g_key_file_new());
    GlibError refusal;
    if (readable.empty() || g_key_file_load_from_data(file.get(), readable.data(), readable.size(),
                                                      G_KEY_FILE_NONE, refusal.out()) != 0)
        return file;
    platform_log(PRIORITY_ERROR, "%s: %s: %s", __func__, path.c_str(), refusal.text());
    return nullptr;
}

} // namespace platform
