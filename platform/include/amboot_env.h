// amboot_env.h: the boot loader's environment. A result of 0 is success unless said otherwise.
// Texts and records handed out belong to the library and live until the next call or amboot_env_close.
#pragma once

#include <stdbool.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef struct AmbootEnv AmbootEnv;

enum { AMBOOT_NETDEV_SIZE = 18 };

// Fails when the environment cannot be read whole: what cannot be read is never written either.
int amboot_env_open(AmbootEnv** environment);
// Also 0 only when everything that was set has been written.
int amboot_env_close(AmbootEnv* environment);

// The 18-byte record of network device `index`, or null. A record that was never set is all zero.
const unsigned char* amboot_env_get_netdev(AmbootEnv* environment, int index);
int amboot_env_set_netdev(AmbootEnv* environment, int index, const unsigned char* record);

// Flags: 0, 1, or -1 when the environment holds no value.
int amboot_env_get_vesko_ipv4_dhcp_enable(AmbootEnv* environment);
int amboot_env_set_vesko_ipv4_dhcp_enable(AmbootEnv* environment, bool on);
int amboot_env_get_vesko_ipv4_link_local_enable(AmbootEnv* environment);
int amboot_env_set_vesko_ipv4_link_local_enable(AmbootEnv* environment, bool on);
int amboot_env_get_vesko_ipv6_enable(AmbootEnv* environment);
int amboot_env_set_vesko_ipv6_enable(AmbootEnv* environment, bool on);

// Texts: null when the environment holds none. Setting an empty text takes the value away.
const char* amboot_env_get_vesko_ipv6_addresses(AmbootEnv* environment);
int amboot_env_set_vesko_ipv6_addresses(AmbootEnv* environment, const char* addresses);
const char* amboot_env_get_vesko_hostname(AmbootEnv* environment);
int amboot_env_set_vesko_hostname(AmbootEnv* environment, const char* hostname);

#ifdef __cplusplus
}
#endif
