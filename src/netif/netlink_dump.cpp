#include "netif/netlink_dump.h"

#include "netif/libnetif_socket.h"

namespace libnetif {

namespace {

using Take = std::function<void(const netlink_message&)>;

void pass_on(const netlink_message& message, void* take) {
  (*static_cast<Take*>(take))(message);
}

}  // namespace

void read_netlink_dump(uint16_t type, size_t payload_size, std::string_view name, const std::function<void()>& begin,
                       Take take) {
  constexpr int attempts = 10;
  libnetif_socket socket;
  socket.create_netlink_socket();
  bool is_consistent = false;
  for (int attempt = 0; attempt < attempts && !is_consistent; ++attempt) {
    begin();
    socket.send_netlink_message(payload_size, type, name);
    is_consistent = socket.receive_netlink_message(pass_on, &take, name);
  }
  socket.close_socket_descriptor();
}

}  // namespace libnetif
