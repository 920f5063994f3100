// fuzz_settings_database: a settings database, its copy and its write-ahead log in any state that a damaged
// disk may leave them in. The first byte picks the state of each and how the daemon ends, the second the
// value that is saved; then come the three files.
#include "core/log.h"
#include "settings/setting_store.h"
#include "surroundings.h"
#include "trell_core.h"

#include <filesystem>
#include <string>
#include <vector>

namespace {

enum State { MISSING, ANY_BYTES, OVERWRITTEN, OTHER_ROWS, STATES };

constexpr unsigned KILLED = 0x40;
constexpr unsigned MINIMUM_MTU = 1200;
constexpr char MTU_KEY[] = "[NIC/eth0]MTU";
constexpr char SERVERS_KEY[] = "[DNS/Manual]Servers";
constexpr char SERVERS[] = R"(["192.0.2.1","192.0.2.2"])";
constexpr std::size_t MAX_ROWS = 8;

struct SoundFiles {
    std::string database;
    std::string write_ahead_log;
};

struct Row {
    std::string key;
    std::string text;
};

void write_rows(TrellSettings* settings, const std::vector<Row>& rows)
{
    for (const Row& row : rows)
        require(trell_core_settings_set_json_value(settings, row.key.c_str(), row.text.c_str()) == 0,
                "a sound store takes every row");
    require(trell_core_settings_commit(settings) == 0, "a sound store takes every row");
}

std::string sound_database(const std::vector<Row>& rows)
{
    empty_scratch();
    TrellSettings* settings = nullptr;
    trell_core_settings_init("quarn", &settings);
    write_rows(settings, rows);
    trell_core_settings_deinit(settings);
    return read_scratch_file("settings.db");
}

// As a killed daemon leaves them: the last change stands in the log alone.
SoundFiles files_after_kill()
{
    sound_database({{"NIC.eth0.MTU", "1400"},
                    {"IPv4.DHCP.Enabled", "false"},
                    {"Hostname.Name", R"("camera-1")"},
                    {"DNS.Manual.Servers", SERVERS}});
    TrellSettings* settings = nullptr;
    trell_core_settings_init("quarn", &settings);
    write_rows(settings, {{"NIC.eth0.MTU", "1280"}});
    SoundFiles files{read_scratch_file("settings.db"), read_scratch_file("settings.db-wal")};
    trell_core_settings_deinit(settings);
    require(files.database.size() > 4096 && !files.write_ahead_log.empty(), "there is a log");
    return files;
}

// The file cut to a size (0: not at all), then bytes put at offsets.
std::string overwritten(std::string file, Input& input)
{
    const std::size_t size = input.take_number();
    if (size != 0 && size < file.size())
        file.resize(size);
    for (std::size_t patches = input.take_byte() % 16; patches > 0 && !file.empty(); patches--) {
        const std::size_t offset = input.take_number() % file.size();
        const std::string bytes = input.take(input.take_byte() % 32);
        file.replace(offset, bytes.size(), bytes);
    }
    return file;
}

std::size_t row_count()
{
    std::size_t count = 0;
    while (SETTING_TABLE[count].key != nullptr)
        count++;
    return count;
}

// Any texts as values of known keys.
std::vector<Row> take_rows(Input& input)
{
    static const std::size_t count = row_count();
    std::vector<Row> rows;
    for (std::size_t left = input.take_byte() % MAX_ROWS; left > 0; left--) {
        OwnedText key;
        require(get_trell_settings_key(SETTING_TABLE[input.take_byte() % count].key, key), "a key is a key");
        rows.push_back({key.get(), input.take(input.take_byte()).c_str()});
    }
    return rows;
}

std::string take_file(unsigned state, const std::string& sound, Input& input)
{
    switch (state % STATES) {
    case ANY_BYTES:
        return input.take(input.take_number());
    case OVERWRITTEN:
        return overwritten(sound, input);
    case OTHER_ROWS:
        return sound_database(take_rows(input));
    default:
        return "";
    }
}

// The database as it lies there.
std::string lay_down(unsigned states, Input& input)
{
    static const SoundFiles sound = files_after_kill();
    const std::string database = take_file(states, sound.database, input);
    const std::string copy = take_file(states >> 2, sound.database, input);
    const std::string log = take_file(states >> 4, sound.write_ahead_log, input);
    empty_scratch();
    // An empty file is another case than none.
    if (states % STATES != MISSING)
        write_scratch_file("settings.db", database);
    if ((states >> 2) % STATES != MISSING)
        write_scratch_file("settings.db.backup", copy);
    if ((states >> 4) % STATES != MISSING)
        write_scratch_file("settings.db-wal", log);
    return database;
}

std::string printed(const cJSON* value)
{
    const OwnedMallocText text(cJSON_PrintUnformatted(value));
    require(value == nullptr || text != nullptr, "a value can be printed");
    return text != nullptr ? text.get() : "";
}

// The values of the rows that come from the store; the others are read all the same.
std::vector<Row> read_all()
{
    std::vector<Row> values;
    for (const SettingDef* row = SETTING_TABLE; row->key != nullptr; ++row) {
        OwnedJson value;
        const bool found = row->read != nullptr && row->read(row, value);
        require(found == (value != nullptr), "a reader that succeeds has a value");
        if (row->read == read_setting)
            values.push_back({row->key, printed(value.get())});
    }
    return values;
}

bool is_set_aside(const std::string& content)
{
    for (const auto& entry : std::filesystem::directory_iterator(scratch_path(""))) {
        const std::string name = entry.path().filename();
        if (name.starts_with("settings.db.damaged-") && read_scratch_file(name) == content)
            return true;
    }
    return false;
}

// Damage alone makes no value that was never stored.
void test_values(unsigned states, const std::vector<Row>& values)
{
    for (const unsigned state : {states % STATES, (states >> 2) % STATES, (states >> 4) % STATES}) {
        if (state != MISSING && state != OVERWRITTEN)
            return;
    }
    for (const Row& row : values) {
        if (row.key == MTU_KEY)
            require(row.text == "1500" || row.text == "1400" || row.text == "1280", "an MTU was stored");
        if (row.key == SERVERS_KEY)
            require(row.text == "[]" || row.text == SERVERS, "servers were stored");
    }
}

// The daemon ends, or it is killed: then nothing is brought to its end.
void stop(bool orderly)
{
    const std::string database = read_scratch_file("settings.db");
    const std::string log = read_scratch_file("settings.db-wal");
    deinit_setting_storage();
    if (orderly)
        return;
    empty_scratch();
    write_scratch_file("settings.db", database);
    write_scratch_file("settings.db-wal", log);
}

} // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    open_surroundings();
    // That eth0 is missing would be logged for every input, at the highest level.
    stop_logging();
    deinit_setting_storage();
    Input input(data, size);
    const unsigned states = input.take_byte();
    const std::string mtu = std::to_string(MINIMUM_MTU + input.take_byte());
    const std::string database = lay_down(states, input);

    init_setting_storage();
    std::vector<Row> values = read_all();
    test_values(states, values);
    const bool is_no_database = states % STATES == ANY_BYTES && !database.starts_with("SQLite format 3");
    require(!is_no_database || (states >> 4) % STATES != MISSING || is_set_aside(database),
            "what is no database is set aside");
    const OwnedJson proposed = with_key(OwnedJson(cJSON_Parse(mtu.c_str())), MTU_KEY);
    const bool saved = set_json_value(proposed.get());
    stop(!saved || (states & KILLED) == 0);
    init_setting_storage();
    const std::vector<Row> after = read_all();
    for (std::size_t i = 0; i < values.size(); i++) {
        if (values[i].key == MTU_KEY && saved)
            values[i].text = mtu;
        require(after[i].text == values[i].text, "a saved value stays, and so do the others");
    }
    return 0;
}
