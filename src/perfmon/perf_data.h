#pragma once

#include <array>
#include <cstdint>
#include <string>

// The sample records of the performance monitor: four unsigned 64-bit numbers each, in this order.

// Bytes. Virtual memory is physical memory and swap together.
struct _PerfDataMemory {
  uint64_t totalVirtual;   // what there is
  uint64_t usedVirtual;    // what of it is in use
  uint64_t totalPhysical;  // what there is
  uint64_t usedPhysical;   // what of it is in use
};

// Clock ticks of all processors spent since the previous sample, from the first line of /proc/stat.
struct _PerfDataSystem {
  uint64_t total;   // user, kernel and idle
  uint64_t user;    // with that of processes of lower priority (nice)
  uint64_t kernel;  // in the kernel for processes
  uint64_t idle;    // in nothing
};

// The same for one processor.
struct _PerfDataCpu : _PerfDataSystem {};

// Traffic of one interface since the previous sample.
struct _PerfDataNetwork {
  uint64_t speed;     // bytes per second that the link carries; all-ones when unknown
  uint64_t capacity;  // bytes that the link carries in the interval of the sample
  uint64_t received;  // bytes per second
  uint64_t sent;      // bytes per second
};

// Counters of an interface in /proc/net/dev, in the kernel's order: eight of reception, beginning with the bytes, then
// eight of sending.
using NetCounters = std::array<uint64_t, 16>;

// State of one interface between two samples.
struct NetInterfaceState {
  std::string name = {};                                   // empty = none yet
  uint64_t sampleTimeMs = 0;                               // 0 = not sampled yet
  NetCounters counters{};                                  // of the last sample
  std::array<uint64_t, 2> unused{UINT64_MAX, UINT64_MAX};  // keep their place
};

// Products and sums of 64-bit counters do not fit in 64 bits.
__extension__ typedef unsigned __int128 uint128;

// Cuts a wide result to what a record can hold.
constexpr uint64_t Saturate(uint128 value) {
  return value > UINT64_MAX ? UINT64_MAX : static_cast<uint64_t>(value);
}
