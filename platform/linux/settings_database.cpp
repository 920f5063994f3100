#include "settings_database.h"

#include "files.h"
#include "platform_log.h"

#include <sys/stat.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <string_view>

namespace platform {

namespace {

using Statement = std::unique_ptr<sqlite3_stmt, Release<sqlite3_finalize>>;

constexpr int SCHEMA_VERSION = 1;
constexpr char SCHEMA[] =
    "CREATE TABLE settings (key TEXT PRIMARY KEY, value TEXT NOT NULL, checksum INTEGER NOT NULL)"
    " WITHOUT ROWID; PRAGMA user_version = 1;";
constexpr char UPSERT[] = "INSERT OR REPLACE INTO settings (key, value, checksum) VALUES (?1, ?2, ?3)";
constexpr int BUSY_TIMEOUT_MILLISECONDS = 1000;

// FNV-1a over the key, a zero byte and the text: a flipped bit in a value is no damage to SQLite.
sqlite3_int64 checksum_of(std::string_view key, std::string_view text)
{
    std::uint64_t sum = 0xcbf29ce484222325;
    const auto add = [&sum](char byte) {
        sum = (sum ^ static_cast<unsigned char>(byte)) * std::uint64_t{0x100000001b3};
    };
    for (const char byte : key)
        add(byte);
    add('\0');
    for (const char byte : text)
        add(byte);
    return static_cast<sqlite3_int64>(sum);
}

int execute(sqlite3* database, const char* sql)
{
    return sqlite3_exec(database, sql, nullptr, nullptr, nullptr);
}

Statement prepare(sqlite3* database, const char* sql)
{
    sqlite3_stmt* statement = nullptr;
    sqlite3_prepare_v2(database, sql, -1, &statement, nullptr);
    return Statement(statement);
}

// SQLite wants a handle closed even where opening failed; its error stays in the handle.
Database open_database(const std::string& name, int flags)
{
    sqlite3* handle = nullptr;
    sqlite3_open_v2(name.c_str(), &handle, flags | SQLITE_OPEN_NOMUTEX, nullptr);
    Database database(handle);
    if (sqlite3_errcode(handle) != SQLITE_OK)
        return database;
    sqlite3_busy_timeout(handle, BUSY_TIMEOUT_MILLISECONDS);
    // 48 kB for the sake of a few statements.
    sqlite3_db_config(handle, SQLITE_DBCONFIG_LOOKASIDE, nullptr, 0, 0);
    return database;
}

std::string_view column(sqlite3_stmt* statement, int index)
{
    const auto* const text = reinterpret_cast<const char*>(sqlite3_column_text(statement, index));
    return text == nullptr
               ? std::string_view()
               : std::string_view(text, static_cast<std::size_t>(sqlite3_column_bytes(statement, index)));
}

// The checks give SQLite's result code; what is wrong by our own measure counts as SQLITE_CORRUPT.
int check_version(sqlite3* database, std::string& reason)
{
    const Statement version = prepare(database, "PRAGMA user_version");
    if (!version || sqlite3_step(version.get()) != SQLITE_ROW)
        return sqlite3_errcode(database);
    if (sqlite3_column_int(version.get(), 0) <= SCHEMA_VERSION)
        return SQLITE_OK;
    reason = "it is of a newer version";
    return SQLITE_CORRUPT;
}

int check_pages(sqlite3* database, std::string& reason)
{
    const Statement check = prepare(database, "PRAGMA quick_check(1)");
    if (!check || sqlite3_step(check.get()) != SQLITE_ROW)
        return sqlite3_errcode(database);
    if (column(check.get(), 0) == "ok")
        return SQLITE_OK;
    reason = column(check.get(), 0);
    return SQLITE_CORRUPT;
}

int read_rows(sqlite3* database, Rows& rows, std::string& reason)
{
    const Statement select = prepare(database, "SELECT key, value, checksum FROM settings");
    if (!select)
        return sqlite3_errcode(database);
    int code = sqlite3_step(select.get());
    for (; code == SQLITE_ROW; code = sqlite3_step(select.get())) {
        const std::string key(column(select.get(), 0));
        const std::string text(column(select.get(), 1));
        if (sqlite3_column_int64(select.get(), 2) != checksum_of(key, text)) {
            reason = "the checksum of " + key + " does not match";
            return SQLITE_CORRUPT;
        }
        rows[key] = text;
    }
    return code == SQLITE_DONE ? SQLITE_OK : code;
}

int read_from(const Database& database, Rows& rows, std::string& reason)
{
    if (!database)
        return SQLITE_NOMEM;
    int code = sqlite3_errcode(database.get());
    if (code == SQLITE_OK)
        code = check_version(database.get(), reason);
    if (code == SQLITE_OK)
        code = check_pages(database.get(), reason);
    if (code == SQLITE_OK)
        code = read_rows(database.get(), rows, reason);
    if (code != SQLITE_OK && reason.empty())
        reason = sqlite3_errmsg(database.get());
    return code;
}

// Reads the file as it lies there: no locks, no write-ahead log, and nothing is written.
Finding read_untouched(const std::string& path, Rows& rows)
{
    const GlibText uri(g_filename_to_uri(path.c_str(), nullptr, nullptr));
    if (!uri)
        return {Reading::UNREADABLE, "its path is not absolute"};
    std::string reason;
    rows.clear();
    const int code = read_from(
        open_database(std::string(uri.get()) + "?immutable=1", SQLITE_OPEN_READONLY | SQLITE_OPEN_URI), rows,
        reason);
    if (code == SQLITE_OK)
        return {has_write_ahead_log(path) ? Reading::BEHIND : Reading::SOUND, reason};
    return {means_damage(code) || code == SQLITE_IOERR ? Reading::DAMAGED : Reading::UNREADABLE, reason};
}

std::string utc_time()
{
    const std::time_t now = std::time(nullptr);
    std::tm broken_down = {};
    gmtime_r(&now, &broken_down);
    char text[32];
    std::strftime(text, sizeof text, "%Y%m%dT%H%M%SZ", &broken_down);
    return text;
}

std::string unused_name(const std::string& wanted)
{
    std::string name = wanted;
    for (int number = 2; access(name.c_str(), F_OK) == 0; number++)
        name = wanted + "." + std::to_string(number);
    return name;
}

} // namespace

bool means_damage(int code)
{
    return code == SQLITE_CORRUPT || code == SQLITE_NOTADB || code == SQLITE_ERROR ||
           code == SQLITE_MISMATCH || code == SQLITE_SCHEMA || code == SQLITE_CONSTRAINT ||
           code == SQLITE_RANGE;
}

bool has_write_ahead_log(const std::string& path)
{
    struct stat status = {};
    return stat((path + "-wal").c_str(), &status) == 0 && status.st_size > 0;
}

Finding read_database(const std::string& path, Rows& rows)
{
    struct stat status = {};
    if (stat(path.c_str(), &status) != 0)
        return {errno == ENOENT ? Reading::MISSING : Reading::UNREADABLE, std::strerror(errno)};
    // A new database is renamed into place whole, so an empty file never was one; SQLite would take it.
    if (!S_ISREG(status.st_mode) || status.st_size == 0)
        return {Reading::DAMAGED, "it is not a file with content"};
    std::string reason;
    const int code = read_from(open_database(path, SQLITE_OPEN_READWRITE), rows, reason);
    if (code == SQLITE_OK)
        return {Reading::SOUND, reason};
    return means_damage(code) ? Finding{Reading::DAMAGED, reason} : read_untouched(path, rows);
}

bool write_database(const std::string& path, const Rows& rows)
{
    const Database database = open_database(":memory:", SQLITE_OPEN_READWRITE);
    if (!database || execute(database.get(), SCHEMA) != SQLITE_OK ||
        execute(database.get(), "BEGIN") != SQLITE_OK)
        return false;
    for (const auto& [key, text] : rows) {
        if (write_row(database.get(), key, text) != SQLITE_OK)
            return false;
    }
    if (commit_transaction(database.get()) != SQLITE_OK)
        return false;
    sqlite3_int64 size = 0;
    const std::unique_ptr<unsigned char, Release<sqlite3_free>> image(
        sqlite3_serialize(database.get(), "main", &size, 0));
    return image &&
           replace_file(path, {reinterpret_cast<const char*>(image.get()), static_cast<std::size_t>(size)});
}

bool set_database_aside(const std::string& path)
{
    const std::string aside = unused_name(path + ".damaged-" + utc_time());
    // The log first: a log that is left without its database would be played into the next one.
    for (const char* const suffix : {"-wal", "-shm", ""}) {
        if (rename((path + suffix).c_str(), (aside + suffix).c_str()) != 0 && errno != ENOENT) {
            platform_log(PRIORITY_ERROR, "%s: %s%s cannot be set aside: %s", __func__, path.c_str(), suffix,
                         std::strerror(errno));
            return false;
        }
    }
    return true;
}

int begin_transaction(const std::string& path, const Rows& rows, Database& database, std::string& reason)
{
    if (database)
        return execute(database.get(), "BEGIN IMMEDIATE");
    database = open_database(path, SQLITE_OPEN_READWRITE);
    int code = database ? execute(database.get(), "PRAGMA journal_mode = WAL; PRAGMA synchronous = FULL")
                        : SQLITE_NOMEM;
    if (code == SQLITE_OK)
        code = execute(database.get(), "BEGIN IMMEDIATE");
    Rows present;
    if (code == SQLITE_OK)
        code = read_from(database, present, reason);
    if (code != SQLITE_OK || present == rows)
        return code;
    reason = "its settings are not those of the daemon";
    return SQLITE_CORRUPT;
}

int write_row(sqlite3* database, const std::string& key, const std::string& text)
{
    const Statement upsert = prepare(database, UPSERT);
    if (!upsert)
        return sqlite3_errcode(database);
    sqlite3_bind_text(upsert.get(), 1, key.data(), static_cast<int>(key.size()), SQLITE_STATIC);
    sqlite3_bind_text(upsert.get(), 2, text.data(), static_cast<int>(text.size()), SQLITE_STATIC);
    sqlite3_bind_int64(upsert.get(), 3, checksum_of(key, text));
    const int code = sqlite3_step(upsert.get());
    return code == SQLITE_DONE ? SQLITE_OK : code;
}

int commit_transaction(sqlite3* database)
{
    return execute(database, "COMMIT");
}

} // namespace platform
