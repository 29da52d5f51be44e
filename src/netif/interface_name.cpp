#include "netif/interface_name.h"

#include <linux/sockios.h>
#include <net/if.h>

namespace libnetif {

std::string read_interface_name(libnetif_socket& socket, int interface_index) {
  ifreq request{};
  request.ifr_ifindex = interface_index;
  socket.invoke_ioctl(SIOCGIFNAME, &request, "Retriving interface name by index failed.");
  return request.ifr_name;
}

}  // namespace libnetif
