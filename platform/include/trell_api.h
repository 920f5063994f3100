// trell_api.h: the framework's initiators: the broker, which knows the providers of an interface, and the
// device information service. A result of 0 is success.
#pragma once

#include <stdbool.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef struct TrellBroker TrellBroker;
typedef struct TrellDeviceInformation TrellDeviceInformation;

int trell_api_broker_initiator_init(TrellBroker** broker);
// Asks `target` for the providers of `interface`. The arrays are the caller's, to be released with
// trell_core_free_string_array and trell_core_free_bool_array; each may be null.
int trell_api_broker_get_targets_send(TrellBroker* broker, const char* target, const char* interface,
                                      char*** names, char*** providers, bool** active);
void trell_api_broker_initiator_deinit(TrellBroker* broker);

// What a device tells of itself. Each text is null when it is not known, else the caller's, released with
// free().
typedef struct TrellStaticInformation {
    char* manufacturer;
    char* model_name;
    char* serial_number;
    char* hardware_id;
    char* hardware_version;
    char* product_class;
    char* firmware_version;
    char* boot_loader_version;
} TrellStaticInformation;

int trell_api_device_information_initiator_init(TrellDeviceInformation** device_information);
// Texts that did arrive are filled in even when the call fails.
int trell_api_device_information_get_static_information_send(TrellDeviceInformation* device_information,
                                                             const char* provider,
                                                             TrellStaticInformation* information);
void trell_api_device_information_initiator_deinit(TrellDeviceInformation* device_information);

#ifdef __cplusplus
}
#endif
