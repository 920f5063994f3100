// services/packet_filter.h: the inbound packet filter: its rules files, their loading, and the verifiers.
#pragma once

#include "settings/setting_def.h"

// At most 16 prefixes each.
bool verify_ipv4_cidr_list(cJSON* item, JsonResponse* response);
bool verify_ipv6_prefix_list(cJSON* item, JsonResponse* response);
// Ports of 1 to 65535, and ranges [first, last] of them with first below last.
bool verify_port_list(cJSON* item, JsonResponse* response);

// Write the rules file of a family and load it. False when a list could not be written (the file is then not
// loaded, and the rules before it stay in force) or when loading failed.
bool apply_iptables();
bool apply_ip6tables();
