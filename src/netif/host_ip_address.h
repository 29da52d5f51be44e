#pragma once

#include <string>

#include "netif/ip_address.h"
#include "platform/export.h"

// Picks the IP address of one of the host's Ethernet interfaces.
//
// index counts, from 0, the Ethernet interfaces that have an address of the wanted version, in the order of the
// system's interface list. Any thread may ask; there is no state. Nothing is thrown: a failure is traced at level 1 and
// gives an empty result.
class RAVD_EXPORT CHostIPAddress {
 public:
  // Which of its addresses. The value is the number in the traces.
  enum ip_version {
    ipv4 = 4,  // its IPv4 address
    ipv6 = 6,  // its first IPv6 address
  };

  // The address as text, "" when there is none. Also "" when index is not below the number of all interfaces.
  static std::string GetHostIPAddress(int index, ip_version version);

  // False when there is no such address. True otherwise, with the 4 or 16 bytes in address; a text that cannot be
  // converted leaves address as it was, and so does an IPv4 text of fewer than 8 characters:
  static bool GetHostIPv4Address(CIPAddress& address, int index);
  static bool GetHostIPv6Address(CIPAddress& address, int index);
};
