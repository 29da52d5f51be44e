#pragma once

#include <vector>

#include "netif/ipv4_routing_entry.h"
#include "platform/export.h"

namespace libnetif {

// The IPv4 routing table of the host. It has no state; any thread may ask.
class RAVD_EXPORT routing_table_manager {
 public:
  // The routes of the main table in the kernel's order, one entry per route. The interface names are looked up once per
  // interface when the routes are there; one that has vanished meanwhile leaves the name empty.
  // Failures: libnetif_exception from the request to the kernel, with texts such as
  // "Request for routing table entry failed.", or "Retriving interface name by index failed."
  std::vector<ipv4_routing_entry> get_ipv4_routing_entries() const;
};

}  // namespace libnetif
