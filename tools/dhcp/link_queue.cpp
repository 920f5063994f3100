#include "link_queue.h"

#include "net/netlink.h"

#include <linux/rtnetlink.h>
#include <unistd.h>

#include <cstring>

namespace {

constexpr gint64 PATIENCE = G_USEC_PER_SEC / 2;
constexpr gulong PAUSE = G_USEC_PER_SEC / 100;
constexpr char FIRST_QUEUE[] = "pfifo_fast";

// The record's value tells whether eth0 still has the kernel's first queue.
quarn_netlink_info* first_queue_callback(const nlmsghdr* message, unsigned eth0_index)
{
    const auto* header = static_cast<const ifinfomsg*>(NLMSG_DATA(message));
    if (message->nlmsg_type != RTM_NEWLINK || message->nlmsg_len < NLMSG_LENGTH(sizeof *header) ||
        static_cast<unsigned>(header->ifi_index) != eth0_index)
        return nullptr;
    bool is_first = false;
    const auto* attribute = IFLA_RTA(header);
    auto remaining = static_cast<int>(IFLA_PAYLOAD(message));
    for (; RTA_OK(attribute, remaining); attribute = RTA_NEXT(attribute, remaining)) {
        if (attribute->rta_type == IFLA_QDISC && RTA_PAYLOAD(attribute) == sizeof FIRST_QUEUE)
            is_first = std::memcmp(RTA_DATA(attribute), FIRST_QUEUE, sizeof FIRST_QUEUE) == 0;
    }
    auto* record = g_new0(quarn_netlink_info, 1);
    record->value = is_first ? 1 : 0;
    return record;
}

bool has_first_queue()
{
    const NetlinkInfoList link = get_netlink_info(RTM_GETLINK, NetlinkFamily::IPV4, first_queue_callback);
    return link != nullptr && link->value != 0;
}

} // namespace

void wait_for_shaping(pid_t client)
{
    const gint64 deadline = g_get_monotonic_time() + PATIENCE;
    while (getppid() == client && g_get_monotonic_time() < deadline && has_first_queue())
        g_usleep(PAUSE);
}
