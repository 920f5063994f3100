#include "files.h"
#include "platform_log.h"
#include "settings_database.h"
#include "trell_core.h"

#include <malloc.h>

#include <cstring>
#include <optional>
#include <string>

// All rows are in memory, so reads cost nothing; the database is open only while there is something to write
// and is closed, its log emptied, when the daemon has been idle for a second.
struct TrellSettings {
    std::string path;
    platform::Rows rows;
    // What the keys written since the last commit held before.
    std::map<std::string, std::optional<std::string>> before;
    // Null while nothing is being written.
    platform::Database database;
    // False while the file could not be read to its end: then nothing is written either.
    bool complete = false;
    bool copy_is_old = false;
    guint idle_source = 0;
};

namespace {

using platform::Reading;

constexpr guint IDLE_MILLISECONDS = 1000;

// The boot environment holds these too and is newer than any copy of the database.
constexpr const char* BOOT_ENVIRONMENT_KEYS[] = {
    "IPv4.DHCP.Enabled",          "IPv4.LocalLink.Enabled", "IPv4.Manual.Address",   "IPv4.Manual.Netmask",
    "IPv4.Manual.DefaultGateway", "IPv6.Enabled",           "IPv6.Manual.Addresses", "Hostname.Name"};

std::string copy_path(const TrellSettings& settings)
{
    return settings.path + ".backup";
}

// The copy that was kept after the last idle checkpoint; without a sound one an empty store is begun.
void restore_copy(TrellSettings& settings)
{
    settings.rows.clear();
    const Reading reading = platform::read_database(copy_path(settings), settings.rows).reading;
    if (reading != Reading::SOUND) {
        settings.rows.clear();
        return;
    }
    for (const char* const key : BOOT_ENVIRONMENT_KEYS)
        settings.rows.erase(key);
    platform_log(PRIORITY_ERROR, "%s: the settings are those of the last good copy, %s", __func__,
                 copy_path(settings).c_str());
    if (settings.complete && !platform::write_database(settings.path, settings.rows))
        platform_log(PRIORITY_ERROR, "%s: %s cannot be written: %s", __func__, settings.path.c_str(),
                     std::strerror(errno));
}

// Fills the memory with what can be read; true when that is all there is.
bool load(TrellSettings& settings)
{
    settings.rows.clear();
    settings.copy_is_old = platform::has_write_ahead_log(settings.path);
    const platform::Finding finding = platform::read_database(settings.path, settings.rows);
    settings.complete = finding.reading == Reading::SOUND;
    if (finding.reading == Reading::BEHIND) {
        platform_log(PRIORITY_ERROR, "%s: the newest settings of %s cannot be read yet", __func__,
                     settings.path.c_str());
    } else if (finding.reading == Reading::UNREADABLE) {
        settings.rows.clear();
        platform_log(PRIORITY_ERROR, "%s: %s cannot be read: %s", __func__, settings.path.c_str(),
                     finding.reason.c_str());
    } else if (finding.reading != Reading::SOUND) {
        if (finding.reading == Reading::DAMAGED)
            platform_log(PRIORITY_ERROR, "%s: %s is damaged and set aside: %s", __func__,
                         settings.path.c_str(), finding.reason.c_str());
        settings.complete = platform::set_database_aside(settings.path);
        restore_copy(settings);
    }
    return settings.complete;
}

// Empties the write-ahead log, closes the database and renews the copy.
void settle(TrellSettings& settings)
{
    if (settings.database &&
        sqlite3_wal_checkpoint_v2(settings.database.get(), nullptr, SQLITE_CHECKPOINT_TRUNCATE, nullptr,
                                  nullptr) != SQLITE_OK)
        platform_log(PRIORITY_WARNING, "%s: the checkpoint of %s failed: %s", __func__, settings.path.c_str(),
                     sqlite3_errmsg(settings.database.get()));
    settings.database.reset();
    if (!settings.copy_is_old)
        return;
    settings.copy_is_old = !platform::write_database(copy_path(settings), settings.rows);
    if (settings.copy_is_old)
        platform_log(PRIORITY_WARNING, "%s: %s cannot be written: %s", __func__, copy_path(settings).c_str(),
                     std::strerror(errno));
}

gboolean settle_when_idle(gpointer data)
{
    TrellSettings& settings = *static_cast<TrellSettings*>(data);
    settings.idle_source = 0;
    // A commit that is still to come arms the timer anew.
    if (settings.before.empty())
        settle(settings);
    // What a request took is not needed again for long.
    malloc_trim(0);
    return G_SOURCE_REMOVE;
}

void disarm(TrellSettings& settings)
{
    if (settings.idle_source != 0)
        g_source_remove(settings.idle_source);
    settings.idle_source = 0;
}

void settle_later(TrellSettings& settings)
{
    disarm(settings);
    settings.idle_source = g_timeout_add(IDLE_MILLISECONDS, settle_when_idle, &settings);
}

// Nothing is written that memory does not hold, so a database that is gone is made anew of it.
int open_and_begin(TrellSettings& settings, std::string& reason)
{
    if (!settings.database && access(settings.path.c_str(), F_OK) != 0 &&
        !(g_mkdir_with_parents(platform::state_directory().c_str(), 0700) == 0 &&
          platform::set_database_aside(settings.path) &&
          platform::write_database(settings.path, settings.rows)))
        return SQLITE_CANTOPEN;
    return platform::begin_transaction(settings.path, settings.rows, settings.database, reason);
}

bool begin(TrellSettings& settings)
{
    if (!settings.complete && !load(settings))
        return false;
    std::string reason;
    int code = open_and_begin(settings, reason);
    if (platform::means_damage(code)) {
        platform_log(PRIORITY_ERROR, "%s: %s is damaged and set aside: %s", __func__, settings.path.c_str(),
                     reason.empty() ? sqlite3_errstr(code) : reason.c_str());
        settings.database.reset();
        code = platform::set_database_aside(settings.path) ? open_and_begin(settings, reason) : code;
    }
    if (code == SQLITE_OK)
        return true;
    platform_log(PRIORITY_ERROR, "%s: %s cannot be written: %s", __func__, settings.path.c_str(),
                 sqlite3_errstr(code));
    settings.database.reset();
    return false;
}

int write_and_commit(TrellSettings& settings)
{
    for (const auto& [key, old_text] : settings.before) {
        const int code = platform::write_row(settings.database.get(), key, settings.rows[key]);
        if (code != SQLITE_OK)
            return code;
    }
    return platform::commit_transaction(settings.database.get());
}

// Database and memory become what was committed last.
void take_back(TrellSettings& settings)
{
    if (settings.database && sqlite3_get_autocommit(settings.database.get()) == 0)
        sqlite3_exec(settings.database.get(), "ROLLBACK", nullptr, nullptr, nullptr);
    for (auto& [key, old_text] : settings.before) {
        if (old_text)
            settings.rows[key] = std::move(*old_text);
        else
            settings.rows.erase(key);
    }
    settings.before.clear();
}

} // namespace

int trell_core_settings_init(const char*, TrellSettings** settings)
{
    const std::string directory = platform::state_directory();
    auto* const opened = new TrellSettings{};
    opened->path = directory + "/settings.db";
    if (g_mkdir_with_parents(directory.c_str(), 0700) != 0)
        platform_log(PRIORITY_ERROR, "%s: %s cannot be made: %s", __func__, directory.c_str(),
                     std::strerror(errno));
    load(*opened);
    if (opened->copy_is_old)
        settle_later(*opened);
    *settings = opened;
    return 0;
}

int trell_core_settings_get_json_value(TrellSettings* settings, const char* key, char** json_text)
{
    const auto row = settings->rows.find(key);
    if (row == settings->rows.end())
        return TRELL_SETTINGS_NOT_STORED;
    char* const copy = strdup(row->second.c_str());
    if (copy == nullptr)
        return 1;
    *json_text = copy;
    return 0;
}

int trell_core_settings_set_json_value(TrellSettings* settings, const char* key, const char* json_text)
{
    const auto is_stored = [&] {
        const auto row = settings->rows.find(key);
        return row != settings->rows.end() && row->second == json_text;
    };
    if (is_stored())
        return 0;
    if (settings->before.empty() && !begin(*settings))
        return 1;
    const auto row = settings->rows.find(key);
    settings->before.try_emplace(key,
                                 row == settings->rows.end() ? std::nullopt : std::optional(row->second));
    settings->rows[key] = json_text;
    return 0;
}

int trell_core_settings_commit(TrellSettings* settings)
{
    if (settings->before.empty())
        return 0;
    int code = write_and_commit(*settings);
    if (platform::means_damage(code)) {
        platform_log(PRIORITY_ERROR, "%s: %s is damaged and set aside: %s", __func__, settings->path.c_str(),
                     sqlite3_errstr(code));
        settings->database.reset();
        if (platform::set_database_aside(settings->path) &&
            platform::write_database(settings->path, settings->rows))
            code = SQLITE_OK;
    }
    if (code != SQLITE_OK) {
        platform_log(PRIORITY_ERROR, "%s: %s cannot be written: %s", __func__, settings->path.c_str(),
                     sqlite3_errstr(code));
        take_back(*settings);
        // A connection of a disk that was read-only stays so; the next request opens it anew.
        settings->database.reset();
        return 1;
    }
    settings->before.clear();
    settings->copy_is_old = true;
    settle_later(*settings);
    return 0;
}

void trell_core_settings_deinit(TrellSettings* settings)
{
    disarm(*settings);
    take_back(*settings);
    settle(*settings);
    delete settings;
}
