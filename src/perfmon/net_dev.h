#pragma once

#include <cstdint>
#include <string_view>

#include "perfmon/perf_data.h"

// The network part of a sample: the lines of /proc/net/dev, the link speed and the record made of two readings.

inline constexpr const char* kProcNetDev = "/proc/net/dev";
inline constexpr uint64_t kUnknownSpeed = UINT64_MAX;

struct NetDevLine {
  std::string_view name;
  std::string_view counters;  // the text behind the colon
};

// Takes the text up to and with the next line of an interface that is sampled, by its name; false when there is none.
// "  eth0: 10 2" => "eth0", " 10 2". Lines without a colon are passed over. Pure.
bool TakeSampledInterface(std::string_view& text, NetDevLine& line);

// Speed of the link in bytes per second, asked through a datagram socket; kUnknownSpeed when the interface does not
// tell. 1000 Mb/s => 131072000.
uint64_t ReadLinkSpeed(int socket, std::string_view name);

// The record of the time since the state's sample. False, with nothing written, for the first sample, when the clock
// did not go forward, and for a link that carries nothing. Pure.
// A counter below its earlier value has wrapped once at 2^32 when that value fits in 32 bits; a wider one was reset,
// and what passed since is taken as 0.
bool MakeNetworkRecord(const NetInterfaceState& previous, uint64_t nowMs, const NetCounters& counters, uint64_t speed,
                       _PerfDataNetwork& record);

// Whether the name starts with one of the prefixes.
template <typename Prefixes>
bool StartsWithOneOf(std::string_view name, const Prefixes& prefixes) {
  for (const std::string_view prefix : prefixes) {
    if (name.starts_with(prefix)) return true;
  }
  return false;
}
