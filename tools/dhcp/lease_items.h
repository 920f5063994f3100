// lease_items.h: what may be used of the texts that servers and routers send. Items are parted by single
// blanks; one that the daemon would refuse, or that no host may have, is left out with a line in the log.
// `what` names the list in that line.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

using ItemTest = bool (*)(const std::string& item);

// The address of one host: neither multicast nor loopback nor unspecified.
bool is_host_ipv4(const std::string& item);
bool is_host_ipv6(const std::string& item);
// An address that a server may lease: link-local ones are the hosts' own to make.
bool is_leasable_ipv6(const std::string& item);
bool is_ipv4_or_name(const std::string& item);
bool is_ipv6_or_name(const std::string& item);

inline constexpr std::size_t NO_LIMIT = static_cast<std::size_t>(-1);

// The first `limit` usable items.
std::vector<std::string> pick_items(const char* what, std::string_view text, ItemTest is_usable,
                                    std::size_t limit);
// Search domains without their trailing dots, as many as a search list may have.
std::vector<std::string> pick_domains(const char* what, std::string_view text);
