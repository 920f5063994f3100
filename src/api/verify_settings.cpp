#include "api/verify_settings.h"

#include "api/json_response.h"
#include "api/setting_request.h"
#include "core/log.h"
#include "net/ethtool.h"
#include "services/tcp_ports.h"
#include "services/traffic_shaping.h"
#include "services/web_server.h"
#include "settings/setting_store.h"

namespace {

constexpr char STATEFUL_ENABLED[] = "[IPv6/Stateful]Enabled";
constexpr char ACCEPT_RA[] = "[IPv6/Stateless]AcceptRA";

// What a boolean setting will be once the request is saved.
bool will_be_true(const cJSON* proposed, const char* key)
{
    return proposed != nullptr ? cJSON_IsTrue(proposed) : get_bool(key);
}

// DHCPv6 finds its way by router advertisements. The texts say "stateless" and stay so: clients know them.
bool verify_group_accept_ra(SettingRequest* request, JsonResponse* response)
{
    const cJSON* stateful = json_request_find(*request, STATEFUL_ENABLED);
    const cJSON* accept_ra = json_request_find(*request, ACCEPT_RA);
    if (stateful == nullptr && accept_ra == nullptr)
        return true;
    if (!will_be_true(stateful, STATEFUL_ENABLED) || will_be_true(accept_ra, ACCEPT_RA))
        return true;
    if (stateful != nullptr)
        json_response_add_error(*response, ERROR_ROUTER_ADVERTISEMENT, STATEFUL_ENABLED,
                                "Stateless configuration requires accepting RA");
    if (accept_ra != nullptr)
        json_response_add_error(*response, ERROR_ROUTER_ADVERTISEMENT, ACCEPT_RA,
                                "Accepting RA is required to support stateless configuration");
    return false;
}

// All are run, in this order, whatever the earlier ones found.
constexpr bool (*GROUP_CHECKS[])(SettingRequest* request, JsonResponse* response) = {
    verify_group_http_or_https, verify_group_network_ports, verify_group_https_certificate,
    verify_group_eth0_mode,     verify_group_accept_ra,     verify_group_trafficshaping_rates,
};

} // namespace

bool verify_settings(SettingRequest* request, JsonResponse* response)
{
    if (response == nullptr) {
        log_message(LEVEL_ERROR, "%s: Null value in verify", __func__);
        return false;
    }
    if (request == nullptr) {
        json_response_add_error(*response, ERROR_INTERNAL, nullptr, "Null value in verify");
        return false;
    }
    bool acceptable = true;
    json_request_rewind(*request);
    while (json_request_has_next(*request)) {
        cJSON* item = json_request_next_item(*request);
        if (item == nullptr || item->string == nullptr) {
            json_response_add_error(*response, ERROR_INTERNAL, nullptr,
                                    "Error while iterating through setting list");
            acceptable = false;
            break;
        }
        const SettingDef* row = find_setting(item->string);
        if (row == nullptr) {
            json_response_add_error(*response, ERROR_UNKNOWN_KEY, item->string,
                                    "Could not set unknown setting");
            continue;
        }
        if (row->verify == nullptr)
            log_message(LEVEL_WARNING, "%s: No validate action performed for %s", __func__, row->key);
        const bool verified = row->verify != nullptr && row->verify(item, response);
        if (row->save == nullptr)
            log_message(LEVEL_WARNING, "%s: No save function defined for %s. Failing validation", __func__,
                        row->key);
        acceptable = acceptable && verified && row->save != nullptr;
    }
    for (const auto group_check : GROUP_CHECKS)
        acceptable = group_check(request, response) && acceptable;
    return acceptable;
}
