#pragma once

#include <string>
#include <string_view>

#include "netif/libnetif_socket.h"

namespace libnetif {

// The name of the interface of that index, "" when there is none, asked through an open IPv4 socket, so that many names
// need only one. Another failure closes the socket and throws read_interface_name_failure.
inline constexpr std::string_view read_interface_name_failure = "Retriving interface name by index failed.";
std::string read_interface_name(libnetif_socket& socket, int interface_index);

}  // namespace libnetif
