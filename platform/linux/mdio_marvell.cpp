#include "mdio_marvell.h"

#include "owners.h"
#include "platform_log.h"

#include <linux/mii.h>
#include <linux/sockios.h>
#include <net/if.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include <cstring>

namespace {

// The switch's second global register block, at its own PHY id: a command register and a data register lead
// to the bus of the external PHYs.
constexpr std::uint16_t SMI_COMMAND_REGISTER = 0x18;
constexpr std::uint16_t SMI_DATA_REGISTER = 0x19;
constexpr unsigned SMI_BUSY = 0x8000;
constexpr unsigned SMI_CLAUSE_22 = 0x1000;
constexpr unsigned SMI_WRITE = 0x0400;
constexpr unsigned SMI_READ = 0x0800;
constexpr unsigned SMI_DEVICE_SHIFT = 5;

// An access takes some 30 microseconds, as each poll does; a switch that is busy longer is not well.
constexpr int POLLS = 100;

// Addresses and registers of the bus have five bits; what is cut off would reach another PHY.
constexpr unsigned BUS_ADDRESSES = 32;

struct Switch {
    int socket;
    const char* interface;
    std::uint8_t id;
};

bool access_register(const Switch& device, unsigned long request, std::uint16_t reg, std::uint16_t& value)
{
    ifreq interface {};
    std::strncpy(interface.ifr_name, device.interface, sizeof interface.ifr_name - 1);
    mii_ioctl_data access{};
    access.phy_id = device.id;
    access.reg_num = reg;
    access.val_in = value;
    // The kernel reads the record where the request's data would stand.
    static_assert(sizeof access <= sizeof interface.ifr_ifru);
    std::memcpy(&interface.ifr_ifru, &access, sizeof access);
    if (ioctl(device.socket, request, &interface) != 0)
        return false;
    std::memcpy(&access, &interface.ifr_ifru, sizeof access);
    value = access.val_out;
    return true;
}

bool read_register(const Switch& device, std::uint16_t reg, std::uint16_t& value)
{
    return access_register(device, SIOCGMIIREG, reg, value);
}

bool write_register(const Switch& device, std::uint16_t reg, unsigned value)
{
    auto written = static_cast<std::uint16_t>(value);
    return access_register(device, SIOCSMIIREG, reg, written);
}

bool wait_until_idle(const Switch& device)
{
    for (int poll = 0; poll < POLLS; poll++) {
        std::uint16_t command = 0;
        if (!read_register(device, SMI_COMMAND_REGISTER, command))
            return false;
        if ((command & SMI_BUSY) == 0)
            return true;
    }
    return false;
}

bool run_command(const Switch& device, unsigned operation, std::uint8_t phy_id, std::uint8_t reg)
{
    const unsigned device_bits = static_cast<unsigned>(phy_id) << SMI_DEVICE_SHIFT;
    const unsigned command = SMI_BUSY | SMI_CLAUSE_22 | operation | device_bits | reg;
    return write_register(device, SMI_COMMAND_REGISTER, command) && wait_until_idle(device);
}

bool can_be_reached(const Switch& device, std::uint8_t phy_id, std::uint8_t reg)
{
    return device.id < BUS_ADDRESSES && phy_id < BUS_ADDRESSES && reg < BUS_ADDRESSES &&
           wait_until_idle(device);
}

} // namespace

bool mdio_marvell_external_phy_read(const char* interface, uint8_t switch_phy_id, uint8_t phy_id, uint8_t reg,
                                    uint16_t* value)
{
    const platform::Descriptor socket(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    const Switch device = {socket.get(), interface, switch_phy_id};
    std::uint16_t data = 0;
    if (!can_be_reached(device, phy_id, reg) || !run_command(device, SMI_READ, phy_id, reg) ||
        !read_register(device, SMI_DATA_REGISTER, data))
        return false;
    *value = data;
    return true;
}

bool mdio_marvell_external_phy_write(const char* interface, uint8_t switch_phy_id, uint8_t phy_id,
                                     uint8_t reg, uint16_t value)
{
    const platform::Descriptor socket(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    const Switch device = {socket.get(), interface, switch_phy_id};
    return can_be_reached(device, phy_id, reg) && write_register(device, SMI_DATA_REGISTER, value) &&
           run_command(device, SMI_WRITE, phy_id, reg);
}
