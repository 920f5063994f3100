// settings_database.h: the SQLite file behind the settings store, seen as a whole: rows in, rows out.
#pragma once

#include "owners.h"

#include <sqlite3.h>

#include <map>
#include <string>

namespace platform {

using Rows = std::map<std::string, std::string, std::less<>>;
using Database = std::unique_ptr<sqlite3, Release<sqlite3_close>>;

enum class Reading {
    SOUND,
    BEHIND,     // What the write-ahead log holds could not be read.
    MISSING,    // There is no such file.
    DAMAGED,    // Not a sound database of this version.
    UNREADABLE, // The disk or the rights stand in the way; the file may be sound.
};

struct Finding {
    Reading reading;
    std::string reason;
};

// Adds the rows of the database to `rows`; only those of SOUND and BEHIND are to be used.
Finding read_database(const std::string& path, Rows& rows);
// Replaces the file by a new database of these rows; all of it or nothing, and synced.
bool write_database(const std::string& path, const Rows& rows);
// Renames the file and its write-ahead log to "<path>.damaged-<UTC time>"; files that are not there are no
// failure.
bool set_database_aside(const std::string& path);

// An open transaction on the existing file, or SQLite's result code; the connection stays in `database` for
// the next. A file that is opened anew must hold these rows and no others: of one that was damaged meanwhile
// the next start would take nothing.
int begin_transaction(const std::string& path, const Rows& rows, Database& database, std::string& reason);
int write_row(sqlite3* database, const std::string& key, const std::string& text);
int commit_transaction(sqlite3* database);

// The result codes that speak of the file's content, not of the disk or of the rights.
bool means_damage(int code);
// Whether the write-ahead log beside the file holds anything.
bool has_write_ahead_log(const std::string& path);

} // namespace platform
