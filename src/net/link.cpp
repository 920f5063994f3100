#include "net/link.h"

#include "api/json_response.h"
#include "api/verifiers.h"
#include "core/log.h"
#include "core/shell.h"
#include "net/netlink.h"
#include "net/row_name.h"
#include "settings/setting_store.h"

namespace {

constexpr int MINIMUM_MTU = 1200;
constexpr int MAXIMUM_MTU = 1500;

// What ip answers when the address is there already.
constexpr int ADDRESS_EXISTS_STATUS = 2;

} // namespace

bool link_lo_up()
{
    bool succeeded = true;
    const int address_status =
        exit_status(run_shell(ShellCommand("/sbin/ip addr add 127.0.0.1/8 dev lo 2>/dev/null")));
    if (address_status == ADDRESS_EXISTS_STATUS) {
        log_message(LEVEL_NOTICE, "%s: Loopback device already exists", __func__);
    } else if (address_status != 0) {
        log_message(LEVEL_ERROR, "%s: System call to create loopback returned %d", __func__, address_status);
        succeeded = false;
    }
    const int up_status = exit_status(run_shell(ShellCommand("/sbin/ip link set lo up")));
    if (up_status != 0) {
        log_message(LEVEL_ERROR, "%s: System call to up loopback returned %d", __func__, up_status);
        return false;
    }
    return succeeded;
}

bool link_eth0_up()
{
    const ShellCommand command("ip link set eth0 up");
    const int status = exit_status(run_shell(command));
    if (status != 0) {
        log_message(LEVEL_ERROR, "%s: System call '%s' returned %d", __func__, command.text(), status);
        return false;
    }
    return true;
}

bool set_mtu()
{
    const ShellCommand command("/sbin/ip link set eth0 mtu %d", get_int("[NIC/eth0]MTU"));
    const int status = exit_status(run_shell(command));
    if (status != 0) {
        log_message(LEVEL_ERROR, "%s: System call '%s' returned %d", __func__, command.text(), status);
        return false;
    }
    return true;
}

bool read_mac_addr(const SettingDef* row, OwnedJson& value)
{
    return read_str_util_value(row_name(row, __func__), quarn_get_mac_addr, value);
}

bool read_eui64(const SettingDef* row, OwnedJson& value)
{
    return read_str_util_value(row_name(row, __func__), quarn_get_eui64, value);
}

bool verify_mtu(cJSON* item, JsonResponse* response)
{
    const bool is_number = verify_is_number(item, response);
    if (item == nullptr || response == nullptr)
        return false;
    if (is_number && item->valueint >= MINIMUM_MTU && item->valueint <= MAXIMUM_MTU)
        return true;
    json_response_add_error_text(*response, ERROR_OUT_OF_RANGE, item->string,
                                 "Invalid MTU (%d) (must be %d to %d)", item->valueint, MINIMUM_MTU,
                                 MAXIMUM_MTU);
    return false;
}
