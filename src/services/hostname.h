// services/hostname.h: the camera's host name: its default, /etc/hostname, the kernel's name, and the
// verifiers.
#pragma once

#include "settings/setting_def.h"

// Stores "<model name>-<serial number>" as the host name if there is none yet.
void construct_default_hostname();

bool verify_hostname(cJSON* item, JsonResponse* response);
// A domain obeys the rules of a host name.
bool verify_domain(cJSON* item, JsonResponse* response);

// Writes /etc/hostname from the setting; failures are logged.
void quarn_write_hostname();
// Makes the kernel take the name from /etc/hostname. False when that failed.
bool run_hostname_command();
