// The text of /proc/net/dev: names, counters, and the records between an interface and the one of the line before.

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "perfmon/net_dev.h"
#include "perfmon/sample_text.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size > 65536) return 0;
  std::string_view text(reinterpret_cast<const char*>(data), size);
  NetInterfaceState state;
  uint64_t nowMs = 0;
  size_t left = text.size();
  for (NetDevLine line; TakeSampledInterface(text, line); left = text.size()) {
    if (text.size() >= left || line.name.empty()) std::abort();
    NetCounters counters{};
    const int found = ParseNumbers(line.counters, counters);
    if (found < 0 || found > static_cast<int>(counters.size())) std::abort();
    // Every number in the text may be a clock or a speed as well.
    nowMs = counters[1] != 0 ? counters[1] : nowMs + 1;
    _PerfDataNetwork record{};
    if (MakeNetworkRecord(state, nowMs, counters, counters[2], record) && record.capacity == 0) std::abort();
    state.sampleTimeMs = nowMs;
    state.counters = counters;
  }
  return 0;
}
