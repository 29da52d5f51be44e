#include "netif/network_statistics.h"

#include "netif/kernel_answers.h"

namespace libnetif {

namespace {

// The head of the kernel's rtnl_link_stats. The error counters behind it are of no use here.
struct traffic_counters {
  uint32_t rx_packets;
  uint32_t tx_packets;
  uint32_t rx_bytes;
  uint32_t tx_bytes;
};

}  // namespace

bool parse_link_statistics(const netlink_message& message, int interface_index, network_statistics& statistics) {
  ifinfomsg link;
  if (message.type != RTM_NEWLINK || !read_prefix(message.payload, link)) return false;
  if (link.ifi_index != interface_index) return false;
  traffic_counters counters;
  bool found = false;
  for_each_attribute(skip_aligned(message.payload, sizeof link), [&](uint16_t type, byte_span payload) {
    if (type == IFLA_STATS) found = read_prefix(payload, counters);
  });
  if (!found) return false;
  statistics = {.tx_bytes = counters.tx_bytes,
                .rx_bytes = counters.rx_bytes,
                .tx_packets = counters.tx_packets,
                .rx_packets = counters.rx_packets};
  return true;
}

}  // namespace libnetif
