// scripted_kernel.h: a stand-in for the kernel's rtnetlink socket and its command line, while one is alive.
// It is for what the real kernel does not do at will (failures, malformed messages, addresses that come and
// go); the system tests read the real one.
#pragma once

#include <linux/rtnetlink.h>

#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

// The bytes of one attribute, its padding included.
std::string attribute(unsigned short type, const std::string& payload);
// One message: a header of the kind that the type calls for, and its attributes.
template <typename Header>
std::string netlink_message(unsigned short type, const Header& header, const std::string& attributes)
{
    nlmsghdr message{};
    message.nlmsg_type = type;
    message.nlmsg_len = static_cast<unsigned>(NLMSG_SPACE(sizeof header) + attributes.size());
    std::string bytes(reinterpret_cast<const char*>(&message), sizeof message);
    bytes.append(reinterpret_cast<const char*>(&header), sizeof header);
    bytes.resize(NLMSG_SPACE(sizeof header));
    return bytes + attributes;
}
// The bytes of an address, IPv4 or IPv6.
std::string address_bytes(const char* text);

// An address of eth0 as the kernel reports it, with the label "eth0" when it is an IPv4 one.
std::string address_message(const char* address, unsigned char prefix_length);
// A global IPv6 address of eth0 with a lifetime.
std::string stateless_address_message(const char* address);
// eth0 with its hardware address.
std::string link_message(const std::string& mac);
std::string done_message();

class ScriptedKernel {
public:
    ScriptedKernel();
    ~ScriptedKernel();
    ScriptedKernel(const ScriptedKernel&) = delete;
    ScriptedKernel& operator=(const ScriptedKernel&) = delete;

    // Makes the addresses those of eth0, replacing earlier ones of the family.
    void set_addresses(int family, const std::vector<std::string>& messages);

    // Request type and family to the datagrams of the answer; a request without an answer gets an empty dump.
    std::map<std::pair<int, int>, std::vector<std::string>> datagrams;
    // Every request that was sent.
    std::vector<std::string> requests;
    // The call that fails: "socket", "bind" or "sendto".
    std::string failing_call;
    int failing_receives = 0;
    // Descriptor that the last query used.
    int descriptor = -1;
    // What /proc/cmdline holds; nullopt: it cannot be opened.
    std::optional<std::string> command_line = "root=/dev/mmcblk0p2";
};
