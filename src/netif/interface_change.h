#pragma once

#include <cstdint>
#include <string>

namespace libnetif {

// What a listener can be told about. The values are the rtnetlink multicast group bits and may be combined.
enum class interface_change_event_type : uint32_t {
  link_changes = 1,           // RTMGRP_LINK
  ipv4_address_changes = 16,  // RTMGRP_IPV4_IFADDR
};

// Changes of both.
constexpr interface_change_event_type operator|(interface_change_event_type left, interface_change_event_type right) {
  return static_cast<interface_change_event_type>(static_cast<uint32_t>(left) | static_cast<uint32_t>(right));
}

// One change as the kernel's message tells it.
struct interface_change {
  int interface_index = 0;  // as network_interface::get_ipv4_index
  std::string name;         // as the message itself gives it; empty when it gives none
};

}  // namespace libnetif
