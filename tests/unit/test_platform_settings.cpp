#include "platform_fixture.h"

#include <glib.h>
#include <sqlite3.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include <algorithm>
#include <csignal>
#include <functional>
#include <memory>
#include <utility>

namespace {

namespace fs = std::filesystem;

class platform_settings : public PlatformTest {
protected:
    void SetUp() override
    {
        PlatformTest::SetUp();
        database = scratch / "settings.db";
        open();
    }

    void TearDown() override
    {
        if (settings != nullptr)
            close();
        PlatformTest::TearDown();
    }

    void open() { ASSERT_EQ(trell_core_settings_init("quarn", &settings), 0); }

    void close()
    {
        trell_core_settings_deinit(settings);
        settings = nullptr;
    }

    void restart()
    {
        close();
        open();
    }

    bool store(const char* key, const char* text)
    {
        return trell_core_settings_set_json_value(settings, key, text) == 0 &&
               trell_core_settings_commit(settings) == 0;
    }

    std::string value(const char* key)
    {
        char* text = nullptr;
        const int result = trell_core_settings_get_json_value(settings, key, &text);
        const std::unique_ptr<char, decltype(&std::free)> owned(text, std::free);
        return result == 0 ? text : "result " + std::to_string(result);
    }

    // The one file that was set aside, or nothing.
    fs::path set_aside() const
    {
        for (const auto& entry : fs::directory_iterator(scratch)) {
            const std::string name = entry.path().filename();
            if (name.starts_with("settings.db.damaged-") && name.ends_with("Z"))
                return entry.path();
        }
        return {};
    }

    void flip_byte(const fs::path& path, const std::string& within)
    {
        std::string content = read_text(path);
        const std::size_t at = content.find(within);
        ASSERT_NE(at, std::string::npos);
        content[at] = static_cast<char>(content[at] ^ 1);
        write_text(path, content);
    }

    void run_until_the_copy_is_there()
    {
        while (!fs::exists(scratch / "settings.db.backup"))
            g_main_context_iteration(nullptr, TRUE);
    }

    // A timer of ours that is set later and longer ends after the store's.
    static void run_past_the_idle_timer()
    {
        bool ended = false;
        const auto end = [](gpointer data) -> gboolean {
            *static_cast<bool*>(data) = true;
            return G_SOURCE_REMOVE;
        };
        g_timeout_add(1100, end, &ended);
        while (!ended)
            g_main_context_iteration(nullptr, TRUE);
    }

    void run_sql(const char* sql)
    {
        sqlite3* handle = nullptr;
        ASSERT_EQ(sqlite3_open(database.c_str(), &handle), SQLITE_OK);
        EXPECT_EQ(sqlite3_exec(handle, sql, nullptr, nullptr, nullptr), SQLITE_OK);
        sqlite3_close(handle);
    }

    TrellSettings* settings = nullptr;
    fs::path database;
};

// A way to damage the database, and what the log says of it.
struct Damage {
    const char* name;
    std::function<void(const fs::path& database)> make;
    const char* reason;
};

void overwrite(const fs::path& path, std::size_t at, const std::string& bytes)
{
    std::string content = read_text(path);
    content.replace(at, bytes.size(), bytes);
    write_text(path, content);
}

const Damage DAMAGES[] = {
    {"flipped_bit_in_a_value",
     [](const fs::path& path) { overwrite(path, read_text(path).find("1400"), "1401"); },
     "the checksum of NIC.eth0.MTU does not match"},
    {"flipped_bit_in_a_key",
     [](const fs::path& path) { overwrite(path, read_text(path).find("NIC.eth0.MTU"), "NIC.eth1.MTU"); },
     "the checksum of NIC.eth1.MTU does not match"},
    {"garbage_header", [](const fs::path& path) { overwrite(path, 0, std::string(64, 'x')); },
     "file is not a database"},
    {"garbage_page", [](const fs::path& path) { overwrite(path, 4096, std::string(4096, 'x')); },
     "*** in database main ***\\x0aPage 2: btreeInitPage() returns error code 11"},
    {"truncated", [](const fs::path& path) { fs::resize_file(path, 4096); },
     "database disk image is malformed"},
    {"truncated_header", [](const fs::path& path) { fs::resize_file(path, 50); },
     "database disk image is malformed"},
    {"zero_length", [](const fs::path& path) { fs::resize_file(path, 0); }, "it is not a file with content"},
    {"a_directory",
     [](const fs::path& path) {
         fs::remove(path);
         fs::create_directory(path);
     },
     "it is not a file with content"},
};

class platform_settings_damage : public platform_settings, public testing::WithParamInterface<Damage> {};

} // namespace

TEST_F(platform_settings, a_committed_value_outlives_a_restart)
{
    EXPECT_TRUE(store("NIC.eth0.MTU", "1400"));
    restart();
    EXPECT_EQ(value("NIC.eth0.MTU"), "1400");
}

TEST_F(platform_settings, a_key_that_was_never_stored_answers_6)
{
    EXPECT_EQ(value("NIC.eth0.MTU"), "result 6");
}

TEST_F(platform_settings, a_value_can_be_read_before_it_is_committed_and_is_gone_when_it_never_was)
{
    EXPECT_TRUE(store("Hostname.Name", "\"old\""));
    EXPECT_EQ(trell_core_settings_set_json_value(settings, "Hostname.Name", "\"new\""), 0);
    EXPECT_EQ(trell_core_settings_set_json_value(settings, "NIC.eth0.MTU", "1400"), 0);
    EXPECT_EQ(value("Hostname.Name"), "\"new\"");
    restart();
    EXPECT_EQ(value("Hostname.Name"), "\"old\"");
    EXPECT_EQ(value("NIC.eth0.MTU"), "result 6");
    EXPECT_EQ(take_log(), Lines{});
}

TEST_F(platform_settings, a_commit_without_a_write_does_nothing)
{
    EXPECT_EQ(trell_core_settings_commit(settings), 0);
    EXPECT_FALSE(fs::exists(database));
}

TEST_F(platform_settings, a_value_that_is_stored_already_is_not_written_again)
{
    EXPECT_TRUE(store("NIC.eth0.MTU", "1400"));
    restart();
    EXPECT_TRUE(store("NIC.eth0.MTU", "1400"));
    EXPECT_FALSE(fs::exists(scratch / "settings.db-wal"));
}

TEST_F(platform_settings, what_was_committed_is_on_the_disk_when_the_daemon_is_killed)
{
    const int status = status_of_child([this] {
        const bool stored = store("NIC.eth0.MTU", "1400");
        trell_core_settings_set_json_value(settings, "NIC.eth0.MTU", "1300");
        trell_core_settings_set_json_value(settings, "IPv6.Enabled", "true");
        return stored ? 0 : 1;
    });
    EXPECT_EQ(status, 0);
    restart();
    EXPECT_EQ(value("NIC.eth0.MTU"), "1400");
    EXPECT_EQ(value("IPv6.Enabled"), "result 6");
    EXPECT_EQ(take_log(), Lines{});
}

TEST_F(platform_settings, the_first_state_directory_is_made_for_its_owner_only)
{
    close();
    const fs::path first = scratch / "made" / "here";
    setenv("STATE_DIRECTORY", (first.string() + ":" + (scratch / "second").string()).c_str(), 1);
    open();
    EXPECT_TRUE(store("NIC.eth0.MTU", "1400"));
    struct stat status = {};
    ASSERT_EQ(stat(first.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0700U);
    ASSERT_EQ(stat((first / "settings.db").c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0600U);
    EXPECT_FALSE(fs::exists(scratch / "second"));
}

TEST_F(platform_settings, the_copy_is_renewed_and_the_log_emptied_once_the_main_loop_has_been_idle)
{
    EXPECT_TRUE(store("NIC.eth0.MTU", "1400"));
    EXPECT_FALSE(fs::exists(scratch / "settings.db.backup"));
    EXPECT_GT(fs::file_size(scratch / "settings.db-wal"), 0U);
    run_until_the_copy_is_there();
    EXPECT_FALSE(fs::exists(scratch / "settings.db-wal"));
    EXPECT_TRUE(store("NIC.eth0.MTU", "1300"));
    EXPECT_EQ(value("NIC.eth0.MTU"), "1300");
}

TEST_F(platform_settings, an_open_transaction_outlives_the_idle_timer)
{
    EXPECT_TRUE(store("NIC.eth0.MTU", "1400"));
    EXPECT_EQ(trell_core_settings_set_json_value(settings, "IPv6.Enabled", "true"), 0);
    run_past_the_idle_timer();
    EXPECT_EQ(trell_core_settings_commit(settings), 0);
    restart();
    EXPECT_EQ(value("IPv6.Enabled"), "true");
    EXPECT_EQ(take_log(), Lines{});
}

TEST_F(platform_settings, a_copy_that_a_kill_left_behind_is_renewed_after_the_start)
{
    EXPECT_EQ(status_of_child([this] { return store("NIC.eth0.MTU", "1400") ? 0 : 1; }), 0);
    TrellSettings* const killed = std::exchange(settings, nullptr);
    open();
    run_until_the_copy_is_there();
    trell_core_settings_deinit(killed);
    fs::remove(database);
    restart();
    EXPECT_EQ(value("NIC.eth0.MTU"), "1400");
}

TEST_P(platform_settings_damage, is_set_aside_and_the_last_good_copy_restored)
{
    EXPECT_TRUE(store("NIC.eth0.MTU", "1400"));
    EXPECT_TRUE(store("Hostname.Name", "\"camera\""));
    EXPECT_TRUE(store("IPv6.Enabled", "false"));
    close();
    GetParam().make(database);
    const std::string damaged = fs::is_directory(database) ? "" : read_text(database);
    take_log();
    open();
    EXPECT_EQ(take_log(), (Lines{std::string("<3>load: SCRATCH/settings.db is damaged and set aside: ") +
                                     GetParam().reason,
                                 "<3>restore_copy: the settings are those of the last good copy, "
                                 "SCRATCH/settings.db.backup"}));
    EXPECT_EQ(value("NIC.eth0.MTU"), "1400");
    EXPECT_EQ(value("Hostname.Name"), "result 6");
    EXPECT_EQ(value("IPv6.Enabled"), "result 6");
    EXPECT_EQ(fs::is_directory(set_aside()) ? "" : read_text(set_aside()), damaged);
    EXPECT_TRUE(store("NIC.eth0.MTU", "1300"));
    restart();
    EXPECT_EQ(value("NIC.eth0.MTU"), "1300");
    EXPECT_EQ(take_log(), Lines{});
}

TEST_P(platform_settings_damage, without_a_copy_begins_an_empty_store)
{
    EXPECT_TRUE(store("NIC.eth0.MTU", "1400"));
    close();
    fs::remove(scratch / "settings.db.backup");
    GetParam().make(database);
    open();
    EXPECT_EQ(value("NIC.eth0.MTU"), "result 6");
    EXPECT_TRUE(fs::exists(set_aside()));
    EXPECT_TRUE(store("NIC.eth0.MTU", "1300"));
    restart();
    EXPECT_EQ(value("NIC.eth0.MTU"), "1300");
}

INSTANTIATE_TEST_SUITE_P(a_database, platform_settings_damage, testing::ValuesIn(DAMAGES),
                         [](const auto& instance) { return instance.param.name; });

TEST_F(platform_settings, a_database_of_a_newer_version_is_set_aside_whole)
{
    EXPECT_TRUE(store("NIC.eth0.MTU", "1400"));
    close();
    run_sql("PRAGMA user_version = 2; ALTER TABLE settings ADD COLUMN more TEXT");
    open();
    EXPECT_EQ(take_log(),
              (Lines{"<3>load: SCRATCH/settings.db is damaged and set aside: it is of a newer version",
                     "<3>restore_copy: the settings are those of the last good copy, "
                     "SCRATCH/settings.db.backup"}));
    EXPECT_EQ(value("NIC.eth0.MTU"), "1400");
    EXPECT_TRUE(fs::exists(set_aside()));
}

TEST_F(platform_settings, a_copy_that_is_damaged_too_is_not_restored)
{
    EXPECT_TRUE(store("NIC.eth0.MTU", "1400"));
    close();
    flip_byte(database, "1400");
    flip_byte(scratch / "settings.db.backup", "1400");
    open();
    EXPECT_EQ(value("NIC.eth0.MTU"), "result 6");
    EXPECT_TRUE(store("NIC.eth0.MTU", "1300"));
}

TEST_F(platform_settings, a_second_damage_in_the_same_second_keeps_the_first_file)
{
    for (const char* const text : {"1400", "1300", "1200"}) {
        EXPECT_TRUE(store("NIC.eth0.MTU", text));
        close();
        flip_byte(database, text);
        open();
    }
    const auto is_database = [](const fs::directory_entry& entry) {
        const std::string name = entry.path().filename();
        return name.starts_with("settings.db.damaged-") && !name.ends_with("-wal") && !name.ends_with("-shm");
    };
    EXPECT_EQ(std::count_if(fs::directory_iterator(scratch), fs::directory_iterator(), is_database), 3);
}

TEST_F(platform_settings, a_damaged_write_ahead_log_keeps_what_was_committed_before_the_damage)
{
    EXPECT_TRUE(store("NIC.eth0.MTU", "1400"));
    restart();
    EXPECT_EQ(status_of_child([this] {
                  const bool stored = store("NIC.eth0.MTU", "1300") && store("NIC.eth0.MTU", "1200");
                  return stored ? 0 : 1;
              }),
              0);
    const fs::path log = scratch / "settings.db-wal";
    overwrite(log, read_text(log).find("1200"), "1201");
    restart();
    EXPECT_EQ(value("NIC.eth0.MTU"), "1300");
    EXPECT_EQ(take_log(), Lines{});
}

TEST_F(platform_settings, the_log_of_a_lost_database_is_not_played_into_the_next_one)
{
    EXPECT_EQ(status_of_child([this] { return store("NIC.eth0.MTU", "1400") ? 0 : 1; }), 0);
    fs::remove(database);
    restart();
    EXPECT_TRUE(store("IPv6.Enabled", "true"));
    restart();
    EXPECT_EQ(value("NIC.eth0.MTU"), "result 6");
    EXPECT_EQ(value("IPv6.Enabled"), "true");
}

TEST_F(platform_settings, a_database_that_breaks_while_the_daemon_runs_is_made_anew_of_what_it_knows)
{
    EXPECT_TRUE(store("NIC.eth0.MTU", "1400"));
    EXPECT_TRUE(store("IPv6.Enabled", "true"));
    restart();
    overwrite(database, 0, std::string(64, 'x'));
    EXPECT_TRUE(store("NIC.eth0.MTU", "1300"));
    EXPECT_TRUE(fs::exists(set_aside()));
    restart();
    EXPECT_EQ(value("NIC.eth0.MTU"), "1300");
    EXPECT_EQ(value("IPv6.Enabled"), "true");
}

TEST_F(platform_settings, a_database_that_is_removed_while_the_daemon_runs_is_made_anew_of_what_it_knows)
{
    EXPECT_TRUE(store("IPv6.Enabled", "true"));
    restart();
    fs::remove(database);
    EXPECT_TRUE(store("NIC.eth0.MTU", "1300"));
    restart();
    EXPECT_EQ(value("NIC.eth0.MTU"), "1300");
    EXPECT_EQ(value("IPv6.Enabled"), "true");
}

TEST_F(platform_settings, a_read_only_directory_can_be_read_and_is_written_once_it_can_be)
{
    EXPECT_TRUE(store("NIC.eth0.MTU", "1400"));
    close();
    // Root may write everywhere, so the child becomes somebody else.
    const bool root = geteuid() == 0;
    for (const fs::path& path : {scratch, database, scratch / "settings.db.backup"})
        ASSERT_TRUE(!root || chown(path.c_str(), 65534, 65534) == 0);
    chmod(scratch.c_str(), 0500);
    chmod(database.c_str(), 0400);
    EXPECT_EQ(status_of_child([&, this] {
                  if (root && setuid(65534) != 0)
                      return 1;
                  open();
                  if (value("NIC.eth0.MTU") != "1400")
                      return 2;
                  if (store("NIC.eth0.MTU", "1300") || value("NIC.eth0.MTU") != "1400")
                      return 3;
                  chmod(scratch.c_str(), 0700);
                  chmod(database.c_str(), 0600);
                  if (!store("NIC.eth0.MTU", "1200"))
                      return 4;
                  restart();
                  return value("NIC.eth0.MTU") == "1200" ? 0 : 5;
              }),
              0);
    chmod(scratch.c_str(), 0700);
    open();
}

TEST_F(platform_settings, a_full_disk_takes_the_whole_transaction_back_and_later_writes_work)
{
    EXPECT_TRUE(store("NIC.eth0.MTU", "1400"));
    restart();
    EXPECT_EQ(status_of_child([this] {
                  signal(SIGXFSZ, SIG_IGN);
                  const rlimit small = {100, RLIM_INFINITY};
                  const rlimit enough = {RLIM_INFINITY, RLIM_INFINITY};
                  setrlimit(RLIMIT_FSIZE, &small);
                  trell_core_settings_set_json_value(settings, "NIC.eth0.MTU", "1300");
                  trell_core_settings_set_json_value(settings, "IPv6.Enabled", "true");
                  if (trell_core_settings_commit(settings) == 0 && value("NIC.eth0.MTU") == "1300")
                      return 1;
                  if (value("NIC.eth0.MTU") != "1400" || value("IPv6.Enabled") != "result 6")
                      return 2;
                  setrlimit(RLIMIT_FSIZE, &enough);
                  if (!store("NIC.eth0.MTU", "1200"))
                      return 3;
                  restart();
                  return value("NIC.eth0.MTU") == "1200" && value("IPv6.Enabled") == "result 6" ? 0 : 4;
              }),
              0);
}

TEST_F(platform_settings, a_disk_that_fills_up_in_the_middle_of_a_transaction_takes_it_back)
{
    EXPECT_TRUE(store("NIC.eth0.MTU", "1400"));
    EXPECT_EQ(status_of_child([this] {
                  signal(SIGXFSZ, SIG_IGN);
                  if (trell_core_settings_set_json_value(settings, "NIC.eth0.MTU", "1300") != 0)
                      return 1;
                  const rlimit full = {fs::file_size(scratch / "settings.db-wal"), RLIM_INFINITY};
                  const rlimit enough = {RLIM_INFINITY, RLIM_INFINITY};
                  setrlimit(RLIMIT_FSIZE, &full);
                  if (trell_core_settings_commit(settings) == 0)
                      return 2;
                  if (value("NIC.eth0.MTU") != "1400")
                      return 3;
                  setrlimit(RLIMIT_FSIZE, &enough);
                  restart();
                  if (value("NIC.eth0.MTU") != "1400")
                      return 4;
                  return store("NIC.eth0.MTU", "1200") ? 0 : 5;
              }),
              0);
    restart();
    EXPECT_EQ(value("NIC.eth0.MTU"), "1200");
}

TEST_F(platform_settings, a_first_start_on_a_full_disk_comes_up_and_stores_later)
{
    EXPECT_EQ(status_of_child([this] {
                  signal(SIGXFSZ, SIG_IGN);
                  const rlimit none = {0, RLIM_INFINITY};
                  const rlimit enough = {RLIM_INFINITY, RLIM_INFINITY};
                  setrlimit(RLIMIT_FSIZE, &none);
                  restart();
                  if (store("NIC.eth0.MTU", "1300") || value("NIC.eth0.MTU") != "result 6")
                      return 1;
                  setrlimit(RLIMIT_FSIZE, &enough);
                  return store("NIC.eth0.MTU", "1200") ? 0 : 2;
              }),
              0);
    restart();
    EXPECT_EQ(value("NIC.eth0.MTU"), "1200");
}
