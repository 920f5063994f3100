// services/resolver.h: the resolver's file, /etc/resolv.conf, and the verifiers of the DNS settings.
#pragma once

#include "settings/setting_def.h"

// At most 3 servers of at most 244 characters each.
bool verify_dns_servers(cJSON* item, JsonResponse* response);
bool verify_dns_servers_ipv6(cJSON* item, JsonResponse* response);
// Any number of them: a lease may name as many as it likes.
bool verify_dns_servers_dhcpv4(cJSON* item, JsonResponse* response);
// At most 6 domains of 248 characters together.
bool verify_dns_search(cJSON* item, JsonResponse* response);

// Writes the whole file from the settings; failures are logged.
void quarn_write_resolvconf();
