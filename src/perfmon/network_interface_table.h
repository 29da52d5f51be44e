#pragma once

#include <net/if.h>

#include <array>
#include <cstdint>

// Counts the network interfaces of the machine by name. Holds no state: safe from any thread; reads the environment
// variable QN_NICKNAME, which must not be changed meanwhile. A failure is traced and gives kError.
//
// A name counts when it starts with "eth", "bond", "sha", "vswif", "br", "xenbr", "en", "mic", "lo" or "em", or with
// "p" and a digit, or whatever it is when QN_NICKNAME contains "OVM3"; and when the kernel knows the interface. The
// performance monitor samples fewer names (net_dev.h), so that the n-th interface here need not be the n-th there.
class CNetworkInterfaceTable {
 public:
  static constexpr unsigned char kError = 255;

  // What the kernel tells of an interface; what it does not tell is 0. Addresses are IPv4 in network byte order.
  struct interface {
    char name[IFNAMSIZ];
    uint32_t address;
    uint32_t mask;
    std::array<uint8_t, 6> hardwareAddress;
  };

  // countOnly set: returns the number of interfaces, at most 254; index and entry are not looked at.
  // countOnly 0: fills entry with the index-th counted interface and returns 1; 0 when there is none or entry is null.
  static unsigned char GetInterface(unsigned int index, CNetworkInterfaceTable::interface* entry, int countOnly);

  // Whether text begins with prefix.
  static bool StrStartsWith(const char* text, const char* prefix);
};
