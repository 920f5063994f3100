#include "settings/bootenv.h"

#include "amboot_env.h"
#include "api/json_response.h"
#include "core/ipv4_text.h"
#include "core/log.h"
#include "settings/setting_store.h"

#include <arpa/inet.h>

#include <array>
#include <cstring>
#include <set>
#include <string>

namespace {

// Keys whose last write to the environment failed: they count as changed until a write succeeds, so that a
// client that sends the same value again mends the environment.
std::set<std::string> failed_writes;

// The network-device record: six bytes that are not ours, then address, netmask and default gateway.
constexpr int NETDEV_INDEX = 0;
constexpr std::size_t NETDEV_ADDRESS = 6;
constexpr std::size_t NETDEV_NETMASK = 10;
constexpr std::size_t NETDEV_GATEWAY = 14;

// One open environment, for one get or set.
class Environment {
public:
    Environment()
    {
        if (amboot_env_open(&handle_) != 0)
            handle_ = nullptr;
    }
    ~Environment() { close(); }
    Environment(const Environment&) = delete;
    Environment& operator=(const Environment&) = delete;

    bool is_open() const { return handle_ != nullptr; }
    AmbootEnv* get() const { return handle_; }
    // True when what was set is written.
    bool close() { return handle_ != nullptr && amboot_env_close(std::exchange(handle_, nullptr)) == 0; }

private:
    AmbootEnv* handle_ = nullptr;
};

template <auto get> OwnedText get_flag()
{
    const Environment environment;
    const int flag = environment.is_open() ? get(environment.get()) : -1;
    return OwnedText(flag < 0 ? nullptr : g_strdup(flag != 0 ? "1" : "0"));
}

template <auto set> bool set_flag(const char* text)
{
    Environment environment;
    const bool on = text != nullptr && std::strcmp(text, "1") == 0;
    return environment.is_open() && set(environment.get(), on) == 0 && environment.close();
}

template <auto get> OwnedText get_text()
{
    const Environment environment;
    const char* text = environment.is_open() ? get(environment.get()) : nullptr;
    return OwnedText(text == nullptr || *text == '\0' ? nullptr : g_strdup(text));
}

template <auto set> bool set_text(const char* text)
{
    Environment environment;
    return environment.is_open() && set(environment.get(), text != nullptr ? text : "") == 0 &&
           environment.close();
}

template <std::size_t offset> OwnedText get_address()
{
    const Environment environment;
    const unsigned char* record =
        environment.is_open() ? amboot_env_get_netdev(environment.get(), NETDEV_INDEX) : nullptr;
    in_addr address{};
    if (record != nullptr)
        std::memcpy(&address, record + offset, sizeof address);
    if (address.s_addr == 0)
        return nullptr;
    OwnedText text(static_cast<char*>(g_malloc0(INET_ADDRSTRLEN)));
    inet_ntop(AF_INET, &address, text.get(), INET_ADDRSTRLEN);
    return text;
}

// No text takes the value away: the zero field.
template <std::size_t offset> bool set_address(const char* text)
{
    in_addr address{};
    if (text != nullptr && inet_pton(AF_INET, text, &address) != 1)
        return false;
    Environment environment;
    const unsigned char* record =
        environment.is_open() ? amboot_env_get_netdev(environment.get(), NETDEV_INDEX) : nullptr;
    if (record == nullptr)
        return false;
    std::array<unsigned char, AMBOOT_NETDEV_SIZE> changed{};
    std::memcpy(changed.data(), record, changed.size());
    std::memcpy(changed.data() + offset, &address, sizeof address);
    return amboot_env_set_netdev(environment.get(), NETDEV_INDEX, changed.data()) == 0 && environment.close();
}

bool flag_to_json(const char* text, OwnedJson& value)
{
    if (text[0] != '0' && text[0] != '1')
        return false;
    value.reset(cJSON_CreateBool(text[0] == '1'));
    return value != nullptr;
}

bool flag_to_text(const cJSON* item, OwnedText& text)
{
    if (!cJSON_IsBool(item))
        return false;
    text.reset(g_strdup(cJSON_IsTrue(item) ? "1" : "0"));
    return true;
}

bool string_to_json(const char* text, OwnedJson& value)
{
    value.reset(cJSON_CreateString(text));
    return value != nullptr;
}

bool string_to_text(const cJSON* item, OwnedText& text)
{
    if (!cJSON_IsString(item))
        return false;
    text.reset(g_strdup(item->valuestring));
    return true;
}

// Null takes a manual address away.
bool address_to_text(const cJSON* item, OwnedText& text)
{
    return cJSON_IsNull(item) || string_to_text(item, text);
}

bool netmask_to_json(const char* text, OwnedJson& value)
{
    const unsigned length = netmask_to_prefix(text);
    if (length == 0)
        return false;
    value.reset(cJSON_CreateNumber(length));
    return value != nullptr;
}

bool netmask_to_text(const cJSON* item, OwnedText& text)
{
    if (!cJSON_IsNumber(item))
        return false;
    text = prefix_to_netmask(item->valueint < 0 ? 0 : static_cast<unsigned>(item->valueint));
    return true;
}

// Empty pieces between two blanks are kept: the row's verifier then refuses them.
bool spc_list_to_json(const char* text, OwnedJson& value)
{
    const OwnedStringArray pieces(g_strsplit(text, " ", -1));
    value.reset(cJSON_CreateStringArray(pieces.get(), static_cast<int>(g_strv_length(pieces.get()))));
    return value != nullptr;
}

bool to_spc_list(const cJSON* item, OwnedText& text)
{
    if (!cJSON_IsArray(item))
        return true;
    // Borrowed texts: only the array of pointers is ours.
    const std::unique_ptr<const char*[], Releaser<g_free>> pieces(
        g_try_new0(const char*, static_cast<std::size_t>(cJSON_GetArraySize(item)) + 1));
    if (!pieces) {
        log_message(LEVEL_CRITICAL, "%s:%d: Could not g_malloc0() some small amount of memory", HERE);
        return true;
    }
    std::size_t count = 0;
    for (const cJSON* element = item->child; element != nullptr; element = element->next) {
        if (cJSON_IsString(element))
            pieces[count++] = element->valuestring;
    }
    text.reset(g_strjoinv(" ", const_cast<char**>(pieces.get())));
    return true;
}

} // namespace

constexpr BootenvVariable IPV4_DHCP_ENABLED = {
    "[IPv4/DHCP]Enabled", get_flag<amboot_env_get_vesko_ipv4_dhcp_enable>,
    set_flag<amboot_env_set_vesko_ipv4_dhcp_enable>, flag_to_json, flag_to_text};
constexpr BootenvVariable IPV4_LINK_LOCAL_ENABLED = {
    "[IPv4/LocalLink]Enabled", get_flag<amboot_env_get_vesko_ipv4_link_local_enable>,
    set_flag<amboot_env_set_vesko_ipv4_link_local_enable>, flag_to_json, flag_to_text};
constexpr BootenvVariable IPV4_MANUAL_ADDRESS = {"[IPv4/Manual]Address", get_address<NETDEV_ADDRESS>,
                                                 set_address<NETDEV_ADDRESS>, string_to_json,
                                                 address_to_text};
constexpr BootenvVariable IPV4_MANUAL_NETMASK = {"[IPv4/Manual]Netmask", get_address<NETDEV_NETMASK>,
                                                 set_address<NETDEV_NETMASK>, netmask_to_json,
                                                 netmask_to_text};
constexpr BootenvVariable IPV4_MANUAL_DEFAULT_GATEWAY = {
    "[IPv4/Manual]DefaultGateway", get_address<NETDEV_GATEWAY>, set_address<NETDEV_GATEWAY>, string_to_json,
    address_to_text};
constexpr BootenvVariable IPV6_ENABLED = {"[IPv6]Enabled", get_flag<amboot_env_get_vesko_ipv6_enable>,
                                          set_flag<amboot_env_set_vesko_ipv6_enable>, flag_to_json,
                                          flag_to_text};
constexpr BootenvVariable IPV6_MANUAL_ADDRESSES = {
    "[IPv6/Manual]Addresses", get_text<amboot_env_get_vesko_ipv6_addresses>,
    set_text<amboot_env_set_vesko_ipv6_addresses>, spc_list_to_json, to_spc_list};
constexpr BootenvVariable HOSTNAME_NAME = {"[Hostname]Name", get_text<amboot_env_get_vesko_hostname>,
                                           set_text<amboot_env_set_vesko_hostname>, string_to_json,
                                           string_to_text};

const SettingDef* find_bootenv_row(const BootenvVariable& variable)
{
    return find_setting(variable.key);
}

bool read_bootenv_var(const SettingDef* row, OwnedJson& value, OwnedText (*get)(),
                      bool (*text_to_json)(const char* text, OwnedJson& value))
{
    if (row == nullptr) {
        log_message(LEVEL_ERROR, "%s: Wasn't provided setting object", __func__);
        return false;
    }
    if (get_setting_not_default(row, value))
        return true;
    OwnedJson found;
    if (const OwnedText text = get(); !text) {
        // Kept as it is: log filters in the field know this misspelling.
        log_message(LEVEL_DEBUG, "%s:%d: Couldn't get %s value from boot enviornment.", HERE, row->key);
    } else if (!text_to_json(text.get(), found)) {
        log_message(LEVEL_WARNING, "%s: Couldn't convert %s to JSON", __func__, text.get());
    } else {
        found = with_key(std::move(found), row->key);
        const std::unique_ptr<JsonResponse> scratch = json_response_new();
        if (row->verify != nullptr && !row->verify(found.get(), scratch.get())) {
            log_message(LEVEL_WARNING, "%s: We got %s from boot environment, which didn't validate for %s",
                        __func__, text.get(), row->key);
            found.reset();
        }
    }
    if (!found) {
        const char* default_json = row->default_json != nullptr ? row->default_json : "";
        log_message(LEVEL_DEBUG, "%s:%d: Using default value %s=%s", HERE, row->key, default_json);
        found.reset(cJSON_Parse(default_json));
        if (!found)
            return false;
        found = with_key(std::move(found), row->key);
    }
    if (!save_or_hold_setting(found.get(), Keep::HELD, Unchanged::WRITTEN))
        log_message(LEVEL_WARNING, "%s: Wasn't able to save cache of %s", __func__, row->key);
    value = std::move(found);
    return true;
}

bool save_bootenv_var(const cJSON* item, bool (*set)(const char* text),
                      bool (*json_to_text)(const cJSON* item, OwnedText& text))
{
    if (item == nullptr) {
        log_message(LEVEL_ERROR, "%s: JSON object wasn't provided", __func__);
        return false;
    }
    const std::string key = item->string != nullptr ? item->string : "";
    if (!setting_is_being_changed(item) && !failed_writes.contains(key)) {
        log_message(LEVEL_DEBUG, "%s:%d: %s is not being changed", HERE, key.c_str());
        return true;
    }
    // Stored and held together: a held value shadows the stored one, and what was saved must be what is read
    // next.
    const bool stored = save_or_hold_setting(item, Keep::STORED, Unchanged::WRITTEN);
    if (!save_or_hold_setting(item, Keep::HELD, Unchanged::WRITTEN) || !stored)
        log_message(LEVEL_WARNING, "%s: Wasn't able to save cache of %s", __func__, key.c_str());
    OwnedText text;
    if (!json_to_text(item, text)) {
        log_message(LEVEL_ERROR, "%s: Couldn't convert %s JSON to string for boot environment", __func__,
                    key.c_str());
        return false;
    }
    if (!set(text.get())) {
        failed_writes.insert(key);
        log_message(LEVEL_ERROR, "%s: Could not set boot environment", __func__);
        return false;
    }
    failed_writes.erase(key);
    log_message(LEVEL_DEBUG, "%s:%d: Saved value to boot environment", HERE);
    return true;
}
