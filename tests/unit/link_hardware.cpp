#include "link_hardware.h"

#include <dlfcn.h>
#include <linux/mii.h>
#include <linux/sockios.h>
#include <net/if.h>
#include <sys/ioctl.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>

namespace {

constexpr unsigned COMMAND_REGISTER = 24;
constexpr unsigned DATA_REGISTER = 25;
constexpr unsigned BUSY = 0x8000;
constexpr int FAR_TOO_MANY_POLLS = 150;

LinkHardware* hardware = nullptr;

template <typename... Values> std::string text(const char* format, Values... values)
{
    char buffer[128];
    std::snprintf(buffer, sizeof buffer, format, values...);
    return buffer;
}

int fail(int error)
{
    errno = error;
    return -1;
}

int answer_mii(unsigned long request, ifreq& interface)
{
    mii_ioctl_data data{};
    std::memcpy(&data, &interface.ifr_ifru, sizeof data);
    std::uint16_t value = data.val_out;
    const int result =
        hardware->handle_mii(request == SIOCSMIIREG, data.phy_id, data.reg_num, data.val_in, value);
    data.val_out = value;
    std::memcpy(&interface.ifr_ifru, &data, sizeof data);
    return result;
}

} // namespace

extern "C" int ioctl(int descriptor, unsigned long request, ...) noexcept
{
    va_list arguments;
    va_start(arguments, request);
    void* argument = va_arg(arguments, void*);
    va_end(arguments);
    const bool is_modelled = request == SIOCETHTOOL || request == SIOCGMIIREG || request == SIOCSMIIREG;
    if (hardware == nullptr || !is_modelled) {
        using Ioctl = int(int, unsigned long, ...);
        return reinterpret_cast<Ioctl*>(dlsym(RTLD_NEXT, "ioctl"))(descriptor, request, argument);
    }
    if (descriptor < 0)
        return fail(EBADF);
    ifreq& interface = *static_cast<ifreq*>(argument);
    if (std::strcmp(interface.ifr_name, "eth0") != 0)
        return fail(ENODEV);
    if (request == SIOCETHTOOL)
        return hardware->handle_ethtool(*reinterpret_cast<ethtool_cmd*>(interface.ifr_data));
    return answer_mii(request, interface);
}

LinkHardware::LinkHardware()
{
    hardware = this;
}

LinkHardware::~LinkHardware()
{
    hardware = nullptr;
}

int LinkHardware::handle_ethtool(ethtool_cmd& command)
{
    if (command.cmd == ETHTOOL_GSET) {
        if (answered_gets-- <= 0)
            return fail(EOPNOTSUPP);
        command = link;
        command.cmd = ETHTOOL_GSET;
        return 0;
    }
    if (command.cmd != ETHTOOL_SSET || refuses_set)
        return fail(EOPNOTSUPP);
    modes_set.push_back(text("speed %d %s autoneg %s advertising 0x%08X",
                             static_cast<int>(ethtool_cmd_speed(&command)),
                             command.duplex == DUPLEX_FULL ? "full" : "half",
                             command.autoneg == AUTONEG_ENABLE ? "on" : "off", command.advertising));
    link = command;
    return 0;
}

int LinkHardware::handle_mii(bool writes, unsigned phy_id, unsigned reg, std::uint16_t value_in,
                             std::uint16_t& value_out)
{
    if (answered_accesses-- <= 0)
        return fail(EIO);
    accesses.push_back(writes ? text("set %u.%u 0x%04X", phy_id, reg, value_in)
                              : text("get %u.%u", phy_id, reg));
    if (phy_id != switch_id || (reg != COMMAND_REGISTER && reg != DATA_REGISTER)) {
        value_out = 0xFFFF;
        return 0;
    }
    if (writes && reg == COMMAND_REGISTER)
        run_bus_command(value_in);
    else if (writes)
        data_register_ = value_in;
    else if (reg == DATA_REGISTER)
        value_out = data_register_;
    else
        value_out = static_cast<std::uint16_t>(busy_polls_left_-- > 0 ? command_register_
                                                                      : command_register_ & ~BUSY);
    return 0;
}

void LinkHardware::run_bus_command(unsigned command)
{
    const unsigned phy_id = (command >> 5) & 0x1F;
    const unsigned reg = command & 0x1F;
    command_register_ = command;
    busy_polls_left_ = busy_polls;
    const auto phy = phys.find(phy_id);
    std::string access;
    // Busy, clause 22, then "read" or "write".
    if ((command & 0xFC00) == 0x9800) {
        access = text("read %u:%u", phy_id, reg);
        data_register_ = phy != phys.end() ? phy->second[reg] : 0xFFFF;
        bus.push_back(access);
    } else if ((command & 0xFC00) == 0x9400) {
        access = text("write %u:%u", phy_id, reg);
        if (phy != phys.end())
            phy->second[reg] = data_register_;
        bus.push_back(access + text(" 0x%04X", data_register_));
    } else {
        bus.push_back(text("unknown command 0x%04X", command));
    }
    if (slow_accesses.contains(access))
        busy_polls_left_ = FAR_TOO_MANY_POLLS;
}
