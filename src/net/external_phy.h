// net/external_phy.h: external PHYs, which the kernel does not know of, get the link mode that eth0 got.
#pragma once

#include <linux/ethtool.h>

// Programs every PHY that the daemon's configuration names ("external_phy_ids", "switch_phy_id"); without
// them there is nothing to do. False when an access failed; the PHYs after it are programmed all the same.
bool ethtool_set_data_external_phys(const ethtool_cmd& command);
