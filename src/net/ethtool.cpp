#include "net/ethtool.h"

#include "api/json_response.h"
#include "api/setting_request.h"
#include "core/log.h"
#include "core/shell.h"
#include "net/external_phy.h"
#include "settings/setting_store.h"
#include "trell_core.h"

#include <linux/sockios.h>
#include <net/if.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include <algorithm>
#include <cstring>
#include <span>
#include <string>

namespace {

constexpr char INTERFACE[] = "eth0";
constexpr char SUPPORTED_MODES[] = "[NIC/eth0]SupportedModes";
constexpr char AUTONEGOTIATION_ENABLED[] = "[NIC/eth0/AutoNegotiated]Enabled";
constexpr char AUTONEGOTIATED_SPEED[] = "[NIC/eth0/AutoNegotiated]LinkSpeed";
constexpr char AUTONEGOTIATED_DUPLEX[] = "[NIC/eth0/AutoNegotiated]FullDuplex";
constexpr char MANUAL_SPEED[] = "[NIC/eth0/Manual]LinkSpeed";
constexpr char MANUAL_DUPLEX[] = "[NIC/eth0/Manual]FullDuplex";

constexpr std::uint32_t EVERY_FULL_DUPLEX_MODE = 0x2A;
constexpr std::uint32_t MODES_ABOVE_10 = 0x3C;
constexpr std::uint32_t MODES_ABOVE_100 = 0x30;
constexpr std::uint32_t PAUSE_MODES = 0x6000;

// kbit/s, for links of 1000 and of 100 Mb/s.
constexpr double RATE_LIMIT_OF_1000 = 240000;
constexpr double RATE_LIMIT_OF_100 = 80000;

// Some drivers take a fixed mode only after they have been through another; once a process is enough.
bool ethtool_workaround_done = false;

bool ethtool_ioctl(int socket, ethtool_cmd& command)
{
    ifreq request{};
    std::strncpy(request.ifr_name, INTERFACE, sizeof request.ifr_name - 1);
    request.ifr_data = reinterpret_cast<char*>(&command);
    return ioctl(socket, SIOCETHTOOL, &request) == 0;
}

struct SpeedMode {
    std::uint32_t mask;
    std::uint32_t speed;
};
constexpr SpeedMode HALF_DUPLEX_MODES[] = {{0x1, 10}, {0x4, 100}, {0x10, 1000}};
constexpr SpeedMode FULL_DUPLEX_MODES[] = {{0x2, 10}, {0x8, 100}, {0x20, 1000}, {0x1000, 10000}};

LinkSpeeds speeds_of_mask(std::uint32_t supported, std::span<const SpeedMode> modes)
{
    LinkSpeeds speeds{};
    std::size_t count = 0;
    for (const SpeedMode& mode : modes) {
        if (supported & mode.mask)
            speeds[count++] = mode.speed;
    }
    return speeds;
}

LinkSpeeds speeds_of_json(const cJSON* list)
{
    LinkSpeeds speeds{};
    std::size_t count = 0;
    const cJSON* element = cJSON_IsArray(list) ? list->child : nullptr;
    for (; element != nullptr && count < speeds.size(); element = element->next)
        speeds[count++] = cJSON_IsNumber(element) ? static_cast<std::uint32_t>(element->valueint) : 0;
    return speeds;
}

void add_speeds(cJSON* object, const char* name, const LinkSpeeds& speeds)
{
    cJSON* list = cJSON_AddArrayToObject(object, name);
    for (const std::uint32_t speed : speeds) {
        if (speed != 0)
            cJSON_AddItemToArray(list, cJSON_CreateNumber(speed));
    }
}

bool is_the_default(const SettingDef* row, const cJSON* value)
{
    const OwnedJson default_value(cJSON_Parse(row->default_json));
    return cJSON_Compare(default_value.get(), value, true);
}

bool take_cached_speeds(EthtoolData& data)
{
    const SettingDef* row = find_setting(SUPPORTED_MODES);
    OwnedJson cached;
    if (!get_setting_not_default(row, cached) || is_the_default(row, cached.get()))
        return false;
    const cJSON* full = cJSON_GetObjectItemCaseSensitive(cached.get(), "full_duplex");
    if (!cJSON_IsArray(full))
        return false;
    data.full_duplex_speeds = speeds_of_json(full);
    data.half_duplex_speeds = speeds_of_json(cJSON_GetObjectItemCaseSensitive(cached.get(), "half_duplex"));
    return true;
}

void cache_speeds(const EthtoolData& data)
{
    OwnedJson modes(cJSON_CreateObject());
    add_speeds(modes.get(), "full_duplex", data.full_duplex_speeds);
    add_speeds(modes.get(), "half_duplex", data.half_duplex_speeds);
    save_setting(with_key(std::move(modes), SUPPORTED_MODES).get());
}

// The stored value stands in where the kernel does not answer.
bool read_stored_instead(const SettingDef* row, OwnedJson& value, const char* reader)
{
    log_message(LEVEL_WARNING,
                "%s: Could not get valid ethtool data for %s, using ubrix-setting value instead", reader,
                row->key);
    if (read_setting(row, value))
        return true;
    log_message(LEVEL_ERROR, "%s: Failure getting %s from trell-settings", reader, row->key);
    return false;
}

bool is_null_row(const SettingDef* row, const char* reader)
{
    if (row == nullptr)
        log_message(LEVEL_ERROR, "%s: Null setting object", reader);
    return row == nullptr;
}

struct ConfiguredMode {
    bool autonegotiate = false;
    int speed = 0;
    bool full_duplex = false;
};

bool pause_frames_are_disabled()
{
    TrellConfiguration* configuration = nullptr;
    if (trell_core_configuration_init("quarn", &configuration) != 0)
        return false;
    bool disabled = false;
    if (trell_core_configuration_get_bool_value(configuration, "enable_disable_pause_frame", &disabled) != 0)
        disabled = false;
    trell_core_configuration_deinit(configuration);
    return disabled;
}

void run_workaround()
{
    ethtool_workaround_done = true;
    run_shell(ShellCommand("/usr/sbin/ethtool -s eth0 autoneg off speed 10 duplex full"));
    run_shell(ShellCommand("/usr/sbin/ethtool -s eth0 autoneg on speed 100 duplex full"));
}

std::uint32_t advertised_modes(std::uint32_t supported, const ConfiguredMode& mode)
{
    std::uint32_t advertised = supported;
    if (!mode.full_duplex)
        advertised &= ~EVERY_FULL_DUPLEX_MODE;
    if (mode.speed <= SPEED_10)
        advertised &= ~MODES_ABOVE_10;
    else if (mode.speed <= SPEED_100)
        advertised &= ~MODES_ABOVE_100;
    if (pause_frames_are_disabled())
        advertised &= ~PAUSE_MODES;
    return advertised;
}

// Reads flag, speed and duplex, in this order; the first of a wrong type is reported, and those after it with
// it. The lines name the manual keys, whichever were read: log filters in the field know them so.
bool ethtool_set_data(ConfiguredMode& mode)
{
    const OwnedJson enabled = get_json_value(AUTONEGOTIATION_ENABLED);
    mode.autonegotiate = cJSON_IsTrue(enabled.get());
    const OwnedJson speed = get_json_value(mode.autonegotiate ? AUTONEGOTIATED_SPEED : MANUAL_SPEED);
    const OwnedJson duplex = get_json_value(mode.autonegotiate ? AUTONEGOTIATED_DUPLEX : MANUAL_DUPLEX);
    bool valid = cJSON_IsBool(enabled.get());
    if (!valid)
        log_message(LEVEL_ERROR, "%s: Value for %s was not a boolean", __func__, AUTONEGOTIATION_ENABLED);
    valid = valid && cJSON_IsNumber(speed.get());
    if (!valid)
        log_message(LEVEL_ERROR, "%s: Value for %s was not a number", __func__, MANUAL_SPEED);
    valid = valid && cJSON_IsBool(duplex.get());
    if (!valid) {
        log_message(LEVEL_ERROR, "%s: Value for %s was not a boolean", __func__, MANUAL_DUPLEX);
        return false;
    }
    mode.speed = speed->valueint;
    mode.full_duplex = cJSON_IsTrue(duplex.get());
    return true;
}

// False when the mode could not be set; `written` is what the kernel was given, or empty when there was no
// link to set.
bool ethtool_set_data(ethtool_cmd& written, bool& was_written)
{
    if (!ethtool_get_data().valid) {
        log_message(LEVEL_ERROR, "%s: Not setting ethtool because could not get existing", __func__);
        return true;
    }
    ConfiguredMode mode;
    if (!ethtool_set_data(mode))
        return false;
    const bool readable = ethtool_ioctl_get_cmd(written);
    if (!mode.autonegotiate && !ethtool_workaround_done) {
        log_message(LEVEL_NOTICE, "%s: Running ethtool workaround.", __func__);
        run_workaround();
    }
    if (!readable)
        return false;
    const std::uint32_t advertised = advertised_modes(written.supported, mode);
    if (!mode.autonegotiate)
        log_message(LEVEL_INFO, "%s: Link not using autonegotiation with speed %d", __func__, mode.speed);
    else if (advertised == written.supported)
        log_message(LEVEL_DEBUG, "%s:%d: Link set to use full autonegotiation", HERE);
    else
        log_message(LEVEL_NOTICE, "%s: Link set to use autonegotiation with reduced capabilities 0x%08X",
                    __func__, advertised);
    written.advertising = mode.autonegotiate ? advertised : written.supported;
    written.autoneg = mode.autonegotiate ? AUTONEG_ENABLE : AUTONEG_DISABLE;
    written.duplex = mode.full_duplex ? DUPLEX_FULL : DUPLEX_HALF;
    ethtool_cmd_speed_set(&written, static_cast<std::uint32_t>(mode.speed));
    was_written = ethtool_ioctl_set_cmd(written);
    return was_written;
}

} // namespace

bool ethtool_ioctl_get_cmd(ethtool_cmd& command)
{
    command = {};
    command.cmd = ETHTOOL_GSET;
    const OwnedDescriptor socket(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    if (!socket.is_open()) {
        log_message(LEVEL_ERROR, "%s: Could not open AF_INET socket %d", __func__, socket.get());
        return false;
    }
    if (!ethtool_ioctl(socket.get(), command)) {
        log_message(LEVEL_ERROR, "%s: ioctl failure for %s AF_INET socket with ETHTOOL_GSET", __func__,
                    INTERFACE);
        return false;
    }
    return true;
}

bool ethtool_ioctl_set_cmd(ethtool_cmd command)
{
    command.cmd = ETHTOOL_SSET;
    const OwnedDescriptor socket(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    if (!socket.is_open()) {
        log_message(LEVEL_ERROR, "%s: Could not open AF_INET socket", __func__);
        return false;
    }
    if (!ethtool_ioctl(socket.get(), command)) {
        log_message(LEVEL_ERROR, "%s: ioctl failure on AF_INET socket with ETHTOOL_SSET", __func__);
        return false;
    }
    return true;
}

EthtoolData ethtool_get_data()
{
    EthtoolData data;
    ethtool_cmd command;
    data.valid = ethtool_ioctl_get_cmd(command);
    if (!data.valid)
        return data;
    data.autoneg = command.autoneg == AUTONEG_ENABLE;
    data.full_duplex = command.duplex == DUPLEX_FULL;
    data.speed = ethtool_cmd_speed(&command);
    if (take_cached_speeds(data))
        return data;
    log_message(LEVEL_DEBUG, "%s:%d: Ethtool capabilities cache miss", HERE);
    data.half_duplex_speeds = speeds_of_mask(command.supported, HALF_DUPLEX_MODES);
    data.full_duplex_speeds = speeds_of_mask(command.supported, FULL_DUPLEX_MODES);
    cache_speeds(data);
    return data;
}

bool read_duplex_mode(const SettingDef* row, OwnedJson& value)
{
    if (is_null_row(row, __func__))
        return false;
    const EthtoolData data = ethtool_get_data();
    if (!data.valid)
        return read_stored_instead(row, value, __func__);
    value.reset(cJSON_CreateBool(data.full_duplex));
    return value != nullptr;
}

bool read_link_speed(const SettingDef* row, OwnedJson& value)
{
    if (is_null_row(row, __func__))
        return false;
    const EthtoolData data = ethtool_get_data();
    if (!data.valid)
        return read_stored_instead(row, value, __func__);
    value.reset(cJSON_CreateNumber(data.speed));
    return value != nullptr;
}

bool read_autoneg(const SettingDef* row, OwnedJson& value)
{
    if (is_null_row(row, __func__))
        return false;
    const EthtoolData data = ethtool_get_data();
    if (data.valid)
        value.reset(cJSON_CreateBool(data.autoneg));
    return value != nullptr;
}

bool read_supported_speed(const SettingDef* row, OwnedJson& value)
{
    if (is_null_row(row, __func__))
        return false;
    const EthtoolData data = ethtool_get_data();
    const std::uint32_t largest = std::ranges::max(data.full_duplex_speeds);
    if (data.valid && largest != 0)
        value.reset(cJSON_CreateNumber(largest));
    return value != nullptr;
}

bool save_link_speed(const cJSON* item)
{
    if (item == nullptr)
        return false;
    const bool is_new = static_cast<std::uint32_t>(item->valueint) != ethtool_get_data().speed;
    if (is_new && (item->valueint == SPEED_1000 || item->valueint == SPEED_100)) {
        const double limit = item->valueint == SPEED_1000 ? RATE_LIMIT_OF_1000 : RATE_LIMIT_OF_100;
        save_setting(with_key(OwnedJson(cJSON_CreateNumber(limit)), "[TrafficShaping]AvgRateLimit").get());
    }
    return save_setting(item);
}

bool verify_group_eth0_mode(SettingRequest* request, JsonResponse* response)
{
    if (response == nullptr) {
        log_message(LEVEL_ERROR, "%s: Null request during eth0 mode verification", __func__);
        return false;
    }
    if (request == nullptr) {
        json_response_add_error(*response, ERROR_INTERNAL, nullptr,
                                "Null request during eth0 mode verification");
        return false;
    }
    const cJSON* duplex = json_request_find(*request, MANUAL_DUPLEX);
    const cJSON* speed = json_request_find(*request, MANUAL_SPEED);
    if (duplex == nullptr && speed == nullptr)
        return true;
    const EthtoolData data = ethtool_get_data();
    const bool proposed_full = duplex != nullptr ? cJSON_IsTrue(duplex) : data.full_duplex;
    const std::uint32_t proposed_speed =
        speed != nullptr ? static_cast<std::uint32_t>(speed->valueint) : data.speed;
    const LinkSpeeds& speeds = proposed_full ? data.full_duplex_speeds : data.half_duplex_speeds;
    const auto end = std::ranges::find(speeds, 0U);
    if (std::find(speeds.begin(), end, proposed_speed) != end)
        return true;
    for (const char* key : {MANUAL_DUPLEX, MANUAL_SPEED})
        json_response_add_error(*response, ERROR_UNSUPPORTED_COMBINATION, key,
                                "The duplex mode and link speed for eth0 are unsupported");
    return false;
}

bool apply_ethtool()
{
    ethtool_cmd written{};
    bool was_written = false;
    if (!ethtool_set_data(written, was_written))
        return false;
    return !was_written || ethtool_set_data_external_phys(written);
}
