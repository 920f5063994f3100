#include "net/ipv4_settings.h"

#include "api/json_response.h"
#include "api/text_tests.h"
#include "api/verifiers.h"
#include "core/ipv4_text.h"
#include "core/log.h"
#include "net/ipv4_addresses.h"
#include "net/netlink.h"
#include "net/row_name.h"
#include "settings/setting_store.h"

#include <cstring>

namespace {

constexpr int MINIMUM_PREFIX_LENGTH = 1;
constexpr int MAXIMUM_PREFIX_LENGTH = 31;

// Rewrites a dotted netmask without holes as its prefix length; false for any other text.
bool convert_netmask_to_length(cJSON* item)
{
    if (!is_ipv4_dotted_quad(item->valuestring))
        return false;
    const unsigned length = netmask_to_prefix(item->valuestring);
    const bool has_hole = length == 0 && ipv4_str_to_uint(item->valuestring) != 0;
    if (has_hole)
        return false;
    cJSON_free(std::exchange(item->valuestring, nullptr));
    item->type = cJSON_Number;
    cJSON_SetNumberValue(item, length);
    return true;
}

// eth0's address as the kernel has it; null, with a line in the name of the reader that asks, when there is
// none.
NetlinkInfoList actual_ipv4_record(const SettingDef* row, const char* reader)
{
    if (row == nullptr || row->key == nullptr) {
        log_message(LEVEL_CRITICAL, "%s:%d: Setting object passed to with NULL pointer", reader, __LINE__);
        return nullptr;
    }
    NetlinkInfoList record = quarn_get_ipv4_addr();
    if (record == nullptr)
        log_message(LEVEL_ERROR, "%s: Can't retrieve %s value", reader, row->key);
    return record;
}

} // namespace

bool read_ipv4_linklocal(const SettingDef* row, OwnedJson& value)
{
    const char* name = row_name(row, __func__);
    const bool is_enabled = get_bool("[IPv4]Enabled") && get_bool("[IPv4/LocalLink]Enabled");
    const char* current = current_ipv4_linklocal_text();
    if (is_enabled && *current == '\0')
        return read_str_util_value(name, _get_unused_ipv4_link_local_address, value);
    value.reset(is_enabled ? cJSON_CreateString(current) : cJSON_CreateNull());
    if (value == nullptr)
        log_message(LEVEL_CRITICAL, "%s:%d: Out of memory retrieving %s value", HERE, name);
    return value != nullptr;
}

bool read_actual_ipv4_addr(const SettingDef* row, OwnedJson& value)
{
    const NetlinkInfoList record = actual_ipv4_record(row, __func__);
    if (record == nullptr)
        return false;
    value.reset(cJSON_CreateString(record->text));
    if (value == nullptr)
        log_message(LEVEL_CRITICAL, "%s:%d: Out of memory retrieving %s value", HERE, row->key);
    return value != nullptr;
}

bool read_actual_ipv4_netmask(const SettingDef* row, OwnedJson& value)
{
    const NetlinkInfoList record = actual_ipv4_record(row, __func__);
    if (record == nullptr)
        return false;
    value.reset(cJSON_CreateNumber(record->value));
    if (value == nullptr)
        log_message(LEVEL_CRITICAL, "%s:%d: Out of memory retrieving %s value", HERE, row->key);
    return value != nullptr;
}

bool verify_ipv4_address(cJSON* item, JsonResponse* response)
{
    if (!verify_is_string(item, response))
        return false;
    if (cJSON_IsNull(item) || is_unicast_ipv4_address(item->valuestring))
        return true;
    json_response_add_error_text(*response, ERROR_WRONG_TYPE, item->string,
                                 "String '%s' wasn't a valid IPv4 address", item->valuestring);
    return false;
}

bool verify_dhcp_ipv4_address(cJSON* item, JsonResponse* response)
{
    if (cJSON_IsString(item) && std::strcmp(item->valuestring, LOST_LEASE) == 0)
        return true;
    return verify_ipv4_address(item, response);
}

bool verify_ipv4_netmask(cJSON* item, JsonResponse* response)
{
    if (item == nullptr || response == nullptr)
        return verify_is_number(item, response);
    if (!cJSON_IsNumber(item) && !(cJSON_IsString(item) && convert_netmask_to_length(item))) {
        json_response_add_error(*response, ERROR_WRONG_TYPE, item->string,
                                "Value was neither an IPv4 netmask nor a length of such");
        return false;
    }
    if (verify_is_number(item, response) && item->valueint >= MINIMUM_PREFIX_LENGTH &&
        item->valueint <= MAXIMUM_PREFIX_LENGTH)
        return true;
    json_response_add_error(*response, ERROR_WRONG_TYPE, item->string,
                            "Value wasn't a valid ipv4 netmask length");
    return false;
}
