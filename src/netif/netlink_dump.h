#pragma once

#include <functional>
#include <string_view>

#include "netif/netlink.h"

namespace libnetif {

// Asks the kernel for all entries of one kind, through a socket of its own, and passes each message to take.
//
// Where the kernel says that entries came or went while it told them, the answer may lack some or have some twice: then
// it is asked again, after begin, which is called before each attempt and drops what was taken. What is still not
// consistent at the tenth attempt is kept. An exception of take ends the dump and is passed on.
// Failures: libnetif_exception from the socket with that name.
void read_netlink_dump(uint16_t type, size_t payload_size, std::string_view name, const std::function<void()>& begin,
                       std::function<void(const netlink_message&)> take);

}  // namespace libnetif
