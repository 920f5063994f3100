#include "services/tcp_ports.h"

#include "api/json_response.h"
#include "api/setting_request.h"
#include "api/verifiers.h"
#include "core/log.h"
#include "settings/setting_store.h"

#include <array>

namespace {

constexpr int MINIMUM_PORT = 1;
constexpr int MAXIMUM_PORT = 65535;
// As the kernel counts the states of a TCP socket.
constexpr unsigned LISTEN_STATE = 10;

// The formats skip the line's number and addresses; local port and state are what counts.
constexpr char TCP_FORMAT[] = "%*20d:%*20x:%8hx %*20x:%*20x %20hx";
constexpr char TCP6_FORMAT[] = "%*20d:%*8x%*8x%*8x%*8x:%8hx %*8x%*8x%*8x%*8x:%*20x %20hx";

bool has_listener(FILE* table, const char* format, std::uint16_t port)
{
    char* line = nullptr;
    std::size_t capacity = 0;
    bool found = false;
    while (!found && getline(&line, &capacity, table) >= 0) {
        std::uint16_t local_port = 0;
        std::uint16_t state = 0;
        // The formats are the two constants above.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
        const bool is_socket = std::sscanf(line, format, &local_port, &state) == 2;
#pragma GCC diagnostic pop
        found = is_socket && state == LISTEN_STATE && local_port == port;
    }
    OwnedMallocText released(line);
    return found;
}

struct Service {
    const char* port_key;
    const char* read_error;
};
constexpr std::array<Service, 3> SERVICES = {{
    {"[Webserver/HTTP]Port", "Can't read existing HTTP port"},
    {"[Webserver/HTTPS]Port", "Can't read existing HTTPS port"},
    {"[RTSP]Port", "Can't read existing RTSP port"},
}};
constexpr std::size_t HTTP = 0;
constexpr std::size_t HTTPS = 1;
constexpr std::size_t RTSP = 2;

using Items = std::array<const cJSON*, SERVICES.size()>;

bool are_equal(const Items& proposed, std::size_t one, std::size_t other)
{
    return cJSON_IsNumber(proposed[one]) && cJSON_IsNumber(proposed[other]) &&
           proposed[one]->valueint == proposed[other]->valueint;
}

void add_clash(JsonResponse& response, std::size_t one, std::size_t other, const char* message)
{
    for (const std::size_t service : {one, other})
        json_response_add_error(response, ERROR_OUT_OF_RANGE, SERVICES[service].port_key, message);
}

// Whether two proposed ports are the same; a clash with RTSP ends the comparison.
bool find_clashes(const Items& proposed, JsonResponse& response)
{
    const bool http_https = are_equal(proposed, HTTP, HTTPS);
    if (http_https)
        add_clash(response, HTTP, HTTPS, "HTTP and HTTPS cannot share a port");
    const bool http_rtsp = are_equal(proposed, HTTP, RTSP);
    if (http_rtsp)
        add_clash(response, HTTP, RTSP, "HTTP and RTSP cannot share a port");
    const bool https_rtsp = are_equal(proposed, HTTPS, RTSP);
    if (https_rtsp)
        add_clash(response, HTTPS, RTSP, "HTTPS and RTSP cannot share a port");
    return http_https || http_rtsp || https_rtsp;
}

// A service that moves away in this request frees its port for another.
bool is_given_up(int port, std::size_t taker, const Items& proposed,
                 const std::array<int, SERVICES.size()>& current)
{
    for (std::size_t service = 0; service < SERVICES.size(); ++service) {
        if (service != taker && proposed[service] != nullptr && current[service] == port)
            return true;
    }
    return false;
}

bool read_current_ports(std::array<int, SERVICES.size()>& current, JsonResponse& response)
{
    bool readable = true;
    for (std::size_t service = 0; service < SERVICES.size(); ++service) {
        const OwnedJson value = get_json_value(SERVICES[service].port_key);
        if (!value) {
            json_response_add_error(response, ERROR_INTERNAL, SERVICES[service].port_key,
                                    SERVICES[service].read_error);
            readable = false;
            continue;
        }
        // A stored value that went bad is no port, and must not bar its own replacement.
        current[service] = cJSON_IsNumber(value.get()) ? value->valueint : 0;
    }
    return readable;
}

} // namespace

bool is_tcp_port_in_use(std::uint16_t port)
{
    const OwnedFile tcp(std::fopen("/proc/net/tcp", "re"));
    if (!tcp) {
        log_message(LEVEL_CRITICAL, "%s:%d: unable to retrieve network ports", HERE);
        return true;
    }
    if (has_listener(tcp.get(), TCP_FORMAT, port))
        return true;
    const OwnedFile tcp6(std::fopen("/proc/net/tcp6", "re"));
    return tcp6 && has_listener(tcp6.get(), TCP6_FORMAT, port);
}

bool verify_port(cJSON* item, JsonResponse* response)
{
    if (!verify_is_number(item, response))
        return false;
    if (item->valueint >= MINIMUM_PORT && item->valueint <= MAXIMUM_PORT)
        return true;
    json_response_add_error(*response, ERROR_OUT_OF_RANGE, item->string, "Port out of range");
    return false;
}

bool verify_port_in_use(cJSON* item, JsonResponse* response)
{
    if (!verify_is_number(item, response))
        return false;
    const bool is_port = item->valueint >= MINIMUM_PORT && item->valueint <= MAXIMUM_PORT;
    if (!is_port || !is_tcp_port_in_use(static_cast<std::uint16_t>(item->valueint)))
        return true;
    json_response_add_error(*response, ERROR_OUT_OF_RANGE, item->string, "Port is in use");
    return false;
}

bool save_port_in_use(const cJSON*)
{
    return false;
}

bool verify_group_network_ports(SettingRequest* request, JsonResponse* response)
{
    if (response == nullptr) {
        log_message(LEVEL_ERROR, "%s: Null value during HTTP/HTTPS/RTSP port verification", __func__);
        return false;
    }
    if (request == nullptr) {
        json_response_add_error(*response, ERROR_INTERNAL, nullptr,
                                "Null value during HTTP/HTTPS/RTSP port verification");
        return false;
    }
    Items proposed{};
    for (std::size_t service = 0; service < SERVICES.size(); ++service)
        proposed[service] = json_request_find(*request, SERVICES[service].port_key);
    if (proposed == Items{})
        return true;
    if (find_clashes(proposed, *response))
        return false;
    std::array<int, SERVICES.size()> current{};
    if (!read_current_ports(current, *response))
        return false;
    for (std::size_t service = 0; service < SERVICES.size(); ++service) {
        // What is no number has had its error, and what does not change is not proposed.
        if (!cJSON_IsNumber(proposed[service]) || proposed[service]->valueint == current[service])
            proposed[service] = nullptr;
    }
    bool free = true;
    for (std::size_t service = 0; service < SERVICES.size(); ++service) {
        if (proposed[service] == nullptr)
            continue;
        const int port = proposed[service]->valueint;
        const bool is_port = port >= MINIMUM_PORT && port <= MAXIMUM_PORT;
        if (!is_port || !is_tcp_port_in_use(static_cast<std::uint16_t>(port)) ||
            is_given_up(port, service, proposed, current))
            continue;
        json_response_add_error(*response, ERROR_PORT_TAKEN, SERVICES[service].port_key,
                                "Proposed port is in use");
        free = false;
    }
    return free;
}
