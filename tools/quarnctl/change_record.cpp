#include "change_record.h"

#include "values.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/file.h>
#include <sys/inotify.h>
#include <sys/random.h>
#include <sys/stat.h>

#include <array>
#include <cerrno>
#include <ctime>
#include <fstream>

namespace quarnctl {

namespace {

constexpr char ANSWERED[] = "answered.json";
constexpr char WATCHED[] = "watched.json";
constexpr char LAST[] = "last.json";
constexpr char BOOT_ID_FILE[] = "/proc/sys/kernel/random/boot_id";
constexpr off_t LARGEST_RECORD = off_t{1} << 20;
// Everyone of the group may confirm.
constexpr mode_t RECORD_MODE = 0660;

std::string present_boot_id()
{
    std::string id;
    std::ifstream file(BOOT_ID_FILE);
    std::getline(file, id);
    return id;
}

std::string random_id()
{
    constexpr char DIGITS[] = "0123456789abcdef";
    std::array<unsigned char, 16> bytes{};
    if (getrandom(bytes.data(), bytes.size(), 0) != static_cast<ssize_t>(bytes.size()))
        return std::to_string(milliseconds_since_boot());
    std::string id;
    for (const unsigned char byte : bytes) {
        id += DIGITS[byte >> 4U];
        id += DIGITS[byte & 0xFU];
    }
    return id;
}

bool write_all(int descriptor, std::string_view text)
{
    while (!text.empty()) {
        const ssize_t written = ::write(descriptor, text.data(), text.size());
        if (written < 0 && errno != EINTR)
            return false;
        if (written > 0)
            text.remove_prefix(static_cast<std::size_t>(written));
    }
    return true;
}

// A number in JSON holds a time of this size without loss.
std::uint64_t time_member(const cJSON* object, const char* name)
{
    const cJSON* item = member(object, name);
    return cJSON_IsNumber(item) && item->valuedouble > 0 ? static_cast<std::uint64_t>(item->valuedouble) : 0;
}

OwnedJson as_json(const ChangeRecord& record)
{
    OwnedJson object = new_object();
    put_text(object.get(), "id", record.id);
    cJSON_AddNumberToObject(object.get(), "milliseconds", static_cast<double>(record.milliseconds));
    cJSON_AddNumberToObject(object.get(), "deadline", static_cast<double>(record.deadline));
    put(object.get(), "restore", copy_of(record.restore.get()));
    return object;
}

// A file beside its later name, written and synced; not open when that failed.
OwnedDescriptor new_file(int folder, const std::string& name, const cJSON* content)
{
    OwnedDescriptor file(
        openat(folder, name.c_str(), O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, RECORD_MODE));
    // The umask of a person must not keep the others of the group out.
    if (file.is_open() && fchmod(file.get(), RECORD_MODE) == 0 &&
        write_all(file.get(), json_text(content) + "\n") && fsync(file.get()) == 0)
        return file;
    const int error = errno;
    if (file.is_open())
        unlinkat(folder, name.c_str(), 0);
    errno = error;
    return {};
}

std::string scratch_name()
{
    return "." + random_id() + ".new";
}

} // namespace

std::uint64_t milliseconds_since_boot()
{
    timespec now{};
    clock_gettime(CLOCK_BOOTTIME, &now);
    return static_cast<std::uint64_t>(now.tv_sec) * 1000 + static_cast<std::uint64_t>(now.tv_nsec) / 1000000;
}

ChangeRecord new_record(const cJSON* restore, unsigned seconds)
{
    const std::uint64_t milliseconds = std::uint64_t{seconds} * 1000;
    return {random_id(), milliseconds, milliseconds_since_boot() + milliseconds, copy_of(restore)};
}

ChangeFolder::ChangeFolder(const std::string& path)
    : folder_(::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC))
{}

bool ChangeFolder::lock_for_guard() const
{
    return flock(folder_.get(), LOCK_EX | LOCK_NB) == 0;
}

bool ChangeFolder::is_guarded() const
{
    if (flock(folder_.get(), LOCK_SH | LOCK_NB) != 0)
        return errno == EWOULDBLOCK;
    flock(folder_.get(), LOCK_UN);
    return false;
}

OwnedDescriptor ChangeFolder::add(const ChangeRecord& record) const
{
    if (faccessat(folder_.get(), RESTORING, F_OK, 0) == 0) {
        errno = EEXIST;
        return {};
    }
    const std::string scratch = scratch_name();
    OwnedDescriptor file = new_file(folder_.get(), scratch, as_json(record).get());
    if (!file.is_open())
        return {};
    // Linking fails where a record is, and locked before, it is never seen unlocked.
    const bool is_added = flock(file.get(), LOCK_EX | LOCK_NB) == 0 &&
                          linkat(folder_.get(), scratch.c_str(), folder_.get(), PENDING, 0) == 0;
    const int error = errno;
    unlinkat(folder_.get(), scratch.c_str(), 0);
    if (is_added && sync())
        return file;
    errno = is_added ? errno : error;
    return {};
}

std::optional<ChangeRecord> ChangeFolder::read(const char* name) const
{
    const OwnedJson content = read_file(name);
    if (!content)
        return std::nullopt;
    ChangeRecord record{text_member(content.get(), "id"), time_member(content.get(), "milliseconds"),
                        time_member(content.get(), "deadline"), copy_of(member(content.get(), "restore"))};
    if (!record.id.empty() && cJSON_IsObject(record.restore.get()))
        return record;
    errno = EBADMSG;
    return std::nullopt;
}

bool ChangeFolder::is_under_way() const
{
    const OwnedDescriptor file(
        openat(folder_.get(), PENDING, O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    return file.is_open() && flock(file.get(), LOCK_SH | LOCK_NB) != 0 && errno == EWOULDBLOCK;
}

bool ChangeFolder::mark_answered(const ChangeRecord& record, std::uint64_t deadline) const
{
    const OwnedJson content = new_object();
    put_text(content.get(), "id", record.id);
    cJSON_AddNumberToObject(content.get(), "deadline", static_cast<double>(deadline));
    return write_file(ANSWERED, content.get());
}

std::uint64_t ChangeFolder::deadline_of(const ChangeRecord& record) const
{
    const OwnedJson answered = read_file(ANSWERED);
    const bool is_its_own = text_member(answered.get(), "id") == record.id;
    return is_its_own ? time_member(answered.get(), "deadline") : record.deadline;
}

bool ChangeFolder::mark_watched(const ChangeRecord& record) const
{
    const OwnedJson content = new_object();
    put_text(content.get(), "id", record.id);
    put_text(content.get(), "boot_id", present_boot_id());
    return write_file(WATCHED, content.get());
}

bool ChangeFolder::is_watched(const ChangeRecord& record) const
{
    return text_member(read_file(WATCHED).get(), "id") == record.id;
}

// Only the guard writes and compares the boot: in a container others may see another one.
bool ChangeFolder::is_of_earlier_boot(const ChangeRecord& record) const
{
    return is_watched(record) && text_member(read_file(WATCHED).get(), "boot_id") != present_boot_id();
}

bool ChangeFolder::keep_change() const
{
    return unlinkat(folder_.get(), PENDING, 0) == 0 && sync();
}

bool ChangeFolder::begin_restoring() const
{
    return renameat(folder_.get(), PENDING, folder_.get(), RESTORING) == 0 && sync();
}

bool ChangeFolder::end_restoring() const
{
    return unlinkat(folder_.get(), RESTORING, 0) == 0 && sync();
}

bool ChangeFolder::set_aside(const char* name) const
{
    return renameat(folder_.get(), name, folder_.get(), (std::string(name) + ".damaged").c_str()) == 0 &&
           sync();
}

bool ChangeFolder::write_outcome(const std::string& id, const char* result, OwnedJson errors) const
{
    const OwnedJson content = new_object();
    put_text(content.get(), "id", id);
    put_text(content.get(), "result", result);
    cJSON_AddNumberToObject(content.get(), "time", static_cast<double>(std::time(nullptr)));
    put(content.get(), "errors", errors ? std::move(errors) : OwnedJson(cJSON_CreateArray()));
    return write_file(LAST, content.get());
}

OwnedJson ChangeFolder::last_outcome() const
{
    return read_file(LAST);
}

bool ChangeFolder::write_file(const char* name, const cJSON* content) const
{
    const std::string scratch = scratch_name();
    if (!new_file(folder_.get(), scratch, content).is_open())
        return false;
    if (renameat(folder_.get(), scratch.c_str(), folder_.get(), name) == 0)
        return sync();
    const int error = errno;
    unlinkat(folder_.get(), scratch.c_str(), 0);
    errno = error;
    return false;
}

// The whole group may write here: a link, a pipe or a monster in the place of a file is none.
OwnedJson ChangeFolder::read_file(const char* name) const
{
    const OwnedDescriptor file(openat(folder_.get(), name, O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    if (!file.is_open())
        return nullptr;
    struct stat status {};
    errno = EBADMSG;
    if (fstat(file.get(), &status) != 0 || !S_ISREG(status.st_mode) || status.st_size > LARGEST_RECORD)
        return nullptr;
    std::string text(static_cast<std::size_t>(status.st_size), '\0');
    if (pread(file.get(), text.data(), text.size(), 0) != status.st_size)
        return nullptr;
    OwnedJson content = parse_json(text);
    errno = EBADMSG;
    return cJSON_IsObject(content.get()) ? std::move(content) : nullptr;
}

bool ChangeFolder::sync() const
{
    return fsync(folder_.get()) == 0;
}

FolderWatch::FolderWatch(const std::string& path) : descriptor_(inotify_init1(IN_CLOEXEC | IN_NONBLOCK))
{
    // Access of another kind brings a reader out of its wait too: the end of a lock is the close of its file.
    constexpr std::uint32_t EVENTS = IN_CREATE | IN_DELETE | IN_MOVED_TO | IN_MOVED_FROM | IN_CLOSE_WRITE;
    if (descriptor_.is_open() && inotify_add_watch(descriptor_.get(), path.c_str(), EVENTS) < 0)
        descriptor_ = OwnedDescriptor();
}

void FolderWatch::wait(int milliseconds) const
{
    pollfd watched = {descriptor_.get(), POLLIN, 0};
    poll(&watched, 1, milliseconds);
    char events[4096];
    while (read(descriptor_.get(), events, sizeof events) > 0) {
    }
}

} // namespace quarnctl
