// fuzz_dhcp_event: what servers and routers may send, as DHCP clients hand it on. The first line names the
// event ("bound", "RENEW6", "advertisement" and their like), the others are variables, "name=value", with
// \n standing for a line end; an empty line begins the next event. Whatever is reported, the daemon takes.
#include "api/json_response.h"
#include "api/setting_request.h"
#include "api/verify_settings.h"
#include "lease_requests.h"
#include "surroundings.h"

namespace {

constexpr char CLIENT[] = "100:5000";

std::string_view take_line(std::string_view& text)
{
    const std::string_view line = text.substr(0, text.find('\n'));
    text.remove_prefix(std::min(line.size() + 1, text.size()));
    return line;
}

std::string with_line_ends(std::string_view value)
{
    std::string text;
    for (; !value.empty(); value.remove_prefix(1)) {
        const bool is_line_end = value.starts_with("\\n");
        text += is_line_end ? '\n' : value.front();
        value.remove_prefix(is_line_end ? 1 : 0);
    }
    return text;
}

Variables take_variables(std::string_view& text)
{
    Variables variables = {{"interface", "eth0"}};
    for (std::string_view line = take_line(text); !line.empty(); line = take_line(text)) {
        const std::size_t end = std::min(line.find('='), line.size());
        variables[std::string(line.substr(0, end))] =
            with_line_ends(line.substr(std::min(end + 1, line.size())));
    }
    return variables;
}

void require_accepted(const cJSON* request)
{
    const OwnedMallocText text(cJSON_PrintUnformatted(request));
    const std::unique_ptr<JsonResponse> response = json_response_new();
    const auto parsed = json_set_request_new(text.get(), response.get());
    require(parsed != nullptr, "a report is a request");
    require(verify_settings(parsed.get(), response.get()) && response->reported.empty(),
            "the daemon takes every report");
}

} // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    open_surroundings();
    const std::string input = text_of(data, size);
    std::string_view text = input;
    LastReport ipv4;
    LastReport ipv6;
    while (!text.empty()) {
        const std::string event(take_line(text));
        Variables variables = take_variables(text);
        if (event == "advertisement") {
            require_accepted(router_advertisement_request(variables["resolv_conf"]).get());
            continue;
        }
        const bool is_ipv6 = event.ends_with('6');
        variables.emplace("reason", event);
        LastReport& last = is_ipv6 ? ipv6 : ipv4;
        LastReport report = is_ipv6 ? dhclient_report(variables, CLIENT, last)
                                    : udhcpc_report(event, variables, CLIENT, last);
        if (!report.request)
            continue;
        require_accepted(report.request.get());
        last = std::move(report);
    }
    return 0;
}
