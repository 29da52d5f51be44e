#pragma once

#include <array>
#include <cstdint>
#include <string>

// The sample records of the performance monitor: four unsigned 64-bit numbers each, in this order.

// Bytes. Virtual memory is physical memory and swap together.
struct _PerfDataMemory {
  uint64_t totalVirtual;
  uint64_t usedVirtual;
  uint64_t totalPhysical;
  uint64_t usedPhysical;
};

// Clock ticks of all processors spent since the previous sample. user includes nice; total is user, system and idle.
struct _PerfDataSystem {
  uint64_t total;
  uint64_t user;
  uint64_t kernel;
  uint64_t idle;
};

// The same for one processor.
struct _PerfDataCpu : _PerfDataSystem {};

struct _PerfDataNetwork {
  uint64_t speed;     // bytes per second that the link carries; all-ones when unknown
  uint64_t capacity;  // bytes that the link carries in the interval of the sample
  uint64_t received;  // bytes per second
  uint64_t sent;      // bytes per second
};

// Counters of an interface in the kernel's order: eight of reception, beginning with the bytes, then eight of sending.
using NetCounters = std::array<uint64_t, 16>;

// State of one interface between two samples.
struct NetInterfaceState {
  std::string name = {};      // empty = none yet
  uint64_t sampleTimeMs = 0;  // 0 = not sampled yet
  NetCounters counters{};
  std::array<uint64_t, 2> unused{UINT64_MAX, UINT64_MAX};
};

// Products and sums of 64-bit counters do not fit in 64 bits.
__extension__ typedef unsigned __int128 uint128;

// Cuts a wide result to what a record can hold.
constexpr uint64_t Saturate(uint128 value) {
  return value > UINT64_MAX ? UINT64_MAX : static_cast<uint64_t>(value);
}
