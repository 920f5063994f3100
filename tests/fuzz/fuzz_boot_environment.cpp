// fuzz_boot_environment: any key file, or any image of U-Boot's environment, behind the eight rows, and one
// save of a value into it. The first byte picks the kind of environment and which checksums are wrong, the
// second the row that is saved, then the value's text with its length before it, then the environment.
#include "api/get_set.h"
#include "api/json_response.h"
#include "core/owned.h"
#include "settings/bootenv.h"
#include "settings/setting_store.h"
#include "surroundings.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <filesystem>
#include <iterator>
#include <map>

// Every fuzzer has an environment of its own; libuboot's one lock for all of the machine is of no use to it.
extern "C" int flock(int, int) noexcept
{
    return 0;
}

namespace {

constexpr const BootenvVariable* VARIABLES[] = {&IPV4_DHCP_ENABLED,           &IPV4_LINK_LOCAL_ENABLED,
                                                &IPV4_MANUAL_ADDRESS,         &IPV4_MANUAL_NETMASK,
                                                &IPV4_MANUAL_DEFAULT_GATEWAY, &IPV6_ENABLED,
                                                &IPV6_MANUAL_ADDRESSES,       &HOSTNAME_NAME};
constexpr const char* VARIABLE_NAMES[] = {"vesko_ipv4_dhcp_enable", "vesko_ipv4_link_local_enable",
                                          "vesko_ipv6_enable",      "vesko_ipv6_addresses",
                                          "vesko_hostname",         "netdev0"};
constexpr char GET_REQUEST[] =
    R"({"settings":["[IPv4/DHCP]Enabled","[IPv4/LocalLink]Enabled","[IPv4/Manual]Address",)"
    R"("[IPv4/Manual]Netmask","[IPv4/Manual]DefaultGateway","[IPv6]Enabled","[IPv6/Manual]Addresses",)"
    R"("[Hostname]Name"]})";

// Small, so that a few hundred bytes fill it.
constexpr std::size_t ENVIRONMENT_SIZE = 0x200;
constexpr std::size_t CHECKSUM_SIZE = 4;
constexpr std::size_t FLAG_SIZE = 1;

enum Kind { KEY_FILE, ONE_IMAGE, PAIR_OF_IMAGES, ANY_BYTES, KINDS };
constexpr unsigned FIRST_IS_WRONG = 0x10;
constexpr unsigned SECOND_IS_WRONG = 0x20;

using Values = std::array<std::string, std::size(VARIABLES)>;

std::uint32_t crc32(std::string_view bytes)
{
    std::uint32_t sum = 0xffffffff;
    for (const char byte : bytes) {
        sum ^= static_cast<unsigned char>(byte);
        for (int bit = 0; bit < 8; bit++)
            sum = (sum >> 1) ^ ((sum & 1) != 0 ? 0xedb88320 : 0);
    }
    return ~sum;
}

// Checksum and data, the flag byte of a redundant pair between them. U-Boot closes its data with two zero
// bytes, and libuboot 0.3.2 reads on behind data that are not closed.
std::string image_of(std::string data, std::string_view flag, bool is_wrong)
{
    const std::size_t size = ENVIRONMENT_SIZE - CHECKSUM_SIZE - flag.size();
    data.resize(size - 2, '\0');
    data.resize(size, '\0');
    const std::uint32_t sum = crc32(data) ^ (is_wrong ? 1U : 0U);
    std::string image(reinterpret_cast<const char*>(&sum), sizeof sum);
    return image.append(flag).append(data);
}

void lay_down_pair(unsigned shape, Input input)
{
    const std::string first_flag = input.take(FLAG_SIZE);
    const std::string second_flag = input.take(FLAG_SIZE);
    const std::string first = input.take(input.take_number());
    write_scratch_file("uboot.env", image_of(first, first_flag, (shape & FIRST_IS_WRONG) != 0));
    write_scratch_file("second.env",
                       image_of(input.take_rest(), second_flag, (shape & SECOND_IS_WRONG) != 0));
}

void lay_down(unsigned shape, Input input)
{
    empty_scratch();
    const unsigned kind = shape % KINDS;
    if (kind == KEY_FILE)
        return write_scratch_file("boot-environment.conf", input.take_rest());
    const std::string line = ".env 0x0 0x200\n";
    const std::string pair = kind == PAIR_OF_IMAGES ? scratch_path("second") + line : "";
    write_scratch_file("fw_env.config", scratch_path("uboot") + line + pair);
    if (kind == PAIR_OF_IMAGES)
        return lay_down_pair(shape, input);
    const std::string content = input.take_rest();
    write_scratch_file("uboot.env",
                       kind == ANY_BYTES ? content : image_of(content, "", (shape & FIRST_IS_WRONG) != 0));
}

// A daemon that has just started and has nothing but the boot environment.
void start_without_settings()
{
    deinit_setting_storage();
    for (const char* const suffix : {"", "-wal", "-shm", ".backup"})
        std::filesystem::remove(scratch_path("settings.db") + suffix);
    init_setting_storage();
}

std::string printed(const cJSON* value)
{
    const OwnedMallocText text(cJSON_PrintUnformatted(value));
    require(text != nullptr, "a value can be printed");
    return text.get();
}

Values read_all()
{
    Values values;
    for (std::size_t i = 0; i < values.size(); i++) {
        const SettingDef* const row = find_setting(VARIABLES[i]->key);
        OwnedJson value;
        require(read_bootenv_var(row, value, VARIABLES[i]->get, VARIABLES[i]->text_to_json),
                "a row of the boot environment has a value");
        values[i] = printed(value.get());
        const std::unique_ptr<JsonResponse> response = json_response_new();
        value = with_key(std::move(value), row->key);
        require(row->verify == nullptr || values[i] == "null" || row->verify(value.get(), response.get()),
                "what is read could have been set");
    }
    return values;
}

void get_all()
{
    char* text = nullptr;
    require(api_get(GET_REQUEST, &text) != 0, "a get request is answered");
    const OwnedMallocText response(text);
    require_response(response.get());
}

using Variables = std::map<std::string, std::string>;
using OwnedKeyFile = std::unique_ptr<GKeyFile, Releaser<g_key_file_unref>>;

OwnedKeyFile parsed_key_file(const std::string& content)
{
    OwnedKeyFile file(g_key_file_new());
    if (!g_key_file_load_from_data(file.get(), content.data(), content.size(), G_KEY_FILE_NONE, nullptr))
        file.reset();
    return file;
}

Variables variables_of_key_file(const std::string& content)
{
    const OwnedKeyFile file = parsed_key_file(content);
    Variables variables;
    if (file == nullptr)
        return variables;
    const OwnedStringArray groups(g_key_file_get_groups(file.get(), nullptr));
    for (char** group = groups.get(); *group != nullptr; group++) {
        const OwnedStringArray keys(g_key_file_get_keys(file.get(), *group, nullptr, nullptr));
        for (char** key = keys.get(); *key != nullptr; key++) {
            const OwnedText value(g_key_file_get_value(file.get(), *group, *key, nullptr));
            variables[*group == std::string_view("boot_environment") ? *key
                                                                     : *group + ("/" + std::string(*key))] =
                value.get();
        }
    }
    return variables;
}

// A later variable stands for an earlier one of its name, and an empty one takes it away.
Variables variables_of_image(std::string_view image)
{
    Variables variables;
    std::string_view left = image.substr(std::min(CHECKSUM_SIZE, image.size()));
    while (!left.empty() && left.front() != '\0') {
        const std::string_view line = left.substr(0, left.find('\0'));
        left.remove_prefix(std::min(line.size() + 1, left.size()));
        const std::size_t equals = line.find('=');
        if (equals != std::string_view::npos)
            variables[std::string(line.substr(0, equals))] = line.substr(equals + 1);
    }
    std::erase_if(variables, [](const auto& variable) { return variable.second.empty(); });
    return variables;
}

// What stands in the environment beside our own: a camera that loses its boot command starts no more.
Variables other_variables(unsigned shape)
{
    Variables variables;
    if (shape % KINDS == KEY_FILE)
        variables = variables_of_key_file(read_scratch_file("boot-environment.conf"));
    else if (shape % KINDS == ONE_IMAGE)
        variables = variables_of_image(read_scratch_file("uboot.env"));
    for (const char* const name : VARIABLE_NAMES)
        variables.erase(name);
    return variables;
}

bool is_sound_image(const std::string& image, std::size_t data)
{
    std::uint32_t sum = 0;
    if (image.size() < ENVIRONMENT_SIZE)
        return false;
    std::memcpy(&sum, image.data(), sizeof sum);
    return sum == crc32(std::string_view(image).substr(data, ENVIRONMENT_SIZE - data));
}

bool is_sound(unsigned shape)
{
    if (shape % KINDS == KEY_FILE)
        return parsed_key_file(read_scratch_file("boot-environment.conf")) != nullptr;
    if (shape % KINDS != PAIR_OF_IMAGES)
        return is_sound_image(read_scratch_file("uboot.env"), CHECKSUM_SIZE);
    return is_sound_image(read_scratch_file("uboot.env"), CHECKSUM_SIZE + FLAG_SIZE) ||
           is_sound_image(read_scratch_file("second.env"), CHECKSUM_SIZE + FLAG_SIZE);
}

// All of it, byte by byte.
std::string environment_bytes()
{
    return read_scratch_file("boot-environment.conf") + read_scratch_file("uboot.env") +
           read_scratch_file("second.env");
}

// The environment keeps the whole bits of a netmask that came with a fraction.
std::string as_kept(const cJSON* value)
{
    return cJSON_IsNumber(value) ? std::to_string(value->valueint) : printed(value);
}

// An empty name is none.
std::string as_read_back(const std::string& value)
{
    return value == R"("")" ? "null" : value;
}

void save(unsigned shape, std::size_t index, const std::string& text, Values values)
{
    const SettingDef* const row = find_setting(VARIABLES[index]->key);
    OwnedJson value(cJSON_Parse(text.c_str()));
    if (value == nullptr)
        return;
    value = with_key(std::move(value), row->key);
    const std::unique_ptr<JsonResponse> response = json_response_new();
    if (row->verify != nullptr && !row->verify(value.get(), response.get()))
        return;
    const std::string bytes = environment_bytes();
    const bool was_sound = is_sound(shape);
    const Variables others = other_variables(shape);
    if (save_bootenv_var(value.get(), VARIABLES[index]->set, VARIABLES[index]->json_to_text))
        values[index] = as_kept(value.get());
    else
        require(environment_bytes() == bytes, "a save that fails writes nothing");
    require(was_sound || environment_bytes() == bytes, "what cannot be read whole is not written");
    // libuboot writes the types of variables anew, and leaves out a variable that has not the value of its
    // type.
    require(others.contains(".flags") || other_variables(shape) == others,
            "a save leaves the other variables as they were");
    start_without_settings();
    Values after = read_all();
    after[index] = as_read_back(after[index]);
    require(after[index] == as_read_back(values[index]), "a saved value is read, or else the old one");
    values[index] = after[index];
    require(after == values, "a save leaves the other rows as they were");
}

} // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    open_surroundings();
    Input input(data, size);
    const unsigned shape = input.take_byte();
    const std::size_t index = input.take_byte() % std::size(VARIABLES);
    const std::string text = input.take(input.take_byte());
    lay_down(shape, input);
    start_without_settings();
    const Values values = read_all();
    get_all();
    save(shape, index, text, values);
    return 0;
}
