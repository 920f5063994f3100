#include "services/generated_files.h"

#include "core/log.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>

namespace {

constexpr char GENERATED_DIRECTORY[] = "/tmp/.quarn";

// Ours alone to write: the process's own user, no link, not writable by group or others.
bool is_our_directory(const struct stat& status)
{
    return S_ISDIR(status.st_mode) && status.st_uid == geteuid() &&
           (status.st_mode & (S_IWGRP | S_IWOTH)) == 0;
}

} // namespace

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
    if (mkdir(GENERATED_DIRECTORY, 0777) != 0 && errno != EEXIST)
        log_message(LEVEL_CRITICAL, "%s:%d: can't create %s", HERE, GENERATED_DIRECTORY);
}

OwnedFile open_generated(const char* name)
{
    prepare_generated_directory();
    const OwnedDescriptor directory(open(GENERATED_DIRECTORY, O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
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
