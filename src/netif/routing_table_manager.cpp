#include "netif/routing_table_manager.h"

#include <sys/socket.h>

#include <algorithm>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>

#include "netif/interface_name.h"
#include "netif/libnetif_socket.h"

namespace libnetif {

namespace {

constexpr std::string_view request_name = "routing table entry";

// Makes the entries as the routes come in. The name of an interface is looked up when the first of its routes comes.
class route_reader {
 public:
  route_reader() { m_socket.create_ip_proto_socket(AF_INET); }

  static void append_route(const netlink_message& message, void* context) {
    auto& reader = *static_cast<route_reader*>(context);
    reader.make_room();
    ipv4_routing_entry& entry = reader.m_entries.emplace_back();
    int interface_index = 0;
    if (parse_ipv4_route(message, entry, interface_index)) {
      entry.interface_name = reader.name_of(interface_index);
    } else {
      reader.m_entries.pop_back();
    }
  }

  std::vector<ipv4_routing_entry> take_entries() { return std::move(m_entries); }

 private:
  // A large table is dear to move, whereas room that is not used is never touched: so it grows in few steps.
  void make_room() {
    constexpr size_t first_capacity = 64;
    constexpr size_t growth = 4;
    if (m_entries.size() < m_entries.capacity()) return;
    m_entries.reserve(std::max(first_capacity, growth * m_entries.size()));
  }

  const std::string& name_of(int interface_index) {
    const auto [place, is_new] = m_names.try_emplace(interface_index);
    if (is_new) place->second = read_interface_name(m_socket, interface_index);
    return place->second;
  }

  libnetif_socket m_socket;
  std::unordered_map<int, std::string> m_names{{0, ""}};  // by interface index; 0 = the route names none
  std::vector<ipv4_routing_entry> m_entries;
};

}  // namespace

std::vector<ipv4_routing_entry> routing_table_manager::get_ipv4_routing_entries() const {
  route_reader reader;
  libnetif_socket socket;
  socket.create_netlink_socket();
  socket.send_netlink_message(sizeof(rtmsg), RTM_GETROUTE, request_name);
  socket.receive_netlink_message(route_reader::append_route, &reader, request_name);
  socket.close_socket_descriptor();
  return reader.take_entries();
}

}  // namespace libnetif
