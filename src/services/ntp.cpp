#include "services/ntp.h"

#include "api/json_response.h"
#include "api/verifiers.h"
#include "core/console.h"
#include "core/log.h"
#include "core/shell.h"
#include "services/generated_files.h"
#include "settings/setting_store.h"

namespace {

constexpr char NTP_CONF[] = "/etc/ntp.conf";
constexpr int MAXIMUM_SERVERS = 7;

constexpr char PREAMBLE[] = "# written by quarn\n"
                            "disable monitor\n"
                            "restrict default limited kod nomodify notrap nopeer noquery\n"
                            "restrict -6 default limited kod nomodify notrap nopeer noquery\n"
                            "restrict 127.0.0.1\n"
                            "restrict -6 ::1\n";

bool verify_servers(cJSON* item, JsonResponse* response, unsigned kinds)
{
    if (!verify_server_list(item, response, kinds))
        return false;
    if (cJSON_GetArraySize(item) <= MAXIMUM_SERVERS)
        return true;
    json_response_add_error(*response, ERROR_TOO_MANY, item->string,
                            "Too many NTP servers provided in array");
    return false;
}

struct ServerSources {
    OwnedStringArray manual;
    OwnedStringArray ipv4_dhcp;
    OwnedStringArray ipv6_dhcp;
    OwnedStringArray ipv6_discovery;

    bool are_empty() const { return !manual && !ipv4_dhcp && !ipv6_dhcp && !ipv6_discovery; }
};

// Unlike DNS servers, manual time servers count even while both IP stacks are off.
ServerSources gather_servers()
{
    ServerSources sources;
    if (get_bool("[IPv4]Enabled") && get_bool("[IPv4/DHCP]Enabled"))
        sources.ipv4_dhcp = get_enabled_string_array("[NTP/IPv4/DHCP]Enabled", "[NTP/IPv4/DHCP]Servers");
    const bool has_ipv6 = get_bool("[IPv6]Enabled");
    if (has_ipv6 && get_bool("[IPv6/Stateful]Enabled"))
        sources.ipv6_dhcp = get_enabled_string_array("[NTP/IPv6/DHCP]Enabled", "[NTP/IPv6/DHCP]Servers");
    if (has_ipv6)
        sources.ipv6_discovery =
            get_enabled_string_array("[NTP/IPv6/Discovery]Enabled", "[NTP/IPv6/Discovery]Servers");
    sources.manual = get_enabled_string_array("[NTP/Manual]Enabled", "[NTP/Manual]Servers");
    return sources;
}

void write_servers(FILE* stream, const ServerSources& sources)
{
    write_address_list(stream, "manually configured time servers", "server", sources.manual.get());
    write_address_list(stream, "IPv4 DHCP time servers", "server -4", sources.ipv4_dhcp.get());
    write_address_list(stream, "IPv6 DHCP time servers", "server -6", sources.ipv6_dhcp.get());
    write_address_list(stream, "IPv6 discovery time servers", "server -6", sources.ipv6_discovery.get());
}

} // namespace

bool verify_ntp_servers(cJSON* item, JsonResponse* response)
{
    return verify_servers(item, response, SERVER_ANY);
}

bool verify_ntp_servers_dhcpv4(cJSON* item, JsonResponse* response)
{
    return verify_servers(item, response, SERVER_HOST | SERVER_IPV4);
}

bool verify_ntp_servers_dhcpv6(cJSON* item, JsonResponse* response)
{
    return verify_servers(item, response, SERVER_HOST | SERVER_IPV6);
}

void quarn_write_ntpconf()
{
    const bool is_enabled = get_bool("[NTP]Enabled");
    const ServerSources sources = is_enabled ? gather_servers() : ServerSources();
    OwnedFile stream = open_file(NTP_CONF);
    if (!stream) {
        log_message(LEVEL_CRITICAL, "%s:%d: Cannot create ntp.conf", HERE);
        return;
    }
    std::fputs(PREAMBLE, stream.get());
    if (!is_enabled)
        std::fputs("\n# NTP is disabled\n", stream.get());
    else if (sources.are_empty())
        std::fputs("\n# NTP is enabled, but no servers configured.\n", stream.get());
    else
        write_servers(stream.get(), sources);
    if (!close_file(std::move(stream))) {
        log_message(LEVEL_CRITICAL, "%s:%d: Cannot write %s", HERE, NTP_CONF);
        return;
    }
    print_console(__func__, "Wrote %s", NTP_CONF);
}

bool reload_ntp_keeper()
{
    const ShellCommand command("kill -USR2 $(pidof -s ntp-keeper)");
    const int status = exit_status(run_shell(command));
    if (status == 0)
        return true;
    log_message(LEVEL_ERROR, "%s: Call to '%s' had rc=%d", __func__, command.text(), status);
    return false;
}
