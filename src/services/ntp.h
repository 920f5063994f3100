// services/ntp.h: the time daemon's file, /etc/ntp.conf, and the verifiers of the NTP settings.
#pragma once

#include "settings/setting_def.h"

// At most 7 servers of the kinds that the source can name.
bool verify_ntp_servers(cJSON* item, JsonResponse* response);
bool verify_ntp_servers_dhcpv4(cJSON* item, JsonResponse* response);
bool verify_ntp_servers_dhcpv6(cJSON* item, JsonResponse* response);

// Writes the whole file from the settings; failures are logged.
void quarn_write_ntpconf();
// Tells the time daemon's supervisor to reload. False when it could not be told.
bool reload_ntp_keeper();
