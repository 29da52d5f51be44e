#pragma once

#include <chrono>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "netif/libnetif_exception.h"
#include "netif/network_interface.h"
#include "ravctl/answer/output.h"
#include "ravctl/base/error.h"

// What the net commands share: the interfaces as the library reads them, all their addresses and their counters.
namespace ravctl {

// Traffic since the interface came up; 64 bits wide.
struct LinkCounters {
  uint64_t rxBytes = 0, rxPackets = 0, rxErrors = 0, rxDropped = 0;
  uint64_t txBytes = 0, txPackets = 0, txErrors = 0, txDropped = 0;
};

// The counters of every interface by its index, read at one moment.
struct CounterSample {
  std::chrono::steady_clock::time_point time;
  std::map<int, LinkCounters> links;
};

struct Link {
  int index = 0;
  std::string name;
  uint16_t flags = 0;
  std::string hardware = {};  // "ethernet", "infiniband", "loopback", "other"
  std::string mac = {};       // "02:00:5e:10:20:30"; empty when the hardware has none
  int mtu = 0;
  int speed = 0;                            // Mbit/s, 0 = unknown
  std::vector<std::string> addresses = {};  // "192.168.7.20/20", IPv4 first
};

// All of these throw CommandError when the system does not answer.

// In the order of the library. An interface that vanishes meanwhile is left out.
std::vector<Link> ReadLinks();
CounterSample ReadCounters();

// What is known of an interface in every answer about it, and its counters, by their names in JSON.
Json ToJson(const Link& link);
void AddCounters(const LinkCounters& counters, Json& object);

// "up", "no carrier" (switched on, but nothing at the other end) or "down" (switched off).
std::string StateOf(uint16_t flags);
Color StateColor(const Json& state);
const char* HardwareName(libnetif::interface_hardware_type type);
// 0xC0A80714 in network byte order => "192.168.7.20"
std::string IPv4Text(uint32_t address);
std::string IPv6Text(const libnetif::ipv6_address& address);

// 1000 => "1G", 2500 => "2.5G"
std::string SpeedText(const Json& megabits);

// Why a request of the library failed, in one line and without its framing: "No such device".
std::string ReasonOf(const libnetif::libnetif_exception& failure);
CommandError NetworkFailure(const libnetif::libnetif_exception& failure, const std::string& where = {});

}  // namespace ravctl
