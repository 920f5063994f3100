#include "services/traffic_shaping.h"

#include "api/json_response.h"
#include "api/setting_request.h"
#include "core/log.h"
#include "core/shell.h"
#include "net/netlink.h"
#include "settings/setting_store.h"

#include <array>

namespace {

constexpr char AVERAGE_RATE[] = "[TrafficShaping]AvgRateLimit";
constexpr char BURST_SIZE[] = "[TrafficShaping]BurstSize";
constexpr char LOW_LATENCY_RATE[] = "[TrafficShaping]LowLatency/Rate";
constexpr char BULK_RATE[] = "[TrafficShaping]Bulk/Rate";
constexpr char MISC_RATE[] = "[TrafficShaping]Misc/Rate";

// Always left to the media class.
constexpr std::int64_t LEAST_MEDIA_RATE = 12000;
// 1024 bits to the kbit, one millisecond.
constexpr std::uint32_t BITS_PER_KBIT = 1024;
constexpr std::uint32_t BITS_PER_BYTE_SECOND = 8000;

constexpr int ROOT_CLASS = 1;
constexpr int MEDIA_CLASS = 2;
constexpr int LOW_LATENCY_CLASS = 3;
constexpr int BULK_CLASS = 4;
constexpr int DEFAULT_CLASS = 5;
constexpr int RATE_TO_QUANTUM = 100;
constexpr int PERCENT = 100;

// The product wraps at 32 bits for rates from 4194304 on: clients that compute the least burst do the same.
std::uint32_t minimum_burst(int rate)
{
    return static_cast<std::uint32_t>(rate) * BITS_PER_KBIT / BITS_PER_BYTE_SECOND;
}

const char* outcome(bool succeeded)
{
    return succeeded ? "success" : "failure";
}

struct HtbClass {
    int parent;
    int number;
    int rate;
    int ceil;
    int burst;
    // 0: none.
    int prio;
};

bool modify_or_create_class(const HtbClass& htb)
{
    const OwnedText prio(htb.prio != 0 ? g_strdup_printf("prio %d", htb.prio) : g_strdup(""));
    ShellCommand command(
        "/sbin/tc class replace dev eth0 parent 1:%d classid 1:%d htb rate %dkbit ceil %dkbit burst %db ",
        htb.parent, htb.number, htb.rate, htb.ceil, htb.burst);
    command.append(prio.get());
    log_message(LEVEL_DEBUG, "%s:%d: Run Command: %s", HERE, command.text());
    const bool succeeded = exit_status(run_shell(command)) == 0;
    log_message(LEVEL_INFO, "%s: Created HTB class 1:%d : %s", __func__, htb.number, outcome(succeeded));
    return succeeded;
}

bool create_proto_filter(int protocol, int prio, int class_number)
{
    const ShellCommand command("/sbin/tc filter add dev eth0 protocol ip parent 1: prio %d u32 match ip "
                               "protocol %d 0xff flowid 1:%d",
                               prio, protocol, class_number);
    log_message(LEVEL_DEBUG, "%s:%d: Run Command: %s", HERE, command.text());
    const bool succeeded = exit_status(run_shell(command)) == 0;
    log_message(LEVEL_INFO, "%s: Packets with proto=%d classified to 1:%d: %s", __func__, protocol,
                class_number, outcome(succeeded));
    return succeeded;
}

bool create_port_filter(int port, int prio, int class_number)
{
    const ShellCommand command(
        "/sbin/tc filter add dev eth0 protocol ip parent 1: prio %d u32 match ip sport %d 0xffff flowid 1:%d",
        prio, port, class_number);
    log_message(LEVEL_DEBUG, "%s:%d: Run Command: %s", HERE, command.text());
    const bool succeeded = exit_status(run_shell(command)) == 0;
    log_message(LEVEL_INFO, "%s: Packets from port=%d classified to 1:%d: %s", __func__, port, class_number,
                outcome(succeeded));
    return succeeded;
}

void clear_filter(int prio)
{
    const ShellCommand command("/sbin/tc filter del dev eth0 protocol ip parent 1: prio %d", prio);
    log_message(LEVEL_DEBUG, "%s:%d: Run Command: %s", HERE, command.text());
    const bool succeeded = exit_status(run_shell(command)) == 0;
    log_message(LEVEL_DEBUG, "%s:%d: Removed HTB filter with prio=%d : %s", HERE, prio, outcome(succeeded));
}

bool create_qdisc()
{
    const ShellCommand command("/sbin/tc qdisc replace dev eth0 root handle 1: htb default %d r2q %d",
                               DEFAULT_CLASS, RATE_TO_QUANTUM);
    log_message(LEVEL_DEBUG, "%s:%d: Run Command: %s", HERE, command.text());
    const bool succeeded = exit_status(run_shell(command)) == 0;
    log_message(LEVEL_INFO, "%s: Traffic shaping enabled with HTB qdisc: %s", __func__, outcome(succeeded));
    return succeeded;
}

bool disable_traffic_shaping()
{
    const ShellCommand command("/sbin/tc qdisc del dev eth0 root");
    log_message(LEVEL_DEBUG, "%s:%d: Run Command: %s", HERE, command.text());
    const bool succeeded = exit_status(run_shell(command)) == 0;
    log_message(LEVEL_INFO, "%s: Traffic shaping disabled: %s", __func__, outcome(succeeded));
    return succeeded;
}

bool traffic_shaping_enabled()
{
    const ShellCommand command("/sbin/tc qdisc show dev eth0 | grep -q pfifo_fast");
    log_message(LEVEL_DEBUG, "%s:%d: Run Command: %s", HERE, command.text());
    const bool enabled = exit_status(run_shell(command)) != 0;
    log_message(LEVEL_DEBUG, "%s:%d: Traffic shaping is %s enabled", HERE, enabled ? "" : "not");
    return enabled;
}

int percentage_of(const char* key, int whole)
{
    return static_cast<int>(std::int64_t{get_int(key)} * whole / PERCENT);
}

// The tree's classes in the order in which they are made, parents first.
std::array<HtbClass, 5> classes_of_tree(int rate, int burst)
{
    const int low_latency = get_int(LOW_LATENCY_RATE);
    const int bulk = get_int(BULK_RATE);
    const int misc = get_int(MISC_RATE);
    // The priorities run against the classes' order on purpose: the default class is served first.
    return {{
        {0, ROOT_CLASS, rate, rate, burst, 0},
        {1, MEDIA_CLASS, static_cast<int>(std::int64_t{rate} - low_latency - bulk - misc),
         percentage_of("[TrafficShaping]Rtp/CeilPercent", rate),
         percentage_of("[TrafficShaping]Rtp/BurstPercent", burst), 4},
        {1, LOW_LATENCY_CLASS, low_latency, percentage_of("[TrafficShaping]LowLatency/CeilPercent", rate),
         percentage_of("[TrafficShaping]LowLatency/BurstPercent", burst), 3},
        {1, BULK_CLASS, bulk, percentage_of("[TrafficShaping]Bulk/CeilPercent", rate),
         percentage_of("[TrafficShaping]Bulk/BurstPercent", burst), 2},
        {1, DEFAULT_CLASS, misc, percentage_of("[TrafficShaping]Misc/CeilPercent", rate),
         percentage_of("[TrafficShaping]Misc/BurstPercent", burst), 1},
    }};
}

bool add_fixed_filters()
{
    constexpr int UDP = 17;
    constexpr int ICMP = 1;
    constexpr int IGMP = 2;
    constexpr int SSH_PORT = 22;
    constexpr int SNMP_PORT = 161;
    bool succeeded = create_proto_filter(UDP, 0, MEDIA_CLASS);
    succeeded &= create_proto_filter(ICMP, 35, LOW_LATENCY_CLASS);
    succeeded &= create_proto_filter(IGMP, 60, LOW_LATENCY_CLASS);
    succeeded &= create_port_filter(SSH_PORT, 45, LOW_LATENCY_CLASS);
    succeeded &= create_port_filter(SNMP_PORT, 40, LOW_LATENCY_CLASS);
    return succeeded;
}

// The proposed number of a key, else the stored one.
int proposed_or_stored(const cJSON* proposed, const char* key)
{
    return proposed != nullptr && cJSON_IsNumber(proposed) ? proposed->valueint : get_int(key);
}

} // namespace

bool quarn_apply_trafficshape_tree()
{
    if (is_nfs_mounted())
        return true;
    if (!get_bool("[TrafficShaping]Enabled"))
        return !traffic_shaping_enabled() || disable_traffic_shaping();
    const bool was_installed = traffic_shaping_enabled();
    const int rate = get_int(AVERAGE_RATE);
    int burst = get_int(BURST_SIZE);
    if (std::int64_t{minimum_burst(rate)} > burst) {
        burst = static_cast<int>(minimum_burst(rate));
        log_message(LEVEL_WARNING, "%s: Provided burst size was too small.  Adjusting to %d", __func__,
                    burst);
    }
    log_message(LEVEL_NOTICE, "%s: Applying Traffic Shaping.  Rate:%dkbps Burst:%db", __func__, rate, burst);
    const std::array<HtbClass, 5> classes = classes_of_tree(rate, burst);
    if (!was_installed && !create_qdisc())
        return false;
    for (const HtbClass& htb : classes) {
        if (!modify_or_create_class(htb))
            return false;
    }
    return was_installed || add_fixed_filters();
}

bool quarn_apply_trafficshape_ports()
{
    constexpr int HTTP_PRIO = 10;
    constexpr int HTTPS_PRIO = 11;
    constexpr int RTSP_PRIO = 20;
    if (is_nfs_mounted())
        return true;
    if (!traffic_shaping_enabled()) {
        log_message(LEVEL_INFO,
                    "%s: Not applying traffic shaping port filters because traffic shaping is not turned on",
                    __func__);
        return true;
    }
    const int http = get_int("[Webserver/HTTP]Port");
    const int https = get_int("[Webserver/HTTPS]Port");
    const int rtsp = get_int("[RTSP]Port");
    clear_filter(HTTP_PRIO);
    bool succeeded = create_port_filter(http, HTTP_PRIO, BULK_CLASS);
    clear_filter(HTTPS_PRIO);
    succeeded = succeeded && create_port_filter(https, HTTPS_PRIO, BULK_CLASS);
    clear_filter(RTSP_PRIO);
    return succeeded && create_port_filter(rtsp, RTSP_PRIO, LOW_LATENCY_CLASS);
}

bool read_min_avg_rate_limit(const SettingDef*, OwnedJson& value)
{
    const std::int64_t least =
        std::int64_t{get_int(LOW_LATENCY_RATE)} + get_int(BULK_RATE) + get_int(MISC_RATE) + LEAST_MEDIA_RATE;
    value.reset(cJSON_CreateNumber(static_cast<double>(least)));
    return value != nullptr;
}

bool read_burst_time(const SettingDef*, OwnedJson& value)
{
    value.reset(cJSON_CreateNumber(1));
    return value != nullptr;
}

bool verify_group_trafficshaping_rates(SettingRequest* request, JsonResponse* response)
{
    if (response == nullptr) {
        log_message(LEVEL_ERROR, "%s: Null value during traffic shaping rate verification", __func__);
        return false;
    }
    if (request == nullptr) {
        json_response_add_error(*response, ERROR_INTERNAL, nullptr,
                                "Null value during traffic shaping rate verification");
        return false;
    }
    const cJSON* low_latency = json_request_find(*request, LOW_LATENCY_RATE);
    const cJSON* bulk = json_request_find(*request, BULK_RATE);
    const cJSON* misc = json_request_find(*request, MISC_RATE);
    const cJSON* average = json_request_find(*request, AVERAGE_RATE);
    const cJSON* burst = json_request_find(*request, BURST_SIZE);
    if (low_latency == nullptr && bulk == nullptr && misc == nullptr && average == nullptr &&
        burst == nullptr)
        return true;
    const std::int64_t classes = std::int64_t{proposed_or_stored(low_latency, LOW_LATENCY_RATE)} +
                                 proposed_or_stored(bulk, BULK_RATE) + proposed_or_stored(misc, MISC_RATE);
    const int rate = proposed_or_stored(average, AVERAGE_RATE);
    const bool burst_suffices = std::int64_t{minimum_burst(rate)} <= proposed_or_stored(burst, BURST_SIZE);
    if (!burst_suffices)
        json_response_add_error(*response, ERROR_OUT_OF_RANGE, BURST_SIZE, "The burst size is too small");
    if (rate < classes + LEAST_MEDIA_RATE) {
        json_response_add_error(*response, ERROR_OUT_OF_RANGE, AVERAGE_RATE,
                                "The Traffic Shaping Average Rate Limit is too low");
        return false;
    }
    return burst_suffices;
}
