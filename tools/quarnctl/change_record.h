// change_record.h: what is known on disk of a change that waits for its confirm. All of it lies in one
// folder:
//   pending.json    the record: what to restore, and until when the confirm may come; never rewritten
//   answered.json   a later time, counted from the daemon's answer to the change
//   watched.json    the guard has seen the record, and in which boot of the machine
//   restoring.json  the record once it is being restored: a confirm comes too late
//   last.json       what became of the last change
// Each step is one rename, link or unlink, synced: a power cut leaves the step done or not.
#pragma once

#include "core/owned.h"

#include <cstdint>
#include <optional>
#include <string>

namespace quarnctl {

inline constexpr char STATE_FOLDER[] = "/var/lib/quarnctl";
inline constexpr char PENDING[] = "pending.json";
inline constexpr char RESTORING[] = "restoring.json";

// Milliseconds since the machine started, times of sleep included.
std::uint64_t milliseconds_since_boot();

struct ChangeRecord {
    std::string id;
    // How long a confirm may take, and when that ends unless the daemon's answer comes.
    std::uint64_t milliseconds = 0;
    std::uint64_t deadline = 0;
    OwnedJson restore;
};

// With a new id, and a deadline in so many seconds.
ChangeRecord new_record(const cJSON* restore, unsigned seconds);

// The folder of the records. All of these return false, or nothing, with the reason in errno.
class ChangeFolder {
public:
    explicit ChangeFolder(const std::string& path);

    bool is_open() const { return folder_.is_open(); }
    int descriptor() const { return folder_.get(); }
    // Only one guard may watch: false when another does.
    bool lock_for_guard() const;
    bool is_guarded() const;

    // Puts a record there and holds it locked until the returned descriptor is closed, which says that the
    // change is still under way. Not open, with EEXIST, while another change waits.
    OwnedDescriptor add(const ChangeRecord& record) const;
    // ENOENT where there is none; EBADMSG for what is no record.
    std::optional<ChangeRecord> read(const char* name) const;
    bool is_under_way() const;
    // The later deadline, where it is this record's.
    bool mark_answered(const ChangeRecord& record, std::uint64_t deadline) const;
    std::uint64_t deadline_of(const ChangeRecord& record) const;
    bool mark_watched(const ChangeRecord& record) const;
    bool is_watched(const ChangeRecord& record) const;
    // Watched, and then the machine went down: the time ran while there was no power.
    bool is_of_earlier_boot(const ChangeRecord& record) const;

    // Either one of these two, whichever comes first, takes the pending record: the other gets ENOENT.
    bool keep_change() const;
    bool begin_restoring() const;
    bool end_restoring() const;
    // What cannot be read is set aside for whoever looks into it.
    bool set_aside(const char* name) const;

    // Results: "confirmed", "taken back", "taken back in part".
    bool write_outcome(const std::string& id, const char* result, OwnedJson errors) const;
    // Null where there is none.
    OwnedJson last_outcome() const;

private:
    bool write_file(const char* name, const cJSON* content) const;
    OwnedJson read_file(const char* name) const;
    bool sync() const;

    OwnedDescriptor folder_;
};

// Wakes up when something in the folder changes.
class FolderWatch {
public:
    explicit FolderWatch(const std::string& path);

    bool is_open() const { return descriptor_.is_open(); }
    int descriptor() const { return descriptor_.get(); }
    // Until a change or the time is over; below 0: no time. Changes since the last call count.
    void wait(int milliseconds) const;

private:
    OwnedDescriptor descriptor_;
};

} // namespace quarnctl
