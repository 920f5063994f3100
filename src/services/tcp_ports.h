// services/tcp_ports.h: which TCP ports have a listener, and the verifiers of port settings.
#pragma once

#include "settings/setting_def.h"

struct SettingRequest;

// True when an IPv4 or IPv6 socket listens on the port, and when that cannot be found out.
bool is_tcp_port_in_use(std::uint16_t port);

// A number of 1 to 65535.
bool verify_port(cJSON* item, JsonResponse* response);
// "[TCP/Port]InUse": a port that is free. Saving it stores nothing.
bool verify_port_in_use(cJSON* item, JsonResponse* response);
bool save_port_in_use(const cJSON* item);

// Group check: HTTP, HTTPS and RTSP have ports of their own, and a new port is free or given up by one of
// them.
bool verify_group_network_ports(SettingRequest* request, JsonResponse* response);
