// msgbus.h: the camera's message bus, seen by the provider of the interface com_vesko_networkingV2.
// Non-zero is success throughout. Everything happens on the thread of the default main context.
#pragma once

#ifdef __cplusplus
extern "C" {
#endif

typedef struct MsgBus MsgBus;

// Answers one call: non-zero when *response_text is a new text, which the bus releases with free().
typedef int (*MsgBusCall)(const char* request_text, char** response_text);

typedef struct com_vesko_networkingV2_provider {
    MsgBusCall api_get;
    MsgBusCall api_set;
} com_vesko_networkingV2_provider;

// Connects and takes the bus name; a name that another owner holds is a failure.
int msgbus_connect(MsgBus** bus);
void msgbus_disconnect(MsgBus* bus);
// Calls lost(data) once, from the main loop, when the bus has gone away. A port whose bus cannot go away may
// leave it empty.
void msgbus_on_connection_lost(MsgBus* bus, void (*lost)(void* data), void* data);

// The table must outlive the connection. `flags` is 0.
int msgbus_register_com_vesko_networkingV2_provider(MsgBus* bus,
                                                    const com_vesko_networkingV2_provider* provider,
                                                    int flags);

int com_vesko_networkingV2_IPv4AddressChange_notify(MsgBus* bus, const char* address);
int com_vesko_networkingV2_IPv6AddressAdded_notify(MsgBus* bus, const char* address);
int com_vesko_networkingV2_IPv6AddressRemoved_notify(MsgBus* bus, const char* address);
int com_vesko_networkingV2_MTUChange_notify(MsgBus* bus, int mtu);

#ifdef __cplusplus
}
#endif
