#include "msgbus.h"

#include "example_platform.h"

#include <cstdlib>

// A camera's bus would watch its connection from GLib's default main context; this one is called directly.
struct MsgBus {
    const com_vesko_networkingV2_provider* provider = nullptr;
};

namespace {

MsgBus the_bus;

int announce(const char* signal, const std::string& argument)
{
    example::platform().signals.push_back(std::string(signal) + " " + argument);
    return 1;
}

} // namespace

namespace example {

std::string call(const std::string& method, const std::string& request)
{
    if (the_bus.provider == nullptr)
        return "";
    const MsgBusCall provided = method == "api_get" ? the_bus.provider->api_get : the_bus.provider->api_set;
    char* text = nullptr;
    if (provided(request.c_str(), &text) == 0 || text == nullptr)
        return "";
    std::string answer = text;
    std::free(text);
    return answer;
}

} // namespace example

int msgbus_connect(MsgBus** bus)
{
    *bus = &the_bus;
    return 1;
}

void msgbus_disconnect(MsgBus* bus)
{
    bus->provider = nullptr;
}

void msgbus_on_connection_lost(MsgBus* /*bus*/, void (* /*lost*/)(void* data), void* /*data*/) {}

int msgbus_register_com_vesko_networkingV2_provider(MsgBus* bus,
                                                    const com_vesko_networkingV2_provider* provider,
                                                    int /*flags*/)
{
    bus->provider = provider;
    return 1;
}

int com_vesko_networkingV2_IPv4AddressChange_notify(MsgBus* /*bus*/, const char* address)
{
    return announce("IPv4AddressChange", address);
}

int com_vesko_networkingV2_IPv6AddressAdded_notify(MsgBus* /*bus*/, const char* address)
{
    return announce("IPv6AddressAdded", address);
}

int com_vesko_networkingV2_IPv6AddressRemoved_notify(MsgBus* /*bus*/, const char* address)
{
    return announce("IPv6AddressRemoved", address);
}

int com_vesko_networkingV2_MTUChange_notify(MsgBus* /*bus*/, int mtu)
{
    return announce("MTUChange", std::to_string(mtu));
}
