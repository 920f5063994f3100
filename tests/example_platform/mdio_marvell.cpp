#include "mdio_marvell.h"

// This camera has no switch: no register can be reached.
bool mdio_marvell_external_phy_read(const char* /*interface*/, uint8_t /*switch_phy_id*/, uint8_t /*phy_id*/,
                                    uint8_t /*reg*/, uint16_t* /*value*/)
{
    return false;
}

bool mdio_marvell_external_phy_write(const char* /*interface*/, uint8_t /*switch_phy_id*/, uint8_t /*phy_id*/,
                                     uint8_t /*reg*/, uint16_t /*value*/)
{
    return false;
}
