#pragma once

#include <array>
#include <cstdint>
#include <string>

#include "netif/network_statistics.h"
#include "platform/export.h"

namespace libnetif {

// The kernel's ARP hardware types that the library tells apart; every other type is unknown.
enum class interface_hardware_type : uint16_t {
  unknown = 0,      // every type but the following
  ethernet = 1,     // ARPHRD_ETHER
  infiniband = 32,  // ARPHRD_INFINIBAND
  loopback = 772,   // ARPHRD_LOOPBACK
};

using ipv6_address = std::array<uint8_t, 16>;        // an address or netmask in network order
using infiniband_address = std::array<uint8_t, 20>;  // a hardware address in the order of its text

// One network interface of the host, known by its name.
//
// Nothing is cached: each property is read anew from the system on each call, through a socket that the call opens and
// closes. So any thread may ask, and an interface that is gone or renamed meanwhile gives a failure.
// Failures: libnetif_exception with the text given at the property and the system's error, after the socket is closed.
// A name longer than the kernel's limit of 15 characters is no interface's: the failure is ENODEV.
class RAVD_EXPORT network_interface {
 public:
  // Asks for nothing: whether there is such an interface, the properties tell.
  explicit network_interface(std::string name);

  // As given; borrowed.
  const std::string& get_name() const { return m_name; }

  // The kernel's bits, IFF_UP and so on. "Retriving interface flags failed."
  uint16_t get_flags() const;
  // Whether any bit of the mask is set. Fails as get_flags does.
  bool get_flag(uint16_t mask) const;
  // The flags IFF_UP, IFF_RUNNING, IFF_LOOPBACK, IFF_BROADCAST and IFF_MULTICAST. Fail as get_flags does:
  bool is_up() const;
  bool is_running() const;
  bool is_loopback() const;
  bool is_broadcast_set() const;
  bool is_multicast_support() const;

  // Largest packet in bytes. "Retriving interface mtu failed."
  int get_mtu() const;
  // The kernel's number of the interface. "Retriving interface ipv4 index failed."
  int get_ipv4_index() const;

  // Network byte order. "Retriving interface ipv4 address failed." (an interface without an IPv4 address fails so; the
  // other two name netmask and broadcast), or "This interface doesn't contain ipv4 address." for another family:
  uint32_t get_ipv4_address() const;
  uint32_t get_ipv4_netmask() const;
  uint32_t get_ipv4_broadcast() const;

  // The six bytes in the low 48 bits, the first one lowest. "Retriving interface ether address failed.", or
  // "This interface doesn't contain ether hardrware address." for other hardware.
  uint64_t get_ether_address() const;
  // "Retriving interface infiniband address failed.", also when the address file cannot be read or understood, or
  // "This interface doesn't contain infiniband hardrware address." for other hardware.
  infiniband_address get_infiniband_address() const;
  // What kind of hardware it is. "Retriving interface ether address failed."
  interface_hardware_type get_hardware_type() const;

  // Mbit/s; -1 when the driver does not support the request or does not know the speed.
  // "Retriving interface max speed failed."
  int get_max_speed() const;

  // The first one of the interface, all zero when it has none. "Retriving interface ipv6 address failed.":
  ipv6_address get_ipv6_address() const;
  ipv6_address get_ipv6_netmask() const;

  // Its traffic since it is there. All zero when the interface vanishes between the look-up of its index ("Retriving
  // interface ipv4 index failed.") and the answer. The other failures are those of the request to the kernel, with
  // texts such as "Request for network interface failed."
  network_statistics get_network_statistics() const;

 private:
  std::string m_name;
};

}  // namespace libnetif
