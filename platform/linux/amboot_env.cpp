#include "amboot_env.h"

#include "files.h"
#include "platform_log.h"

// libuboot.h uses size_t without declaring it.
#include <fcntl.h>
#include <libuboot.h>
#include <stddef.h>
#include <sys/file.h>
#include <sys/stat.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <thread>

namespace {

using platform::GlibText;
using platform::KeyFile;

constexpr char KEY_FILE_GROUP[] = "boot_environment";
constexpr char LOCK_FILE[] = "/var/lock/fw_printenv.lock";
constexpr int LOCK_ATTEMPTS = 20;
constexpr std::chrono::milliseconds LOCK_PAUSE(50);

// libuboot keeps its lock after a failed open until it is closed, and its next open would then wait for ever.
void release_uboot(uboot_ctx* context)
{
    libuboot_close(context);
    libuboot_exit(context);
}

using UbootContext = std::unique_ptr<uboot_ctx, platform::Release<release_uboot>>;
using Record = std::array<unsigned char, AMBOOT_NETDEV_SIZE>;

} // namespace

// One of the two is there: U-Boot's own environment or the key file in its place.
struct AmbootEnv {
    UbootContext uboot;
    KeyFile key_file;
    // What was set to another value than it had; nothing takes the variable away.
    std::map<std::string, std::optional<std::string>> changes;
    std::string handed_out;
    Record record = {};
};

namespace {

std::string fw_env_config_path()
{
    const char* const path = std::getenv("QUARN_FW_ENV_CONFIG");
    return path != nullptr ? path : "/etc/fw_env.config";
}

std::string key_file_path()
{
    return platform::state_directory() + "/boot-environment.conf";
}

// libuboot waits for its lock without a bound, which would stop the daemon for as long as another program
// holds it.
bool lock_is_free()
{
    const platform::Descriptor lock(open(LOCK_FILE, O_RDONLY | O_CLOEXEC));
    if (!lock.is_open())
        return true;
    for (int attempt = 0; attempt < LOCK_ATTEMPTS; attempt++) {
        if (flock(lock.get(), LOCK_EX | LOCK_NB) == 0)
            return true;
        std::this_thread::sleep_for(LOCK_PAUSE);
    }
    return false;
}

UbootContext open_uboot(const std::string& config)
{
    if (!lock_is_free()) {
        platform_log(PRIORITY_ERROR, "%s: the boot environment is locked by another program", __func__);
        return nullptr;
    }
    uboot_ctx* initialized = nullptr;
    if (libuboot_initialize(&initialized, nullptr) != 0)
        return nullptr;
    UbootContext context(initialized);
    int result = libuboot_read_config(context.get(), config.c_str());
    if (result == 0)
        result = libuboot_open(context.get());
    if (result == 0)
        return context;
    // Of an environment with a bad checksum libuboot would store an empty one.
    platform_log(PRIORITY_ERROR, "%s: the boot environment of %s cannot be read: %d", __func__,
                 config.c_str(), result);
    return nullptr;
}

KeyFile open_key_file()
{
    KeyFile file(g_key_file_new());
    platform::GlibError error;
    if (g_key_file_load_from_file(file.get(), key_file_path().c_str(), G_KEY_FILE_KEEP_COMMENTS,
                                  error.out()) != 0 ||
        error.matches(G_FILE_ERROR, G_FILE_ERROR_NOENT))
        return file;
    platform_log(PRIORITY_ERROR, "%s: %s cannot be read: %s", __func__, key_file_path().c_str(),
                 error.text());
    return nullptr;
}

std::optional<std::string> stored_value(const AmbootEnv& environment, const char* name)
{
    if (environment.uboot) {
        const platform::MallocText text(libuboot_get_env(environment.uboot.get(), name));
        return text ? std::optional<std::string>(text.get()) : std::nullopt;
    }
    const GlibText text(g_key_file_get_string(environment.key_file.get(), KEY_FILE_GROUP, name, nullptr));
    return text ? std::optional<std::string>(text.get()) : std::nullopt;
}

std::optional<std::string> value_of(const AmbootEnv& environment, const char* name)
{
    const auto change = environment.changes.find(name);
    return change != environment.changes.end() ? change->second : stored_value(environment, name);
}

// Both kinds of environment hold text; what is not would not be read again.
int set_value(AmbootEnv& environment, const char* name, std::string_view text)
{
    if (g_utf8_validate(text.data(), static_cast<gssize>(text.size()), nullptr) == 0)
        return 1;
    const auto value = text.empty() ? std::nullopt : std::optional<std::string>(text);
    if (value != stored_value(environment, name))
        environment.changes[name] = value;
    else
        environment.changes.erase(name);
    return 0;
}

// The size that the configuration gives, or 0.
std::size_t environment_size(const std::string& config)
{
    const platform::File file(std::fopen(config.c_str(), "re"));
    std::size_t size = 0;
    char line[512];
    while (file && std::fgets(line, sizeof line, file.get()) != nullptr) {
        if (line[0] != '#' && std::sscanf(line, "%*s %*i %zx", &size) == 1)
            return size;
    }
    return 0;
}

// Of an environment that does not fit libuboot would store nothing either, but lose its buffer.
bool fits(uboot_ctx* context)
{
    // The checksum, the flag byte of a redundant pair and the closing zero byte.
    std::size_t used = 4 + 1 + 1;
    for (void* entry = libuboot_iterator(context, nullptr); entry != nullptr;
         entry = libuboot_iterator(context, entry))
        used += std::strlen(libuboot_getname(entry)) + std::strlen(libuboot_getvalue(entry)) + 2;
    const std::size_t size = environment_size(fw_env_config_path());
    return size == 0 || used <= size;
}

int write_uboot(AmbootEnv& environment)
{
    for (const auto& [name, value] : environment.changes) {
        const int result =
            libuboot_set_env(environment.uboot.get(), name.c_str(), value ? value->c_str() : nullptr);
        if (result != 0) {
            platform_log(PRIORITY_ERROR, "%s: %s of the boot environment cannot be set: %d", __func__,
                         name.c_str(), result);
            return 1;
        }
    }
    if (!fits(environment.uboot.get())) {
        platform_log(PRIORITY_ERROR, "%s: the boot environment has no room for this", __func__);
        return 1;
    }
    const int result = libuboot_env_store(environment.uboot.get());
    if (result != 0)
        platform_log(PRIORITY_ERROR, "%s: the boot environment cannot be written: %d", __func__, result);
    return result;
}

int write_key_file(AmbootEnv& environment)
{
    for (const auto& [name, value] : environment.changes) {
        if (value)
            g_key_file_set_string(environment.key_file.get(), KEY_FILE_GROUP, name.c_str(), value->c_str());
        else
            g_key_file_remove_key(environment.key_file.get(), KEY_FILE_GROUP, name.c_str(), nullptr);
    }
    gsize size = 0;
    const GlibText text(g_key_file_to_data(environment.key_file.get(), &size, nullptr));
    if (platform::replace_file(key_file_path(), {text.get(), size}))
        return 0;
    platform_log(PRIORITY_ERROR, "%s: %s cannot be written: %s", __func__, key_file_path().c_str(),
                 std::strerror(errno));
    return 1;
}

int get_flag(const AmbootEnv& environment, const char* name)
{
    const std::optional<std::string> value = value_of(environment, name);
    return value == "0" ? 0 : value == "1" ? 1 : -1;
}

const char* get_text(AmbootEnv& environment, const char* name)
{
    const std::optional<std::string> value = value_of(environment, name);
    if (!value)
        return nullptr;
    environment.handed_out = *value;
    return environment.handed_out.c_str();
}

} // namespace

int amboot_env_open(AmbootEnv** environment)
{
    const std::string config = fw_env_config_path();
    auto opened = std::make_unique<AmbootEnv>();
    struct stat status = {};
    if (stat(config.c_str(), &status) != 0 && errno == ENOENT)
        opened->key_file = open_key_file();
    else
        opened->uboot = open_uboot(config);
    if (!opened->uboot && !opened->key_file)
        return 1;
    *environment = opened.release();
    return 0;
}

int amboot_env_close(AmbootEnv* environment)
{
    const std::unique_ptr<AmbootEnv> closing(environment);
    if (closing->changes.empty())
        return 0;
    return closing->uboot ? write_uboot(*closing) : write_key_file(*closing);
}

const unsigned char* amboot_env_get_netdev(AmbootEnv* environment, int index)
{
    if (index != 0)
        return nullptr;
    environment->record.fill(0);
    const std::optional<std::string> digits = value_of(*environment, "netdev0");
    if (!digits)
        return environment->record.data();
    if (digits->size() != std::size_t{2} * AMBOOT_NETDEV_SIZE)
        return nullptr;
    for (std::size_t i = 0; i < digits->size(); i++) {
        const int nibble = g_ascii_xdigit_value((*digits)[i]);
        if (nibble < 0)
            return nullptr;
        unsigned char& byte = environment->record[i / 2];
        byte = static_cast<unsigned char>(byte << 4 | nibble);
    }
    return environment->record.data();
}

int amboot_env_set_netdev(AmbootEnv* environment, int index, const unsigned char* record)
{
    static constexpr char HEXADECIMAL[] = "0123456789abcdef";
    if (index != 0)
        return 1;
    std::string digits;
    for (int i = 0; i < AMBOOT_NETDEV_SIZE; i++)
        digits.append(1, HEXADECIMAL[record[i] >> 4]).append(1, HEXADECIMAL[record[i] & 0xf]);
    // A record that is there in capital digits, or never was and stays all zero, is no change.
    const unsigned char* const current = amboot_env_get_netdev(environment, index);
    if (current != nullptr && std::memcmp(current, record, AMBOOT_NETDEV_SIZE) == 0)
        return 0;
    return set_value(*environment, "netdev0", digits);
}

int amboot_env_get_vesko_ipv4_dhcp_enable(AmbootEnv* environment)
{
    return get_flag(*environment, "vesko_ipv4_dhcp_enable");
}

int amboot_env_set_vesko_ipv4_dhcp_enable(AmbootEnv* environment, bool on)
{
    return set_value(*environment, "vesko_ipv4_dhcp_enable", on ? "1" : "0");
}

int amboot_env_get_vesko_ipv4_link_local_enable(AmbootEnv* environment)
{
    return get_flag(*environment, "vesko_ipv4_link_local_enable");
}

int amboot_env_set_vesko_ipv4_link_local_enable(AmbootEnv* environment, bool on)
{
    return set_value(*environment, "vesko_ipv4_link_local_enable", on ? "1" : "0");
}

int amboot_env_get_vesko_ipv6_enable(AmbootEnv* environment)
{
    return get_flag(*environment, "vesko_ipv6_enable");
}

int amboot_env_set_vesko_ipv6_enable(AmbootEnv* environment, bool on)
{
    return set_value(*environment, "vesko_ipv6_enable", on ? "1" : "0");
}

const char* amboot_env_get_vesko_ipv6_addresses(AmbootEnv* environment)
{
    return get_text(*environment, "vesko_ipv6_addresses");
}

int amboot_env_set_vesko_ipv6_addresses(AmbootEnv* environment, const char* addresses)
{
    return set_value(*environment, "vesko_ipv6_addresses", addresses);
}

const char* amboot_env_get_vesko_hostname(AmbootEnv* environment)
{
    return get_text(*environment, "vesko_hostname");
}

int amboot_env_set_vesko_hostname(AmbootEnv* environment, const char* hostname)
{
    return set_value(*environment, "vesko_hostname", hostname);
}
