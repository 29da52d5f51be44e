#pragma once

#include <cstdint>

#include "netif/netlink.h"

namespace libnetif {

// Traffic of one interface. The kernel's 32-bit counters are the source, so each wraps at 2^32.
struct network_statistics {
  uint64_t tx_bytes = 0;
  uint64_t rx_bytes = 0;
  uint64_t tx_packets = 0;
  uint64_t rx_packets = 0;

  bool operator==(const network_statistics&) const = default;
};

// True when the message describes the link of that index and carries its counters, which are then in statistics.
// Otherwise statistics stays as it was.
bool parse_link_statistics(const netlink_message& message, int interface_index, network_statistics& statistics);

}  // namespace libnetif
