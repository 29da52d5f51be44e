#include "netif/ipv4_routing_entry.h"

#include <sys/socket.h>

#include <array>

#include "netif/kernel_answers.h"

namespace libnetif {

namespace {

uint32_t netmask_of(unsigned int prefix_length) {
  constexpr unsigned int all_bits = 32;
  return prefix_length >= all_bits ? UINT32_MAX : (1U << prefix_length) - 1;
}

}  // namespace

bool parse_ipv4_route(const netlink_message& message, ipv4_routing_entry& entry, int& interface_index) {
  rtmsg route;
  if (message.type != RTM_NEWROUTE || !read_prefix(message.payload, route)) return false;
  if (route.rtm_family != AF_INET || route.rtm_table != RT_TABLE_MAIN) return false;
  std::array<uint32_t, RTA_PREFSRC + 1> values{};  // by attribute type
  for_each_attribute(skip_aligned(message.payload, sizeof route), [&values](uint16_t type, byte_span payload) {
    if (type < values.size()) read_prefix(payload, values[type]);
  });
  entry.source = values[RTA_PREFSRC];
  entry.destination = values[RTA_DST];
  entry.netmask = netmask_of(route.rtm_dst_len);
  entry.gateway = values[RTA_GATEWAY];
  entry.metric = values[RTA_PRIORITY];
  entry.interface_name.clear();
  interface_index = static_cast<int>(values[RTA_OIF]);
  return true;
}

}  // namespace libnetif
