#include "services/generated_files.h"

#include "core/log.h"
#include "settings/setting_store.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <array>
#include <cstring>

namespace {

constexpr char GENERATED_DIRECTORY[] = "/tmp/.quarn";

// Ours alone to write: the process's own user, no link, not writable by group or others.
bool is_our_directory(const struct stat& status)
{
    return S_ISDIR(status.st_mode) && status.st_uid == geteuid() &&
           (status.st_mode & (S_IWGRP | S_IWOTH)) == 0;
}

void make_link(const char* function, const char* target, const char* link_path)
{
    if (symlink(target, link_path) != 0)
        log_message(LEVEL_CRITICAL, "%s:%d: can't create %s symlink", function, __LINE__, link_path);
}

// Makes the system file's name a link to the generated one, and says in open_file's name what it was before.
void mend_link(const char* function, const char* link_path, const char* target)
{
    struct stat status = {};
    if (lstat(link_path, &status) != 0) {
        log_message(LEVEL_WARNING, "%s: recreating missing %s symlink", function, link_path);
        make_link(function, target, link_path);
        return;
    }
    if (!S_ISLNK(status.st_mode)) {
        log_message(LEVEL_NOTICE, "%s: changing %s to symlink", function, link_path);
        unlink(link_path);
        make_link(function, target, link_path);
        return;
    }
    // A longer content is cut, and so always corrected.
    std::array<char, 64> content{};
    const bool is_readable = readlink(link_path, content.data(), content.size() - 1) >= 0;
    if (is_readable && std::strcmp(content.data(), target) == 0)
        return;
    log_message(LEVEL_WARNING, "%s: correcting %s symlink target from %s to %s", function, link_path,
                is_readable ? content.data() : "<unknown>", target);
    unlink(link_path);
    make_link(function, target, link_path);
}

// Makes the directory when it is missing. One that is not ours alone is set aside: /tmp is open to all, and a
// planted link must not steer what root writes.
void prepare_generated_directory()
{
    struct stat status = {};
    if (lstat(GENERATED_DIRECTORY, &status) == 0 && !is_our_directory(status)) {
        const OwnedText aside(
            g_strdup_printf("%s.set-aside-%" G_GINT64_FORMAT, GENERATED_DIRECTORY, g_get_real_time()));
        log_message(LEVEL_WARNING, "%s: %s is not ours alone to write; renaming it to %s", __func__,
                    GENERATED_DIRECTORY, aside.get());
        renameat2(AT_FDCWD, GENERATED_DIRECTORY, AT_FDCWD, aside.get(), RENAME_NOREPLACE);
    }
    // Whether it is there and ours shows when a file in it is opened.
    mkdir(GENERATED_DIRECTORY, 0777);
}

OwnedFile open_in_directory(const char* name)
{
    const OwnedDescriptor directory(open(GENERATED_DIRECTORY, O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    struct stat status = {};
    // It may be a mount point, which cannot be renamed aside.
    if (fstat(directory.get(), &status) != 0 || !is_our_directory(status))
        return nullptr;
    // Not blocking on a planted FIFO; a regular file does not care.
    OwnedDescriptor file(openat(directory.get(), name,
                                O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC, 0666));
    if (!file.is_open())
        return nullptr;
    OwnedFile stream(fdopen(file.get(), "w"));
    if (stream)
        file.release();
    return stream;
}

} // namespace

OwnedFile open_generated(const char* name)
{
    prepare_generated_directory();
    return open_in_directory(name);
}

OwnedFile open_file(const char* path)
{
    const char* last_slash = std::strrchr(path, '/');
    if (last_slash == nullptr) {
        log_message(LEVEL_CRITICAL, "%s:%d: no path for file %s", HERE, path);
        return nullptr;
    }
    const char* name = last_slash + 1;
    prepare_generated_directory();
    const std::size_t size = sizeof GENERATED_DIRECTORY + 1 + std::strlen(name);
    const OwnedText target(static_cast<char*>(g_try_malloc(size)));
    if (!target) {
        log_message(LEVEL_CRITICAL, "%s:%d: out of memory", HERE);
        return nullptr;
    }
    g_snprintf(target.get(), size, "%s/%s", GENERATED_DIRECTORY, name);
    mend_link(__func__, path, target.get());
    OwnedFile stream = open_in_directory(name);
    if (!stream)
        log_message(LEVEL_CRITICAL, "%s:%d: can't open %s for write", HERE, target.get());
    return stream;
}

bool close_file(OwnedFile stream)
{
    return std::fflush(stream.get()) == 0 && std::ferror(stream.get()) == 0;
}

OwnedStringArray get_enabled_string_array(const char* enable_key, const char* list_key)
{
    return get_bool(enable_key) ? get_string_array(list_key) : nullptr;
}

void write_address_list(FILE* stream, const char* title, const char* keyword, char* const* list)
{
    constexpr char LINK_LOCAL_PREFIX[] = "fe80:";
    if (list == nullptr)
        return;
    if (title != nullptr)
        std::fprintf(stream, "\n# %s\n", title);
    for (; *list != nullptr; ++list) {
        if (!is_one_word(*list)) {
            log_message(LEVEL_ERROR, "%s: Left out '%s', which is no server", __func__, *list);
            continue;
        }
        const bool is_link_local =
            g_ascii_strncasecmp(*list, LINK_LOCAL_PREFIX, sizeof LINK_LOCAL_PREFIX - 1) == 0;
        std::fprintf(stream, is_link_local ? "%s %s%%eth0\n" : "%s %s\n", keyword, *list);
    }
}

bool is_one_word(const char* text)
{
    constexpr unsigned char BLANK = 0x20;
    constexpr unsigned char DELETE = 0x7F;
    if (text == nullptr || *text == '\0')
        return false;
    for (; *text != '\0'; ++text) {
        const auto byte = static_cast<unsigned char>(*text);
        if (byte <= BLANK || byte == DELETE)
            return false;
    }
    return true;
}
