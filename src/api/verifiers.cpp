#include "api/verifiers.h"

#include "api/json_response.h"
#include "api/text_tests.h"
#include "core/log.h"

#include <sys/stat.h>

#include <cmath>
#include <cstring>
#include <string>
#include <string_view>

namespace {

bool refuse(JsonResponse& response, int code, const char* key, const char* message)
{
    json_response_add_error(response, code, key, message);
    return false;
}

bool is_regular_file(const char* path)
{
    struct stat status {};
    return stat(path, &status) == 0 && S_ISREG(status.st_mode);
}

// Takes a prefix like "ipv4:" off the element; false when it does not stand there.
bool strip_kind_prefix(cJSON* element, std::string_view prefix)
{
    const std::string text = element->valuestring;
    if (!text.starts_with(prefix))
        return false;
    cJSON_SetValuestring(element, text.c_str() + prefix.size());
    return true;
}

bool verify_server(cJSON* server, const char* key, JsonResponse& response, unsigned kinds)
{
    const bool takes_host = (kinds & SERVER_HOST) != 0;
    const bool takes_ipv4 = (kinds & SERVER_IPV4) != 0;
    const bool takes_ipv6 = (kinds & SERVER_IPV6) != 0;
    const bool says_ipv4 = takes_ipv4 && strip_kind_prefix(server, "ipv4:");
    const bool says_ipv6 = !says_ipv4 && takes_ipv6 && strip_kind_prefix(server, "ipv6:");
    const bool says_host = !says_ipv4 && !says_ipv6 && takes_host && strip_kind_prefix(server, "host:");
    const bool says_nothing = !says_ipv4 && !says_ipv6 && !says_host;

    const char* text = server->valuestring;
    if ((says_ipv4 || (says_nothing && takes_ipv4)) && is_unicast_ipv4_address(text))
        return true;
    if ((says_ipv6 || (says_nothing && takes_ipv6)) && is_ipv6_address(text))
        return true;
    if ((says_host || (says_nothing && takes_host)) && is_valid_hostname(text))
        return true;

    if (says_ipv4)
        json_response_add_error_text(response, ERROR_INVALID_IPV4, key, "'%s' isn't a valid ipv4 address",
                                     text);
    else if (says_ipv6)
        json_response_add_error_text(response, ERROR_INVALID_IPV6, key, "'%s' isn't a valid ipv6 address",
                                     text);
    else if (says_host)
        json_response_add_error_text(response, ERROR_WRONG_TYPE, key, "'%s' isn't a valid server name", text);
    else
        json_response_add_error_text(response, ERROR_WRONG_TYPE, key, "'%s' isn't a valid server name or ip",
                                     text);
    return false;
}

bool verify_ipv6_cidr(const char* text, const char* key, JsonResponse& response, std::uint32_t minimum,
                      std::uint32_t maximum)
{
    const char* slash = std::strchr(text, '/');
    if (slash == nullptr) {
        json_response_add_error_text(response, ERROR_INVALID_IPV6, key,
                                     "'%s' doesn't include a prefix length", text);
        return false;
    }
    const bool has_address = is_ipv6_address(std::string(text, slash).c_str());
    if (!has_address)
        json_response_add_error_text(response, ERROR_INVALID_IPV6, key,
                                     "'%s' doesn't contain a valid ipv6 address", text);
    std::uint32_t length = 0;
    const bool has_length = parse_prefix_length(slash + 1, minimum, maximum, length);
    if (!has_length)
        json_response_add_error_text(response, ERROR_INVALID_IPV6, key,
                                     "'%s' doesn't contain a valid prefix length", text);
    return has_address && has_length;
}

} // namespace

bool verify_is_bool(cJSON* item, JsonResponse* response)
{
    if (response == nullptr) {
        log_message(LEVEL_ERROR, "%s: Null value during boolean verification", __func__);
        return false;
    }
    if (item == nullptr)
        return refuse(*response, ERROR_INTERNAL, nullptr, "Null value during boolean verification");
    return cJSON_IsBool(item) || refuse(*response, ERROR_WRONG_TYPE, item->string, "Value wasn't a boolean");
}

bool verify_is_string(cJSON* item, JsonResponse* response)
{
    if (response == nullptr) {
        log_message(LEVEL_ERROR, "%s: Null value during string verification", __func__);
        return false;
    }
    if (item == nullptr)
        return refuse(*response, ERROR_INTERNAL, nullptr, "Null value during string verification");
    return cJSON_IsString(item) || cJSON_IsNull(item) ||
           refuse(*response, ERROR_WRONG_TYPE, item->string, "Value wasn't a string");
}

bool verify_is_number(cJSON* item, JsonResponse* response)
{
    // "string" here too: clients know this text.
    if (response == nullptr) {
        log_message(LEVEL_ERROR, "%s: Null value during string verification", __func__);
        return false;
    }
    if (item == nullptr)
        return refuse(*response, ERROR_INTERNAL, nullptr, "Null value during string verification");
    // A number like 1e999 would be stored as null.
    return (cJSON_IsNumber(item) && std::isfinite(item->valuedouble)) ||
           refuse(*response, ERROR_WRONG_TYPE, item->string, "Value wasn't a number");
}

bool verify_arr_strs(cJSON* item, JsonResponse* response)
{
    if (response == nullptr) {
        log_message(LEVEL_ERROR, "%s: Null value during string array verification", __func__);
        return false;
    }
    if (item == nullptr)
        return refuse(*response, ERROR_INTERNAL, nullptr, "Null value during string array verification");
    if (!cJSON_IsArray(item))
        return refuse(*response, ERROR_WRONG_TYPE, item->string, "Value wasn't a JSON array");
    const cJSON* element = nullptr;
    cJSON_ArrayForEach(element, item)
    {
        if (!cJSON_IsString(element))
            return refuse(*response, ERROR_WRONG_TYPE, item->string,
                          "Found unexpected non-string in JSON array");
    }
    return true;
}

bool verify_is_percentage(cJSON* item, JsonResponse* response)
{
    constexpr unsigned MAX_PERCENTAGE = 100;
    if (!verify_is_number(item, response))
        return false;
    if (static_cast<unsigned>(item->valueint) > MAX_PERCENTAGE)
        json_response_add_error(*response, ERROR_OUT_OF_RANGE, item->string, "Not a valid percentage value");
    // Kept as it is: clients set such percentages and read the error as a warning.
    return true;
}

bool verify_is_file(cJSON* item, JsonResponse* response)
{
    if (item == nullptr && response == nullptr) {
        log_message(LEVEL_ERROR, "%s: Null value during file verification", __func__);
        return false;
    }
    if (item == nullptr)
        return refuse(*response, ERROR_INTERNAL, nullptr, "Null value during file verification");
    if (cJSON_IsNull(item) || (cJSON_IsString(item) && is_regular_file(item->valuestring)))
        return true;
    if (response == nullptr)
        return false;
    return cJSON_IsString(item) ? refuse(*response, ERROR_OUT_OF_RANGE, item->string, "Not a file")
                                : refuse(*response, ERROR_WRONG_TYPE, item->string, "Value isn't a string");
}

bool verify_server_list(cJSON* item, JsonResponse* response, unsigned kinds)
{
    if (!verify_arr_strs(item, response))
        return false;
    bool acceptable = true;
    cJSON* server = nullptr;
    cJSON_ArrayForEach(server, item)
    {
        if (!verify_server(server, item->string, *response, kinds))
            acceptable = false;
    }
    return acceptable;
}

bool verify_server_list_any(cJSON* item, JsonResponse* response)
{
    return verify_server_list(item, response, SERVER_ANY);
}

bool verify_server_list_host_or_ipv4(cJSON* item, JsonResponse* response)
{
    return verify_server_list(item, response, SERVER_HOST | SERVER_IPV4);
}

bool verify_server_list_host_or_ipv6(cJSON* item, JsonResponse* response)
{
    return verify_server_list(item, response, SERVER_HOST | SERVER_IPV6);
}

bool verify_ipv6_cidr_list(cJSON* item, JsonResponse* response, std::uint32_t minimum, std::uint32_t maximum,
                           std::uint32_t maximum_count)
{
    if (!verify_arr_strs(item, response))
        return false;
    bool acceptable = true;
    std::uint32_t count = 0;
    const cJSON* element = nullptr;
    cJSON_ArrayForEach(element, item)
    {
        if (count == maximum_count)
            return refuse(*response, ERROR_TOO_MANY, item->string,
                          "There are too many elements in the provided array.");
        if (!verify_ipv6_cidr(element->valuestring, item->string, *response, minimum, maximum))
            acceptable = false;
        count++;
    }
    return acceptable;
}
