#pragma once

#include <cstdint>

namespace libnetif {

// Traffic of one interface. The kernel's 32-bit counters are the source, so each wraps at 2^32.
struct network_statistics {
  uint64_t tx_bytes = 0;    // sent
  uint64_t rx_bytes = 0;    // received
  uint64_t tx_packets = 0;  // sent
  uint64_t rx_packets = 0;  // received

  // The same figures.
  bool operator==(const network_statistics&) const = default;
};

}  // namespace libnetif
