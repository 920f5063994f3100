#include "amboot_env.h"

#include "example_platform.h"

#include <cstring>

// Changes are made in a copy, and count once it is closed.
struct AmbootEnv {
    std::map<std::string, std::string> variables;
    std::string handed_out;
};

namespace {

constexpr char NETDEV[] = "netdev";

const char* hand_out(AmbootEnv* environment, const char* name)
{
    const auto found = environment->variables.find(name);
    if (found == environment->variables.end())
        return nullptr;
    environment->handed_out = found->second;
    return environment->handed_out.c_str();
}

int set(AmbootEnv* environment, const char* name, const std::string& value)
{
    if (value.empty())
        environment->variables.erase(name);
    else
        environment->variables[name] = value;
    return 0;
}

int get_flag(AmbootEnv* environment, const char* name)
{
    const char* text = hand_out(environment, name);
    return text == nullptr ? -1 : std::strcmp(text, "1") == 0;
}

int set_flag(AmbootEnv* environment, const char* name, bool on)
{
    return set(environment, name, on ? "1" : "0");
}

} // namespace

int amboot_env_open(AmbootEnv** environment)
{
    *environment = new AmbootEnv{example::platform().environment, ""};
    return 0;
}

int amboot_env_close(AmbootEnv* environment)
{
    example::platform().environment = environment->variables;
    delete environment;
    return 0;
}

const unsigned char* amboot_env_get_netdev(AmbootEnv* environment, int index)
{
    const auto found = environment->variables.find(NETDEV + std::to_string(index));
    environment->handed_out =
        found != environment->variables.end() ? found->second : std::string(AMBOOT_NETDEV_SIZE, '\0');
    return reinterpret_cast<const unsigned char*>(environment->handed_out.data());
}

int amboot_env_set_netdev(AmbootEnv* environment, int index, const unsigned char* record)
{
    environment->variables[NETDEV + std::to_string(index)] =
        std::string(reinterpret_cast<const char*>(record), AMBOOT_NETDEV_SIZE);
    return 0;
}

int amboot_env_get_vesko_ipv4_dhcp_enable(AmbootEnv* environment)
{
    return get_flag(environment, "ipv4_dhcp");
}

int amboot_env_set_vesko_ipv4_dhcp_enable(AmbootEnv* environment, bool on)
{
    return set_flag(environment, "ipv4_dhcp", on);
}

int amboot_env_get_vesko_ipv4_link_local_enable(AmbootEnv* environment)
{
    return get_flag(environment, "ipv4_link_local");
}

int amboot_env_set_vesko_ipv4_link_local_enable(AmbootEnv* environment, bool on)
{
    return set_flag(environment, "ipv4_link_local", on);
}

int amboot_env_get_vesko_ipv6_enable(AmbootEnv* environment)
{
    return get_flag(environment, "ipv6");
}

int amboot_env_set_vesko_ipv6_enable(AmbootEnv* environment, bool on)
{
    return set_flag(environment, "ipv6", on);
}

const char* amboot_env_get_vesko_ipv6_addresses(AmbootEnv* environment)
{
    return hand_out(environment, "ipv6_addresses");
}

int amboot_env_set_vesko_ipv6_addresses(AmbootEnv* environment, const char* addresses)
{
    return set(environment, "ipv6_addresses", addresses);
}

const char* amboot_env_get_vesko_hostname(AmbootEnv* environment)
{
    return hand_out(environment, "hostname");
}

int amboot_env_set_vesko_hostname(AmbootEnv* environment, const char* hostname)
{
    return set(environment, "hostname", hostname);
}
