#include "net/routes.h"

#include "core/console.h"
#include "core/log.h"
#include "core/shell.h"
#include "net/netlink.h"
#include "net/row_name.h"
#include "settings/setting_store.h"

namespace {

constexpr char DEFAULT_GATEWAY_KEY[] = "[IPv4/Manual]DefaultGateway";
constexpr char GATEWAYS_KEY[] = "[IPv4/Manual]Gateways";

void remove_ipv4_routes()
{
    const int status = exit_status(run_shell(
        ShellCommand("while /sbin/route del default gw 0.0.0.0 dev eth0 2>/dev/null ; do : ; done")));
    if (status != 0)
        log_message(LEVEL_WARNING, "%s: System call to remove gateways failed. %d", __func__, status);
    else
        log_message(LEVEL_DEBUG, "%s:%d: Removed all IPv4 routes", HERE);
}

bool add_ipv4_gateway(const char* gateway)
{
    const ShellCommand command("/sbin/route add default gw %s eth0 2>/dev/null", gateway);
    if (exit_status(run_shell(command)) != 0) {
        log_message(LEVEL_WARNING, "%s: System call to add %s gateway failed", __func__, gateway);
        return false;
    }
    log_message(LEVEL_INFO, "%s: Added %s as a gateway with '%s'", __func__, gateway, command.text());
    print_console(__func__, "Added %s as IPv4 default gateway", gateway);
    return true;
}

enum class Origin { ANY, LEARNED };

// The texts of the kernel's IPv6 gateways; null when out of memory.
OwnedJson array_of_gateways(Origin origin)
{
    const NetlinkInfoList list = quarn_get_ipv6_gateways();
    OwnedJson array(cJSON_CreateArray());
    for (const quarn_netlink_info* record = list.get(); array != nullptr && record != nullptr;
         record = record->next) {
        if (record->text == nullptr || *record->text == '\0')
            continue;
        if (origin == Origin::LEARNED && record->value != GATEWAY_LEARNED)
            continue;
        if (!cJSON_AddItemToArray(array.get(), cJSON_CreateString(record->text)))
            array.reset();
    }
    return array;
}

} // namespace

bool set_ipv4_routes()
{
    const bool has_dhcp = get_bool("[IPv4/DHCP]Enabled");
    const OwnedStringArray gateways = get_string_array(has_dhcp ? "[IPv4/DHCP]Gateways" : GATEWAYS_KEY);
    const OwnedText address = get_string(has_dhcp ? "[IPv4/DHCP]Address" : "[IPv4/Manual]Address");
    if (!address)
        return true;
    remove_ipv4_routes();
    add_multicast_route();
    for (int i = 0; gateways && gateways.get()[i] != nullptr; ++i) {
        const char* gateway = gateways.get()[i];
        if (!add_ipv4_gateway(gateway))
            log_message(LEVEL_NOTICE, "%s: Failed at adding %d-th gateway %s %s", __func__, i, gateway,
                        has_dhcp ? "from dhcp" : "set manually");
    }
    return true;
}

void add_multicast_route()
{
    const ShellCommand command("if ! /sbin/route | grep 224.0.0.0 >/dev/null ; then  "
                               "/sbin/route add -net 224.0.0.0 netmask 240.0.0.0 dev eth0 ; fi");
    const int status = exit_status(run_shell(command));
    if (status == 0)
        log_message(LEVEL_DEBUG, "%s:%d: Added multicast route", HERE);
    else
        log_message(LEVEL_NOTICE, "%s: System call '%s' returned %d", __func__, command.text(), status);
}

bool single_ipv6_default_gateway(GatewayChange change, const char* gateway)
{
    const bool adding = change == GatewayChange::ADD;
    const ShellCommand command =
        adding ? ShellCommand("/sbin/route -A inet6 add default gw %s eth0 2>/dev/null", gateway)
               : ShellCommand("/sbin/route -A inet6 del default gw %s eth0 2>/dev/null", gateway);
    log_message(LEVEL_DEBUG, "%s:%d: Running %s", HERE, command.text());
    const int status = exit_status(run_shell(command));
    if (status != 0) {
        log_message(LEVEL_WARNING, "%s: System call to %s ipv6 gateway %s failed. %d", __func__,
                    adding ? "add" : "remove", gateway, status);
        return false;
    }
    log_message(LEVEL_INFO, "%s: %s %s as an IPv6 default gateway", __func__, adding ? "Added" : "Removed",
                gateway);
    if (adding)
        print_console(__func__, "Added %s as IPv6 default gateway", gateway);
    return true;
}

bool remove_ipv6_user_gateways()
{
    log_message(LEVEL_DEBUG, "%s:%d: Removing all user-defined IPv6 gateways", HERE);
    const NetlinkInfoList list = quarn_get_ipv6_gateways();
    for (const quarn_netlink_info* record = list.get(); record != nullptr; record = record->next) {
        if (record->text != nullptr && *record->text != '\0' && record->value == GATEWAY_FROM_USER)
            single_ipv6_default_gateway(GatewayChange::REMOVE, record->text);
    }
    const OwnedStringArray gateways = get_string_array("[IPv6/Manual]Gateways");
    bool succeeded = true;
    for (char** gateway = gateways.get(); gateway != nullptr && *gateway != nullptr; ++gateway)
        succeeded &= single_ipv6_default_gateway(GatewayChange::ADD, *gateway);
    return succeeded;
}

bool read_actual_ipv6_gateways(const SettingDef* row, OwnedJson& value)
{
    value = array_of_gateways(Origin::ANY);
    if (value)
        return true;
    if (row == nullptr)
        log_message(LEVEL_CRITICAL, "%s:%d: Out of memory and null ptr in setting obj", HERE);
    else
        log_message(LEVEL_CRITICAL, "%s:%d: Out of memory retrieving %s value", HERE, row->key);
    return false;
}

bool read_ipv6_kernel_gateways(const SettingDef* row, OwnedJson& value)
{
    value = array_of_gateways(Origin::LEARNED);
    if (value)
        return true;
    if (row == nullptr)
        log_message(LEVEL_CRITICAL, "%s:%d: Out of memory AND a null ptr in setting_obj", HERE);
    else
        log_message(LEVEL_CRITICAL, "%s:%d: Out of memory retrieving %s value", HERE, row->key);
    return false;
}

bool read_manual_v4_gws(const SettingDef* row, OwnedJson& value)
{
    OwnedJson gateways(cJSON_CreateArray());
    if (!gateways) {
        log_message(LEVEL_CRITICAL, "%s:%d: Could not create JSON array", HERE);
        return false;
    }
    bool succeeded = true;
    const OwnedJson first = get_json_value(DEFAULT_GATEWAY_KEY);
    if (!first) {
        log_message(LEVEL_ERROR, "%s: Getting manual default gateway gave us null pointer", __func__);
        succeeded = false;
    } else if (cJSON_IsString(first.get())) {
        cJSON_AddItemToArray(gateways.get(), cJSON_CreateString(first->valuestring));
    } else if (cJSON_IsNull(first.get())) {
        log_message(LEVEL_INFO, "%s: No primary default gateway found", __func__);
    } else {
        log_message(LEVEL_ERROR, "%s: Default gateway wasn't string or null. Was type=%d", __func__,
                    first->type);
    }
    OwnedJson rest;
    if (!read_setting(row, rest)) {
        log_message(LEVEL_ERROR, "%s: Could not read setting object", __func__);
        return false;
    }
    if (!cJSON_IsArray(rest.get())) {
        log_message(LEVEL_ERROR,
                    "%s: Attempt to get additional gateways didn't yield an array.  cJSON_Type=%d", __func__,
                    rest->type);
        return false;
    }
    for (const cJSON* gateway = rest->child; gateway != nullptr; gateway = gateway->next) {
        if (cJSON_IsString(gateway))
            cJSON_AddItemToArray(gateways.get(), cJSON_CreateString(gateway->valuestring));
        else
            log_message(LEVEL_WARNING, "%s: Unexpected element in %s array", __func__, row->key);
    }
    if (succeeded)
        value = std::move(gateways);
    return succeeded;
}

bool save_manual_v4_gws(const cJSON* value)
{
    if (!cJSON_IsArray(value)) {
        log_message(LEVEL_ERROR, "%s: Provided JSON object wasn't valid", __func__);
        return false;
    }
    const cJSON* first = value->child;
    if (first == nullptr) {
        log_message(LEVEL_INFO, "%s: No manual IPv4 gateways were provided", __func__);
        return false;
    }
    OwnedJson default_gateway(cJSON_IsString(first) ? cJSON_CreateString(first->valuestring)
                                                    : cJSON_CreateNull());
    if (!cJSON_IsString(first))
        log_message(
            LEVEL_WARNING,
            "%s: The first element of the manual IPv4 gateways array was not a string. It has cJSON type=%d",
            __func__, first->type);
    const bool first_saved = set_json_value(with_key(std::move(default_gateway), DEFAULT_GATEWAY_KEY).get());
    OwnedJson rest(cJSON_CreateArray());
    if (!rest) {
        log_message(LEVEL_CRITICAL, "%s:%d: Could not create JSON array (memory failure?)", HERE);
        return first_saved;
    }
    for (const cJSON* gateway = first->next; gateway != nullptr; gateway = gateway->next)
        cJSON_AddItemToArray(rest.get(), cJSON_Duplicate(gateway, true));
    // Written in any case: what this key reads as is the joined list, which its own stored part must not be
    // compared with.
    return save_or_hold_setting(with_key(std::move(rest), GATEWAYS_KEY).get(), Keep::STORED,
                                Unchanged::WRITTEN) ||
           first_saved;
}
