#include "trell_api.h"

#include <cstdlib>
#include <cstring>

struct TrellBroker {};
struct TrellDeviceInformation {};

int trell_api_broker_initiator_init(TrellBroker** broker)
{
    static TrellBroker the_broker;
    *broker = &the_broker;
    return 0;
}

// One provider, "example", of whatever is asked for.
int trell_api_broker_get_targets_send(TrellBroker* /*broker*/, const char* /*target*/,
                                      const char* /*interface*/, char*** names, char*** providers,
                                      bool** active)
{
    *providers = static_cast<char**>(std::calloc(2, sizeof(char*)));
    if (*providers == nullptr)
        return 1;
    (*providers)[0] = strdup("example");
    *names = nullptr;
    *active = nullptr;
    return 0;
}

void trell_api_broker_initiator_deinit(TrellBroker* /*broker*/) {}

int trell_api_device_information_initiator_init(TrellDeviceInformation** device_information)
{
    static TrellDeviceInformation the_device;
    *device_information = &the_device;
    return 0;
}

int trell_api_device_information_get_static_information_send(TrellDeviceInformation* /*device_information*/,
                                                             const char* /*provider*/,
                                                             TrellStaticInformation* information)
{
    information->model_name = strdup("Lookout");
    information->serial_number = strdup("0042");
    return 0;
}

void trell_api_device_information_initiator_deinit(TrellDeviceInformation* /*device_information*/) {}
