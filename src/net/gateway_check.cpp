#include "net/gateway_check.h"

#include "api/json_response.h"
#include "api/setting_request.h"
#include "core/ipv4_text.h"
#include "core/log.h"
#include "settings/setting_store.h"

namespace {

// What a request proposes for a key, else what is stored.
struct ProposedOrStored {
    ProposedOrStored(const SettingRequest& request, const char* key) : item(json_request_find(request, key))
    {
        if (item != nullptr)
            return;
        stored = get_json_value(key);
        item = stored.get();
    }

    const cJSON* item;
    OwnedJson stored;
};

bool is_on_network(const char* gateway, const char* address, int prefix_length)
{
    // A prefix length of 0 makes a mask of all ones: the gateway must then be the address itself.
    const unsigned host_bits = (IPV4_ADDRESS_BITS - static_cast<unsigned>(prefix_length)) % IPV4_ADDRESS_BITS;
    const std::uint32_t mask = UINT32_MAX << host_bits;
    return ((ipv4_str_to_uint(address) ^ ipv4_str_to_uint(gateway)) & mask) == 0;
}

} // namespace

bool find_and_check_gateway_in_network(const SettingRequest& request, const char* address_key,
                                       const char* netmask_key, const char* gateways_key)
{
    if (json_request_find(request, address_key) == nullptr &&
        json_request_find(request, netmask_key) == nullptr &&
        json_request_find(request, gateways_key) == nullptr)
        return true;
    const ProposedOrStored address(request, address_key);
    const ProposedOrStored netmask(request, netmask_key);
    const ProposedOrStored gateways(request, gateways_key);
    if (address.item == nullptr || netmask.item == nullptr || gateways.item == nullptr) {
        log_message(LEVEL_ERROR, "%s: In retrieving addr/mask/gateway settings, one of which was null",
                    __func__);
        return false;
    }
    if (cJSON_IsNull(address.item) || cJSON_IsNull(gateways.item)) {
        log_message(LEVEL_INFO,
                    "%s: IPv4 address or gateway is NULL, so we are skipping the gateway on network check",
                    __func__);
        return true;
    }
    if (!cJSON_IsString(address.item) || !cJSON_IsNumber(netmask.item) || !cJSON_IsArray(gateways.item)) {
        log_message(LEVEL_ERROR, "%s: One of this has incorrect type: Addr(%d) Mask(%d) Gateway(%d)",
                    __func__, address.item->type, netmask.item->type, gateways.item->type);
        return false;
    }
    for (const cJSON* gateway = gateways.item->child; gateway != nullptr; gateway = gateway->next) {
        if (!cJSON_IsString(gateway)) {
            log_message(LEVEL_ERROR, "%s: Gateway was not a string", __func__);
            return false;
        }
        if (!is_on_network(gateway->valuestring, address.item->valuestring, netmask.item->valueint)) {
            log_message(LEVEL_WARNING, "%s: The gateway %s wasn't on the same network as %s/%d", __func__,
                        gateway->valuestring, address.item->valuestring, netmask.item->valueint);
            return false;
        }
    }
    return true;
}

bool verify_gateway_in_network(SettingRequest* request, JsonResponse* response)
{
    if (request == nullptr || response == nullptr)
        return false;
    const bool manual_fits = find_and_check_gateway_in_network(
        *request, "[IPv4/Manual]Address", "[IPv4/Manual]Netmask", "[IPv4/Manual]Gateways");
    if (!manual_fits) {
        json_response_add_error(*response, ERROR_GATEWAY_NOT_REACHABLE, "[IPv4/Manual]Address",
                                "The address provided cannot reach the gateway");
        json_response_add_error(*response, ERROR_GATEWAY_NOT_REACHABLE, "[IPv4/Manual]Netmask",
                                "One or more gateways are not on the defined network");
        json_response_add_error(*response, ERROR_GATEWAY_NOT_REACHABLE, "[IPv4/Manual]Gateways",
                                "One or more gateways are unreachable");
    }
    if (!find_and_check_gateway_in_network(*request, "[IPv4/DHCP]Address", "[IPv4/DHCP]Netmask",
                                           "[IPv4/DHCP]Gateways")) {
        log_message(
            LEVEL_ERROR,
            "%s: DHCP provided an address/netmask defined network which can't reach a DHCP provided gateway",
            __func__);
        json_response_add_error(*response, ERROR_GATEWAY_NOT_REACHABLE, "[IPv4/DHCP]Address",
                                "The DHCP provided address cannot reach the gateway");
        json_response_add_error(*response, ERROR_GATEWAY_NOT_REACHABLE, "[IPv4/DHCP]Netmask",
                                "One or more gateways are not on the DHCP defined network");
        json_response_add_error(*response, ERROR_GATEWAY_NOT_REACHABLE, "[IPv4/DHCP]Gateways",
                                "One or more DHCP-defined gateways are unreachable");
    }
    return manual_fits;
}
