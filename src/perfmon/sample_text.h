#pragma once

#include <cstdint>
#include <span>
#include <string_view>

#include "perfmon/perf_data.h"

// Parsers of the texts that a sample is made of. Pure; bounded by the text in hand; safe from any thread. A number that
// is too large for 64 bits is taken as all-ones.

// Values of /proc/meminfo in kB.
struct MemInfo {
  uint64_t memTotal;
  uint64_t memFree;
  uint64_t swapTotal;
  uint64_t swapFree;
};

// Looks line by line for "MemTotal:", "MemFree:", "SwapTotal:" and "SwapFree:", in any order, until all four are found.
// False when one is missing or has no number; info is then left as it was.
bool ParseMemInfo(std::string_view text, MemInfo& info);

// The record of these values in bytes. More free than there is at all counts as nothing used.
_PerfDataMemory MakeMemoryRecord(const MemInfo& info);

// First line of /proc/stat: "cpu  10 2 3 100 7" => total 115, user 12, kernel 3, idle 100. Returns how many of the four
// numbers (user, nice, system, idle) were found; ticks is written when it is 4.
int ParseCpuLine(std::string_view line, _PerfDataSystem& ticks);

// The ticks spent between two readings. A counter that went back, as the kernel's idle count may, spent nothing.
_PerfDataSystem TicksBetween(const _PerfDataSystem& previous, const _PerfDataSystem& current);

// Takes numbers off the text until all are filled. Returns how many were found; the rest of numbers is left as it was.
int ParseNumbers(std::string_view text, std::span<uint64_t> numbers);
