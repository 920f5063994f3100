#include "net/ipv6_addresses.h"

#include "api/json_response.h"
#include "api/verifiers.h"
#include "core/console.h"
#include "core/log.h"
#include "core/shell.h"
#include "net/netlink.h"
#include "net/row_name.h"
#include "settings/setting_store.h"

#include <arpa/inet.h>

#include <cstring>

namespace {

constexpr std::uint32_t MINIMUM_PREFIX_LENGTH = 1;
constexpr std::uint32_t MAXIMUM_PREFIX_LENGTH = 128;
constexpr std::uint32_t MAXIMUM_ADDRESSES = 16;
constexpr unsigned char MULTICAST_FIRST_BYTE = 0xFF;

bool add_ipv6_addresses_of(const char* key)
{
    const OwnedStringArray addresses = get_string_array(key);
    bool succeeded = true;
    for (char** address = addresses.get(); address != nullptr && *address != nullptr; ++address)
        succeeded &= add_ipv6_address(*address);
    return succeeded;
}

// An array of "address/length"; null when out of memory.
OwnedJson array_of_addresses(const quarn_netlink_info* record)
{
    OwnedJson array(cJSON_CreateArray());
    for (; array != nullptr && record != nullptr; record = record->next) {
        if (record->text == nullptr || *record->text == '\0')
            continue;
        const OwnedText text(g_strdup_printf("%s/%u", record->text, static_cast<unsigned>(record->value)));
        if (!cJSON_AddItemToArray(array.get(), cJSON_CreateString(text.get())))
            array.reset();
    }
    return array;
}

bool is_same(const in6_addr& a, const in6_addr& b)
{
    return std::memcmp(&a, &b, sizeof a) == 0;
}

// Why eth0 cannot have the address, or null when it can.
const char* find_fault(const in6_addr& address, const in6_addr& localhost, const in6_addr& undefined)
{
    if (is_same(address, localhost))
        return "Cannot use localhost address ::1 for eth0";
    if (is_same(address, undefined))
        return "Cannot use undefined address ::0 for eth0";
    return address.s6_addr[0] == MULTICAST_FIRST_BYTE ? "Cannot use multicast addresses for eth0" : nullptr;
}

} // namespace

bool set_ipv6_addresses()
{
    const ShellCommand flush(
        "for A in $(ip -6 addr show dev eth0 | grep global |  grep -v dynamic | cut -d ' ' -f 6); "
        "do  ip addr del $A dev eth0; done");
    if (exit_status(run_shell(flush)) != 0) {
        log_message(LEVEL_ERROR, "%s: Error flushing global permanent ipv6 addresses on eth0", __func__);
        log_message(LEVEL_DEBUG, "%s:%d: Flush command was '%s'", HERE, flush.text());
    }
    if (!get_bool("[IPv6]Enabled")) {
        log_message(LEVEL_DEBUG, "%s:%d: Not setting any IPv6 addresses because IPv6 is disabled", HERE);
        return true;
    }
    bool succeeded = add_ipv6_addresses_of("[IPv6/Manual]Addresses");
    if (get_bool("[IPv6/Stateful]Enabled") && get_bool("[IPv6/Stateful]UseAddress"))
        succeeded &= add_ipv6_addresses_of("[IPv6/Stateful]Addresses");
    if (!succeeded)
        log_message(LEVEL_INFO, "%s: Failure setting IPv6 addresses", __func__);
    return succeeded;
}

bool add_ipv6_address(const char* text)
{
    const bool has_prefix_length = std::strchr(text, '/') != nullptr;
    if (!has_prefix_length)
        log_message(LEVEL_WARNING, "%s: Manual address missing netmask. Using %s/64", __func__, text);
    const ShellCommand command = has_prefix_length
                                     ? ShellCommand("/sbin/ip -6 addr add %s dev eth0", text)
                                     : ShellCommand("/sbin/ip -6 addr add %s/64 dev eth0", text);
    if (exit_status(run_shell(command)) != 0) {
        log_message(LEVEL_ERROR, "%s: Couldn't add manual address %s", __func__, text);
        return false;
    }
    print_console(__func__, "Added eth0 IPv6 address %s", text);
    return true;
}

bool read_ipv6_linklocal(const SettingDef* row, OwnedJson& value)
{
    const char* name = row_name(row, __func__);
    if (get_bool("[IPv6]Enabled"))
        return read_str_util_value(name, quarn_get_ipv6_linklocal, value);
    value.reset(cJSON_CreateNull());
    if (value == nullptr)
        log_message(LEVEL_CRITICAL, "%s:%d: Out of memory retrieving %s value", HERE, name);
    return value != nullptr;
}

bool read_actual_ipv6_addrs(const SettingDef* row, OwnedJson& value)
{
    const char* name = row_name(row, __func__);
    const bool is_enabled = get_bool("[IPv6]Enabled");
    const NetlinkInfoList list = is_enabled ? quarn_get_ipv6_addrs(LinkLocal::LEFT_OUT) : nullptr;
    value = array_of_addresses(list.get());
    if (value == nullptr)
        log_message(LEVEL_CRITICAL, "%s:%d: Out of memory retrieving %s value", HERE, name);
    return value != nullptr;
}

bool read_stateless_ipv6_addrs(const SettingDef* row, OwnedJson& value)
{
    const char* name = row_name(row, __func__);
    const bool is_enabled = get_bool("[IPv6]Enabled") && get_bool("[IPv6/Stateless]AcceptRA");
    const NetlinkInfoList list = is_enabled ? quarn_get_stateless_ipv6_addrs() : nullptr;
    value = array_of_addresses(list.get());
    if (value == nullptr)
        log_message(LEVEL_CRITICAL, "%s:%d: Out of memory retrieving %s value", HERE, name);
    return value != nullptr;
}

bool verify_unicast6_arr(cJSON* item, JsonResponse* response)
{
    if (!verify_ipv6_cidr_list(item, response, MINIMUM_PREFIX_LENGTH, MAXIMUM_PREFIX_LENGTH,
                               MAXIMUM_ADDRESSES))
        return false;
    in6_addr localhost{};
    in6_addr undefined{};
    if (inet_pton(AF_INET6, "::1", &localhost) != 1)
        log_message(LEVEL_WARNING, "%s: Could not convert '::1' to in6_addr", __func__);
    if (inet_pton(AF_INET6, "::", &undefined) != 1)
        log_message(LEVEL_WARNING, "%s: Could not conver '::' to in6_addr", __func__);
    bool is_valid = true;
    const cJSON* element = nullptr;
    cJSON_ArrayForEach(element, item)
    {
        const OwnedText text(g_strdup(element->valuestring));
        if (text == nullptr) {
            log_message(LEVEL_ERROR, "%s: Malloc failure with g_strdup", __func__);
            json_response_add_error(*response, ERROR_INTERNAL, item->string,
                                    "Malloc failure in duplicating a string");
            return false;
        }
        text.get()[std::strcspn(text.get(), "/")] = '\0';
        in6_addr address{};
        if (inet_pton(AF_INET6, text.get(), &address) != 1) {
            log_message(LEVEL_ERROR, "%s: Address %s failed to inet_pton", __func__, text.get());
            json_response_add_error(*response, ERROR_INTERNAL, item->string,
                                    "Couldn't convert an address for evaluation");
            is_valid = false;
        } else if (const char* fault = find_fault(address, localhost, undefined)) {
            json_response_add_error(*response, ERROR_INVALID_IPV6, item->string, fault);
            is_valid = false;
        }
    }
    return is_valid;
}
