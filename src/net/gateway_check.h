// net/gateway_check.h: whether gateways lie on the network of their address. Deliberately not one of the
// group checks of a set request: a client may set a gateway before it sets the address.
#pragma once

struct SettingRequest;
struct JsonResponse;

// True when none of the three keys is proposed, or when every gateway lies on the network that the address
// and the prefix length define (proposed values before stored ones).
bool find_and_check_gateway_in_network(const SettingRequest& request, const char* address_key,
                                       const char* netmask_key, const char* gateways_key);

// Checks the manual and the leased gateways and adds errors for both; the result is the manual ones'.
bool verify_gateway_in_network(SettingRequest* request, JsonResponse* response);
