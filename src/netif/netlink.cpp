#include "netif/netlink.h"

#include <cerrno>

namespace libnetif {

namespace {

// The kernel reports errors as negative numbers. Unsigned arithmetic, because the lowest one has no positive twin.
int error_number_of(byte_span payload) {
  uint32_t reported = 0;
  return read_prefix(payload, reported) ? static_cast<int>(0U - reported) : EBADMSG;
}

}  // namespace

netlink_datagram_result walk_netlink_datagram(byte_span datagram, netlink_message_handler handler, void* context) {
  netlink_datagram_result result;
  for (nlmsghdr header; read_prefix(datagram, header);) {
    const size_t length = header.nlmsg_len;
    if (length < sizeof(nlmsghdr) || length > datagram.size()) break;
    result.interrupted = result.interrupted || (header.nlmsg_flags & NLM_F_DUMP_INTR) != 0;
    const byte_span payload = datagram.subspan(sizeof(nlmsghdr), length - sizeof(nlmsghdr));
    if (header.nlmsg_type == NLMSG_ERROR) {
      result.error = error_number_of(payload);
      break;
    }
    if (header.nlmsg_type == NLMSG_DONE) {
      result.done = true;
    } else if (header.nlmsg_type != NLMSG_NOOP) {
      handler({header.nlmsg_type, payload}, context);
    }
    datagram = skip_aligned(datagram, length);
  }
  return result;
}

}  // namespace libnetif
