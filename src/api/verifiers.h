// api/verifiers.h: the verify functions that many rows share. Each takes the proposed item with its key
// attached and the response; true when the value may stand, else it has added at least one error keyed by the
// item's key. A null response is logged and refused; a null item adds an error without a key.
#pragma once

#include "core/owned.h"

#include <cstdint>

struct JsonResponse;

bool verify_is_bool(cJSON* item, JsonResponse* response);
// A string or null.
bool verify_is_string(cJSON* item, JsonResponse* response);
bool verify_is_number(cJSON* item, JsonResponse* response);
// An array of strings, which may be empty.
bool verify_arr_strs(cJSON* item, JsonResponse* response);
// Kept as it is: a number above 100 or below 0 adds its error and still passes.
bool verify_is_percentage(cJSON* item, JsonResponse* response);
// Null, or the path of a regular file. A null response is allowed: then nothing is added.
bool verify_is_file(cJSON* item, JsonResponse* response);

// Kinds of servers a list may name.
inline constexpr unsigned SERVER_HOST = 1;
inline constexpr unsigned SERVER_IPV4 = 2;
inline constexpr unsigned SERVER_IPV6 = 4;
inline constexpr unsigned SERVER_ANY = 255;
// Takes the prefixes "host:", "ipv4:" and "ipv6:" of allowed kinds off the items in place.
bool verify_server_list(cJSON* item, JsonResponse* response, unsigned kinds);
bool verify_server_list_any(cJSON* item, JsonResponse* response);
bool verify_server_list_host_or_ipv4(cJSON* item, JsonResponse* response);
bool verify_server_list_host_or_ipv6(cJSON* item, JsonResponse* response);

// "address/length" with the length in minimum..maximum; elements beyond maximum_count are not looked at.
bool verify_ipv6_cidr_list(cJSON* item, JsonResponse* response, std::uint32_t minimum, std::uint32_t maximum,
                           std::uint32_t maximum_count);
