// Netlink datagrams as the interface library reads them: the walk over the messages and every reader of a message.

#include <cstdlib>

#include "netif/kernel_answers.h"

namespace {

constexpr size_t kMaxSize = 8192;

void ReadMessage(const libnetif::netlink_message& message, void* context) {
  using enum libnetif::interface_change_event_type;
  const auto& datagram = *static_cast<const libnetif::byte_span*>(context);
  if (!message.payload.empty() && (message.payload.data() < datagram.data() ||
                                   message.payload.data() + message.payload.size() > datagram.data() + datagram.size()))
    std::abort();

  libnetif::network_statistics statistics;
  libnetif::parse_link_statistics(message, 1, statistics);
  libnetif::ipv4_routing_entry entry;
  int index = 0;
  libnetif::parse_ipv4_route(message, entry, index);
  libnetif::interface_change change;
  libnetif::parse_interface_change(message, link_changes | ipv4_address_changes, change);
  if (change.name.find(':') != std::string::npos) std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size > kMaxSize) return 0;
  libnetif::byte_span datagram = std::as_bytes(std::span(data, size));
  const libnetif::netlink_datagram_result result = libnetif::walk_netlink_datagram(datagram, ReadMessage, &datagram);
  if (result.done && size < sizeof(nlmsghdr)) std::abort();
  libnetif::infiniband_address address{};
  libnetif::parse_infiniband_address({reinterpret_cast<const char*>(data), size}, address);
  return 0;
}
