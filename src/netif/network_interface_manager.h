#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

#include "netif/interface_change.h"
#include "netif/interface_change_listener.h"
#include "netif/network_interface.h"
#include "platform/export.h"

// The network of the host: its interfaces with their addresses and traffic, its routes, and what changes.
namespace libnetif {

// The interfaces of the host. It has no state; any thread may ask, and each call uses sockets of its own.
// Failures: libnetif_exception with the text given at the operation.
class RAVD_EXPORT network_interface_manager {
 public:
  // Every interface, of whatever kind and state, in the order of the system's name index. Where that index cannot be
  // had, those with an IPv4 address, one entry per address. "Retriving interface information failed."
  std::vector<network_interface> get_network_interfaces() const;

  // The name of the interface with that number. "Retriving interface name by index failed."
  std::string get_network_interface_name_by_ipv4_index(int index) const;

  // Starts a listener process for changes of these types and returns its process ID, which the caller waits for in the
  // end. The listener dies with the thread that starts it, not with the process: start it from one that lives as long
  // as changes are wanted. What the callback may do, in that other process, stands in interface_change_listener.h.
  pid_t add_network_interface_change_event(interface_change_event_type type,
                                           const network_interface_change_callback& callback) const;
};

}  // namespace libnetif
