#include "netif/routing_table_manager.h"

#include <sys/socket.h>

#include <algorithm>
#include <string>
#include <string_view>
#include <unordered_map>

#include "netif/interface_name.h"
#include "netif/kernel_answers.h"
#include "netif/libnetif_socket.h"
#include "netif/netlink_dump.h"

namespace libnetif {

namespace {

constexpr std::string_view request_name = "routing table entry";

// The routes as they come in, each with the index of its interface.
struct route_list {
  std::vector<ipv4_routing_entry> entries;
  std::vector<int> interface_indexes;

  void append(const netlink_message& message) {
    ipv4_routing_entry entry;
    int interface_index = 0;
    if (!parse_ipv4_route(message, entry, interface_index)) return;
    make_room();
    entries.push_back(std::move(entry));
    interface_indexes.push_back(interface_index);
  }

  // A large table is dear to move, whereas room that is not used is never touched: so it grows in few steps.
  void make_room() {
    constexpr size_t first_capacity = 64;
    constexpr size_t growth = 4;
    if (entries.size() < entries.capacity()) return;
    entries.reserve(std::max(first_capacity, growth * entries.size()));
  }
};

void fill_in_names(route_list& routes) {
  libnetif_socket socket;
  socket.create_ip_proto_socket(AF_INET);
  std::unordered_map<int, std::string> names{{0, ""}};  // by interface index; 0 = the route names none
  for (size_t i = 0; i < routes.entries.size(); ++i) {
    const auto [place, is_new] = names.try_emplace(routes.interface_indexes[i]);
    if (is_new) place->second = read_interface_name(socket, routes.interface_indexes[i]);
    routes.entries[i].interface_name = place->second;
  }
}

}  // namespace

std::vector<ipv4_routing_entry> routing_table_manager::get_ipv4_routing_entries() const {
  route_list routes;
  read_netlink_dump(
      RTM_GETROUTE, sizeof(rtmsg), request_name, [&routes] { routes = {}; },
      [&routes](const netlink_message& message) { routes.append(message); });
  fill_in_names(routes);
  return std::move(routes.entries);
}

}  // namespace libnetif
