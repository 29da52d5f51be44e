#pragma once

#include <linux/netlink.h>

#include <cstddef>
#include <cstdint>
#include <string_view>
#include <vector>

#include "netif/netlink.h"
#include "platform/unique_fd.h"

namespace libnetif {

// One socket, for interface ioctls or for rtnetlink. It owns its descriptor (close-on-exec) and closes it at the latest
// in its destructor. An object belongs to one thread at a time.
//
// Every failure closes the socket first and then throws libnetif_exception with the text given below and the error
// number of the failed call.
class libnetif_socket {
 public:
  // -1 before creation, 0 after closing.
  int32_t descriptor() const { return m_descriptor; }

  // "Socket creation error."
  void create_socket_descriptor(int domain, int type, int protocol);
  // A datagram socket of that address family.
  void create_ip_proto_socket(int socket_type);
  void create_netlink_socket();
  void close_socket_descriptor();

  // The message itself is the text of a failure.
  void invoke_ioctl(unsigned long request, void* argument, std::string_view message);

  // "Binding for <name> failed."
  void bind_netlink_socket(const sockaddr_nl& address, std::string_view name);

  // Asks the kernel for a dump: a header of that message type and a zeroed payload, which selects all address families.
  // "Request for <name> failed."
  void send_netlink_message(size_t payload_size, uint16_t type, std::string_view name);

  // Receives datagrams and passes their messages to the handler until NLMSG_DONE was seen; see walk_netlink_datagram.
  // A datagram without one whole message is dropped. False when the kernel said that what it told changed meanwhile, so
  // that something may be missing or twice. "Receiving <name> failed."; for an error message, wherever it stands in its
  // datagram, "Received <name> reports error." with the error that it reports.
  bool receive_netlink_message(netlink_message_handler handler, void* context, std::string_view name);

  // Receives one datagram, whatever its size, with these flags of recv; an interrupted call is repeated. False with
  // errno set and the socket open.
  bool receive_datagram(std::vector<std::byte>& datagram, int flags = 0) const;

  // Asks for that much room for datagrams not yet received, as far as the system grants it. No failure.
  void enlarge_receive_buffer(int bytes) const;

  // Closes the socket and throws the message with the current errno, or with the given number.
  [[noreturn]] void report_error(std::string_view message);
  [[noreturn]] void report_error(std::string_view message, int error_number);

 private:
  UniqueFd m_owner;
  // Kept beside the owner, because 0 can be the number of an open socket as well.
  int32_t m_descriptor = -1;
};

}  // namespace libnetif
