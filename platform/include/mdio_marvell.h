// mdio_marvell.h: the registers of external PHYs behind the switch of a network interface.
#pragma once

#include <stdbool.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

// Register 0 to 31 of PHY `phy_id` (0 to 31) on the external bus of the switch at `switch_phy_id` (0 to 31).
// False for other numbers, and when the interface, the switch or its bus does not answer; *value is then
// untouched.
bool mdio_marvell_external_phy_read(const char* interface, uint8_t switch_phy_id, uint8_t phy_id, uint8_t reg,
                                    uint16_t* value);
bool mdio_marvell_external_phy_write(const char* interface, uint8_t switch_phy_id, uint8_t phy_id,
                                     uint8_t reg, uint16_t value);

#ifdef __cplusplus
}
#endif
