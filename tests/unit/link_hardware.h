// link_hardware.h: a model of eth0's hardware behind `ioctl`, while one is alive: its ethtool record, and the
// registers of a switch with PHYs on its external bus. A fake, since no such switch can be had for a test;
// the kernel's own ethtool record, that of a TAP, is in the system tests.
#pragma once

#include <linux/ethtool.h>

#include <array>
#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <vector>

class LinkHardware {
public:
    LinkHardware();
    ~LinkHardware();
    LinkHardware(const LinkHardware&) = delete;
    LinkHardware& operator=(const LinkHardware&) = delete;

    // What ETHTOOL_GSET gives, and ETHTOOL_SSET changes.
    ethtool_cmd link{};
    void set_speed(std::uint32_t speed) { ethtool_cmd_speed_set(&link, speed); }
    // So many ETHTOOL_GSET are answered, all later ones fail.
    int answered_gets = 1000;
    bool refuses_set = false;
    // Each ETHTOOL_SSET, as "speed 100 full autoneg off advertising 0x0000000F".
    std::vector<std::string> modes_set;

    // The switch's PHY id, and the registers of the PHYs on its external bus. A PHY that is not there reads
    // as all ones.
    unsigned switch_id = 28;
    std::map<unsigned, std::array<std::uint16_t, 32>> phys;
    // So many polls of the command register find the switch busy after a command.
    int busy_polls = 0;
    // Accesses ("read 5:0") after which the switch is busy for longer than anybody should wait.
    std::set<std::string> slow_accesses;
    // So many MII ioctls succeed, all later ones fail.
    int answered_accesses = 1000000;
    // What was done on the external bus: "read 5:4", "write 5:0 0x1200"; and every MII ioctl: "get 28.24",
    // "set 28.25 0x1200".
    std::vector<std::string> bus;
    std::vector<std::string> accesses;

    // What the model's ioctl answers.
    int handle_ethtool(ethtool_cmd& command);
    int handle_mii(bool writes, unsigned phy_id, unsigned reg, std::uint16_t value_in,
                   std::uint16_t& value_out);

private:
    void run_bus_command(unsigned command);

    unsigned command_register_ = 0;
    std::uint16_t data_register_ = 0;
    int busy_polls_left_ = 0;
};
