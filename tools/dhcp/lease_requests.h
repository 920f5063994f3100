// lease_requests.h: what a DHCP client or a router advertisement tells, as one set request for the daemon.
#pragma once

#include "core/owned.h"

#include <map>
#include <string>
#include <string_view>

// The environment that a client gives its script.
using Variables = std::map<std::string, std::string, std::less<>>;

// What was reported last of one family. The mark is the client's that reported it.
struct LastReport {
    std::string mark;
    OwnedJson request; // null: nothing yet
};

// The report that an event calls for; its request is null when the event changes nothing. `client` stands for
// one process and no later one.
LastReport udhcpc_report(std::string_view event, const Variables& variables, const std::string& client,
                         const LastReport& last);
LastReport dhclient_report(const Variables& variables, const std::string& client, const LastReport& last);

// `resolv_conf` is the content of the file that rdnssd keeps.
OwnedJson router_advertisement_request(std::string_view resolv_conf);
