#pragma once

#include <linux/rtnetlink.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <optional>
#include <span>
#include <type_traits>

// Reading of netlink datagrams: pure functions over the bytes that were received, safe from any thread. Whatever a
// length field says, nothing outside the given span is read.
namespace libnetif {

using byte_span = std::span<const std::byte>;

// One message without its header. The payload points into the datagram and lives as long as that.
struct netlink_message {
  uint16_t type = 0;
  byte_span payload;
};

using netlink_message_handler = void (*)(const netlink_message& message, void* context);

struct netlink_datagram_result {
  bool done = false;         // NLMSG_DONE was among the messages
  bool interrupted = false;  // a message says that the dump that it belongs to is not consistent (NLM_F_DUMP_INTR)
  std::optional<int> error;  // the error number, made positive, of an error message; the walk ended there
};

// Passes every message of the datagram but NLMSG_NOOP, NLMSG_DONE and NLMSG_ERROR to the handler, in their order.
// Messages behind NLMSG_DONE are walked too. The walk ends at an error message and where fewer bytes remain than a
// header needs or a length is below a header's or beyond the datagram. An error message too short for its number counts
// as EBADMSG.
netlink_datagram_result walk_netlink_datagram(byte_span datagram, netlink_message_handler handler, void* context);

// Copies the leading bytes into value. False when there are too few; value then stays as it was.
template <typename T>
bool read_prefix(byte_span bytes, T& value) {
  static_assert(std::is_trivially_copyable_v<T>);
  if (bytes.size() < sizeof(T)) return false;
  std::memcpy(&value, bytes.data(), sizeof(T));
  return true;
}

// What follows a message or an attribute of that length: both start at multiples of four bytes.
inline byte_span skip_aligned(byte_span bytes, size_t length) {
  constexpr size_t alignment = 4;
  return bytes.subspan(std::min((length + alignment - 1) / alignment * alignment, bytes.size()));
}

// Calls visit(type, payload) for each attribute. Ends at one that is shorter than its header or longer than the rest.
template <typename Visitor>
void for_each_attribute(byte_span bytes, Visitor visit) {
  for (rtattr attribute; read_prefix(bytes, attribute);) {
    const size_t length = attribute.rta_len;
    if (length < sizeof(rtattr) || length > bytes.size()) return;
    visit(attribute.rta_type, bytes.subspan(sizeof(rtattr), length - sizeof(rtattr)));
    bytes = skip_aligned(bytes, length);
  }
}

}  // namespace libnetif
