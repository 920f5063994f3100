#include "net/external_phy.h"

#include "core/log.h"
#include "core/owned.h"
#include "mdio_marvell.h"
#include "trell_core.h"

#include <cstdint>
#include <span>

namespace {

constexpr char INTERFACE[] = "eth0";
constexpr unsigned BYTE = 0xFF;

// Registers and bits of IEEE 802.3 clause 22.
constexpr std::uint8_t CONTROL = 0;
constexpr unsigned CONTROL_MODE_BITS = 0x3940;
constexpr unsigned CONTROL_1000 = 0x40;
constexpr unsigned CONTROL_100 = 0x2000;
constexpr unsigned CONTROL_FULL_DUPLEX = 0x100;
constexpr unsigned CONTROL_POWER_DOWN = 0x800;
constexpr unsigned CONTROL_RESTART_AUTONEGOTIATION = 0x1200;
constexpr std::uint8_t ADVERTISEMENT = 4;
constexpr unsigned ADVERTISEMENT_MODE_BITS = 0x3E0;
constexpr unsigned ADVERTISEMENT_SHIFT = 5;
constexpr unsigned ADVERTISEMENT_PAUSE = 0x400;
constexpr unsigned ADVERTISEMENT_ASYMMETRIC_PAUSE = 0x800;
constexpr std::uint8_t GIGABIT_CONTROL = 9;
constexpr unsigned GIGABIT_MODE_BITS = 0x300;
constexpr unsigned GIGABIT_HALF = 0x100;
constexpr unsigned GIGABIT_FULL = 0x200;

// The four modes of 10 and 100 Mb/s stand in the kernel's mask as in the advertisement register.
constexpr unsigned ADVERTISED_10_AND_100 = 0xF;

struct ExternalPhy {
    std::uint8_t switch_id;
    std::uint8_t id;
};

// How far the programming of one PHY came.
enum class Access { DONE, READ_FAILED, WRITE_FAILED };

bool read_phy(const ExternalPhy& phy, std::uint8_t reg, std::uint16_t& value)
{
    return mdio_marvell_external_phy_read(INTERFACE, phy.switch_id, phy.id, reg, &value);
}

Access write_phy(const ExternalPhy& phy, std::uint8_t reg, unsigned value)
{
    return mdio_marvell_external_phy_write(INTERFACE, phy.switch_id, phy.id, reg,
                                           static_cast<std::uint16_t>(value))
               ? Access::DONE
               : Access::WRITE_FAILED;
}

Access write_if_changed(const ExternalPhy& phy, std::uint8_t reg, std::uint16_t old_value, unsigned new_value)
{
    return new_value == old_value ? Access::DONE : write_phy(phy, reg, new_value);
}

Access set_fixed_mode(const ExternalPhy& phy, const ethtool_cmd& command)
{
    std::uint16_t control = 0;
    if (!read_phy(phy, CONTROL, control))
        return Access::READ_FAILED;
    const std::uint32_t speed = ethtool_cmd_speed(&command);
    unsigned mode = control & ~CONTROL_MODE_BITS;
    if (speed == SPEED_1000)
        mode |= CONTROL_1000;
    else if (speed == SPEED_100)
        mode |= CONTROL_100;
    if (command.duplex == DUPLEX_FULL)
        mode |= CONTROL_FULL_DUPLEX;
    return write_if_changed(phy, CONTROL, control, mode);
}

unsigned advertisement_of(std::uint16_t old_value, std::uint32_t advertising)
{
    unsigned value = (old_value & ~ADVERTISEMENT_MODE_BITS) |
                     ((advertising & ADVERTISED_10_AND_100) << ADVERTISEMENT_SHIFT);
    if (advertising & ADVERTISED_Pause)
        value |= ADVERTISEMENT_PAUSE;
    if (advertising & ADVERTISED_Asym_Pause)
        value |= ADVERTISEMENT_ASYMMETRIC_PAUSE;
    return value;
}

unsigned gigabit_control_of(std::uint16_t old_value, std::uint32_t advertising)
{
    unsigned value = old_value & ~GIGABIT_MODE_BITS;
    if (advertising & ADVERTISED_1000baseT_Half)
        value |= GIGABIT_HALF;
    if (advertising & ADVERTISED_1000baseT_Full)
        value |= GIGABIT_FULL;
    return value;
}

Access set_autonegotiation(const ExternalPhy& phy, const ethtool_cmd& command)
{
    std::uint16_t advertisement = 0;
    std::uint16_t gigabit_control = 0;
    std::uint16_t control = 0;
    if (!read_phy(phy, ADVERTISEMENT, advertisement) || !read_phy(phy, GIGABIT_CONTROL, gigabit_control))
        return Access::READ_FAILED;
    Access access = write_if_changed(phy, ADVERTISEMENT, advertisement,
                                     advertisement_of(advertisement, command.advertising));
    if (access == Access::DONE)
        access = write_if_changed(phy, GIGABIT_CONTROL, gigabit_control,
                                  gigabit_control_of(gigabit_control, command.advertising));
    if (access != Access::DONE)
        return access;
    if (!read_phy(phy, CONTROL, control))
        return Access::READ_FAILED;
    return write_phy(phy, CONTROL, (control & ~CONTROL_POWER_DOWN) | CONTROL_RESTART_AUTONEGOTIATION);
}

} // namespace

bool ethtool_set_data_external_phys(const ethtool_cmd& command)
{
    TrellConfiguration* opened = nullptr;
    if (trell_core_configuration_init("quarn", &opened) != 0)
        return true;
    const std::unique_ptr<TrellConfiguration, Releaser<trell_core_configuration_deinit>> configuration(
        opened);
    int* ids = nullptr;
    std::size_t count = 0;
    int switch_id = 0;
    if (trell_core_configuration_get_arrayofint_value(opened, "external_phy_ids", &ids, &count) != 0)
        return true;
    const std::unique_ptr<int, Releaser<trell_core_free_int_array>> owned_ids(ids);
    if (trell_core_configuration_get_int_value(opened, "switch_phy_id", &switch_id) != 0)
        return true;
    bool succeeded = true;
    for (const int id : std::span(ids, count)) {
        const ExternalPhy phy = {static_cast<std::uint8_t>(static_cast<unsigned>(switch_id) & BYTE),
                                 static_cast<std::uint8_t>(static_cast<unsigned>(id) & BYTE)};
        const Access access = command.autoneg == AUTONEG_ENABLE ? set_autonegotiation(phy, command)
                                                                : set_fixed_mode(phy, command);
        if (access == Access::READ_FAILED)
            log_message(LEVEL_ERROR, "%s: %d: Failure reading external phy %d:%d", HERE, phy.switch_id,
                        phy.id);
        else if (access == Access::WRITE_FAILED)
            log_message(LEVEL_ERROR, "%s: %d: Failure writing external phy %d:%d", HERE, phy.switch_id,
                        phy.id);
        succeeded &= access == Access::DONE;
    }
    return succeeded;
}
