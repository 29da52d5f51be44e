#include "netif/network_interface_manager.h"

#include <linux/sockios.h>
#include <net/if.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <memory>

#include "netif/interface_name.h"
#include "netif/libnetif_socket.h"
#include "platform/cancellation.h"

namespace libnetif {

namespace {

struct name_index_deleter {
  void operator()(struct if_nameindex* list) const { ::if_freenameindex(list); }
};
using name_index = std::unique_ptr<struct if_nameindex[], name_index_deleter>;

name_index read_name_index() {
  const CancellationBlock block;  // the system's function is declared to throw nothing
  return name_index(::if_nameindex());
}

std::vector<network_interface> interfaces_of(const name_index& list) {
  std::vector<network_interface> interfaces;
  // The kernel's list ends with an entry that has neither index nor name.
  for (size_t i = 0; list[i].if_index != 0 && list[i].if_name != nullptr; ++i) {
    interfaces.emplace_back(list[i].if_name);
  }
  return interfaces;
}

// Asks with room for ever more records until the kernel leaves some of it unused.
std::vector<ifreq> read_interface_configuration() {
  constexpr size_t records_per_step = 10;
  libnetif_socket socket;
  socket.create_ip_proto_socket(AF_INET);
  std::vector<ifreq> records;
  ifconf configuration{};
  size_t used = 0;
  do {
    records.resize(records.size() + records_per_step);
    configuration.ifc_len = static_cast<int>(records.size() * sizeof(ifreq));
    configuration.ifc_req = records.data();
    socket.invoke_ioctl(SIOCGIFCONF, &configuration, "Retriving interface information failed.");
    used = static_cast<size_t>(std::max(configuration.ifc_len, 0)) / sizeof(ifreq);
  } while (used >= records.size());
  socket.close_socket_descriptor();
  records.resize(used);
  return records;
}

std::vector<network_interface> interfaces_of(const std::vector<ifreq>& records) {
  std::vector<network_interface> interfaces;
  interfaces.reserve(records.size());
  for (const ifreq& record : records) {
    interfaces.emplace_back(std::string(record.ifr_name, ::strnlen(record.ifr_name, sizeof record.ifr_name)));
  }
  return interfaces;
}

}  // namespace

std::vector<network_interface> network_interface_manager::get_network_interfaces() const {
  if (const name_index list = read_name_index()) return interfaces_of(list);
  return interfaces_of(read_interface_configuration());
}

std::string network_interface_manager::get_network_interface_name_by_ipv4_index(int index) const {
  libnetif_socket socket;
  socket.create_ip_proto_socket(AF_INET);
  std::string name = read_interface_name(socket, index);
  if (name.empty()) socket.report_error(read_interface_name_failure, ENODEV);
  socket.close_socket_descriptor();
  return name;
}

pid_t network_interface_manager::add_network_interface_change_event(
    interface_change_event_type type, const network_interface_change_callback& callback) const {
  return start_interface_change_listener(type, callback);
}

}  // namespace libnetif
