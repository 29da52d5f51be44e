#include "netif/interface_name.h"

#include <linux/sockios.h>
#include <net/if.h>
#include <sys/ioctl.h>

#include <cerrno>

namespace libnetif {

std::string read_interface_name(libnetif_socket& socket, int interface_index) {
  ifreq request{};
  request.ifr_ifindex = interface_index;
  if (::ioctl(socket.descriptor(), SIOCGIFNAME, &request) == 0) return request.ifr_name;
  if (errno == ENODEV) return "";
  socket.report_error(read_interface_name_failure);
}

}  // namespace libnetif
