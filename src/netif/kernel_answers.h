#pragma once

#include <string_view>

#include "netif/interface_change.h"
#include "netif/ipv4_routing_entry.h"
#include "netif/netlink.h"
#include "netif/network_interface.h"
#include "netif/network_statistics.h"

// What the kernel answers, made into the values of the public headers: pure functions, safe from any thread. Each is
// true when it found what it is for; otherwise the outputs stay as they were.
namespace libnetif {

// A change of one of the wanted types.
bool parse_interface_change(const netlink_message& message, interface_change_event_type wanted,
                            interface_change& change);

// An IPv4 route of the main table. entry then holds everything but the interface name, for which interface_index
// stands, 0 when the route has none. An attribute too short for its value counts as missing, a prefix beyond 32 bits as
// 32.
bool parse_ipv4_route(const netlink_message& message, ipv4_routing_entry& entry, int& interface_index);

// The link of that index with its counters.
bool parse_link_statistics(const netlink_message& message, int interface_index, network_statistics& statistics);

// "80:00:02:08:fe:80:...:f1\n", twenty hexadecimal byte values => the twenty bytes.
bool parse_infiniband_address(std::string_view text, infiniband_address& address);

}  // namespace libnetif
