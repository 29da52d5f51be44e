#include "netif/routing_table_manager.h"

#include <sys/socket.h>

#include <string_view>
#include <unordered_map>
#include <utility>

#include "netif/interface_name.h"
#include "netif/libnetif_socket.h"

namespace libnetif {

namespace {

constexpr std::string_view request_name = "routing table entry";

struct route_list {
  std::vector<ipv4_routing_entry> entries;
  std::vector<int> interface_indexes;  // one per entry, 0 for none
};

void append_route(const netlink_message& message, void* context) {
  auto& routes = *static_cast<route_list*>(context);
  ipv4_routing_entry entry;
  int interface_index = 0;
  if (!parse_ipv4_route(message, entry, interface_index)) return;
  routes.entries.push_back(std::move(entry));
  routes.interface_indexes.push_back(interface_index);
}

void set_interface_names(route_list& routes) {
  libnetif_socket socket;
  socket.create_ip_proto_socket(AF_INET);
  std::unordered_map<int, std::string> names{{0, ""}};
  for (size_t i = 0; i < routes.entries.size(); ++i) {
    const auto [place, is_new] = names.try_emplace(routes.interface_indexes[i]);
    if (is_new) place->second = read_interface_name(socket, place->first);
    routes.entries[i].interface_name = place->second;
  }
  socket.close_socket_descriptor();
}

}  // namespace

std::vector<ipv4_routing_entry> routing_table_manager::get_ipv4_routing_entries() const {
  route_list routes;
  libnetif_socket socket;
  socket.create_netlink_socket();
  socket.send_netlink_message(sizeof(rtmsg), RTM_GETROUTE, request_name);
  socket.receive_netlink_message(append_route, &routes, request_name);
  socket.close_socket_descriptor();
  set_interface_names(routes);
  return std::move(routes.entries);
}

}  // namespace libnetif
