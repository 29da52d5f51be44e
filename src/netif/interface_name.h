#pragma once

#include <string>

#include "netif/libnetif_socket.h"

namespace libnetif {

// The name of the interface of that index, asked through an open IPv4 socket, so that many names need only one.
// "Retriving interface name by index failed." closes the socket.
std::string read_interface_name(libnetif_socket& socket, int interface_index);

}  // namespace libnetif
