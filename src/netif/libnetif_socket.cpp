#include "netif/libnetif_socket.h"

#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <span>
#include <string>

#include "netif/libnetif_exception.h"

namespace libnetif {

namespace {

std::string text_about(std::string_view before, std::string_view name, std::string_view after) {
  return std::string(before).append(name).append(after);
}

}  // namespace

void libnetif_socket::create_socket_descriptor(int domain, int type, int protocol) {
  m_owner.Reset(::socket(domain, type | SOCK_CLOEXEC, protocol));
  if (!m_owner) report_error("Socket creation error.");
  m_descriptor = m_owner.Get();
}

void libnetif_socket::create_ip_proto_socket(int socket_type) {
  create_socket_descriptor(socket_type, SOCK_DGRAM, 0);
}

void libnetif_socket::create_netlink_socket() {
  create_socket_descriptor(AF_NETLINK, SOCK_DGRAM, NETLINK_ROUTE);
}

void libnetif_socket::close_socket_descriptor() {
  m_owner.Reset();
  m_descriptor = 0;
}

void libnetif_socket::invoke_ioctl(unsigned long request, void* argument, std::string_view message) {
  if (::ioctl(m_owner.Get(), request, argument) < 0) report_error(message);
}

void libnetif_socket::bind_netlink_socket(const sockaddr_nl& address, std::string_view name) {
  if (::bind(m_owner.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) < 0) {
    const int error = errno;
    report_error(text_about("Binding for ", name, " failed."), error);
  }
}

void libnetif_socket::send_netlink_message(size_t payload_size, uint16_t type, std::string_view name) {
  nlmsghdr header{};
  header.nlmsg_len = static_cast<uint32_t>(sizeof header + payload_size);
  header.nlmsg_type = type;
  header.nlmsg_flags = NLM_F_REQUEST | NLM_F_ROOT;
  header.nlmsg_pid = static_cast<uint32_t>(::getpid());
  const auto bytes = std::as_bytes(std::span(&header, 1));
  std::vector<std::byte> request(bytes.begin(), bytes.end());
  request.resize(header.nlmsg_len);

  ssize_t sent = 0;
  do {
    sent = ::send(m_owner.Get(), request.data(), request.size(), 0);
  } while (sent < 0 && errno == EINTR);
  const int error = errno;
  if (sent < 0) report_error(text_about("Request for ", name, " failed."), error);
}

bool libnetif_socket::receive_netlink_message(netlink_message_handler handler, void* context, std::string_view name) {
  std::vector<std::byte> datagram;
  bool is_consistent = true;
  for (;;) {
    if (!receive_datagram(datagram)) {
      const int error = errno;
      report_error(text_about("Receiving ", name, " failed."), error);
    }
    const netlink_datagram_result result = walk_netlink_datagram(datagram, handler, context);
    if (result.error) report_error(text_about("Received ", name, " reports error."), *result.error);
    is_consistent = is_consistent && !result.interrupted;
    if (result.done) return is_consistent;
  }
}

// The size comes first, so that nothing is cut off.
bool libnetif_socket::receive_datagram(std::vector<std::byte>& datagram, int flags) const {
  constexpr size_t usual_size = 8192;
  const auto receive = [&](int more_flags) {
    ssize_t size = 0;
    do {
      size = ::recv(m_owner.Get(), datagram.data(), datagram.size(), flags | more_flags);
    } while (size < 0 && errno == EINTR);
    return size;
  };
  datagram.resize(usual_size);
  ssize_t size = receive(MSG_PEEK | MSG_TRUNC);
  if (size < 0) return false;
  datagram.resize(std::max(static_cast<size_t>(size), usual_size));
  size = receive(0);
  if (size < 0) return false;
  datagram.resize(static_cast<size_t>(size));
  return true;
}

void libnetif_socket::enlarge_receive_buffer(int bytes) const {
  // Only a privileged caller may go beyond the system's limit.
  if (::setsockopt(m_owner.Get(), SOL_SOCKET, SO_RCVBUFFORCE, &bytes, sizeof bytes) == 0) return;
  ::setsockopt(m_owner.Get(), SOL_SOCKET, SO_RCVBUF, &bytes, sizeof bytes);
}

void libnetif_socket::report_error(std::string_view message) {
  report_error(message, errno);
}

void libnetif_socket::report_error(std::string_view message, int error_number) {
  close_socket_descriptor();
  throw libnetif_exception(message, error_number);
}

}  // namespace libnetif
