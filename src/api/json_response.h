// api/json_response.h: the answer to one bus call: {"success": ..., "errors": [...]} and the values asked
// for.
#pragma once

#include "core/owned.h"

#include <string>
#include <unordered_set>

// Codes of error entries, as clients know them. 12 is not used.
inline constexpr int ERROR_INTERNAL = 1;
inline constexpr int ERROR_MALFORMED_REQUEST = 2;
inline constexpr int ERROR_WRONG_TYPE = 3;
inline constexpr int ERROR_OUT_OF_RANGE = 4;
inline constexpr int ERROR_INVALID_IPV4 = 5;
inline constexpr int ERROR_INVALID_IPV6 = 6;
inline constexpr int ERROR_UNKNOWN_KEY = 7;
inline constexpr int ERROR_REPEATED_KEY = 8;
inline constexpr int ERROR_GATEWAY_NOT_REACHABLE = 9;
inline constexpr int ERROR_UNSUPPORTED_COMBINATION = 10;
inline constexpr int ERROR_PORT_TAKEN = 11;
inline constexpr int ERROR_ROUTER_ADVERTISEMENT = 13;
inline constexpr int ERROR_TOO_MANY = 14;

struct JsonResponse {
    OwnedJson root;
    // Code and key of every entry, so that a long error list costs no scans.
    std::unordered_set<std::string> reported;
};

// "success" false and "errors" empty, in this order; null when out of memory.
std::unique_ptr<JsonResponse> json_response_new();
void json_response_set_success(JsonResponse& response);
// Appends {"key", "code", "msg"}; without "key" when `key` is null. A second entry of the same code and key
// is dropped, whatever its text, and one without a key where any entry of its code is there.
void json_response_add_error(JsonResponse& response, int code, const char* key, const char* message);
// As above, with the message built from a format.
void json_response_add_error_text(JsonResponse& response, int code, const char* key, const char* format, ...)
    __attribute__((format(printf, 4, 5)));
// Puts a value beside "success" and "errors".
void json_response_add_value(JsonResponse& response, const char* key, OwnedJson value);
// Unformatted, and such as the bus will carry: characters that it refuses are written as JSON escapes.
OwnedMallocText json_response_print(const JsonResponse& response);
