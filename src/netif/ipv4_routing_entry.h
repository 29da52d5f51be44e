#pragma once

#include <cstdint>
#include <string>

namespace libnetif {

// One route of the main IPv4 table. Addresses are in network byte order; 0 stands for an attribute that the route does
// not have.
struct ipv4_routing_entry {
  uint32_t source = 0;       // preferred source address
  uint32_t destination = 0;  // network or host that it leads to
  // The number whose lowest bits are set, as many as the destination's prefix is long: in memory it reads as the dotted
  // netmask when that length is a multiple of 8.
  uint32_t netmask = 0;
  uint32_t gateway = 0;        // next hop
  uint32_t metric = 0;         // priority in host byte order: the lowest goes first
  std::string interface_name;  // empty when the route names no single interface (blackhole, several next hops)

  // The same in every field.
  bool operator==(const ipv4_routing_entry&) const = default;
};

}  // namespace libnetif
