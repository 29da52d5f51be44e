#include "netif/ipv4_routing_entry.h"

#include <sys/socket.h>

#include <utility>

namespace libnetif {

namespace {

uint32_t netmask_of(unsigned int prefix_length) {
  constexpr unsigned int all_bits = 32;
  return prefix_length >= all_bits ? UINT32_MAX : (1U << prefix_length) - 1;
}

}  // namespace

bool parse_ipv4_route(const netlink_message& message, ipv4_routing_entry& entry, int& interface_index) {
  const auto route = read_prefix<rtmsg>(message.payload);
  if (message.type != RTM_NEWROUTE || !route) return false;
  if (route->rtm_family != AF_INET || route->rtm_table != RT_TABLE_MAIN) return false;
  ipv4_routing_entry found;
  found.netmask = netmask_of(route->rtm_dst_len);
  uint32_t index = 0;
  for_each_attribute(skip_aligned(message.payload, sizeof(rtmsg)), [&](uint16_t type, byte_span payload) {
    const uint32_t value = read_prefix<uint32_t>(payload).value_or(0);
    switch (type) {
      case RTA_DST:
        found.destination = value;
        break;
      case RTA_OIF:
        index = value;
        break;
      case RTA_GATEWAY:
        found.gateway = value;
        break;
      case RTA_PRIORITY:
        found.metric = value;
        break;
      case RTA_PREFSRC:
        found.source = value;
        break;
      default:
        break;
    }
  });
  entry = std::move(found);
  interface_index = static_cast<int>(index);
  return true;
}

}  // namespace libnetif
