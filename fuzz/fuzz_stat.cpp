// The first line of /proc/stat, the ticks between it and an earlier one, and the percentages of the result.

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "perfmon/percent_sum.h"
#include "perfmon/sample_text.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size > 4096) return 0;
  const std::string_view line(reinterpret_cast<const char*>(data), size);
  _PerfDataSystem ticks{};
  const int found = ParseCpuLine(line, ticks);
  if (found < 0 || found > 4 || (found < 4 && ticks.total != 0)) std::abort();
  CPercentSum sum;
  for (const _PerfDataSystem& earlier : {_PerfDataSystem{}, _PerfDataSystem{1000, 100, 100, 800}, ticks}) {
    const _PerfDataSystem spent = TicksBetween(earlier, ticks);
    sum.Add(uint128{spent.user} + spent.kernel, spent.total);
    if (sum.OverInstances(1) > 100 || sum.OverElements() > 100) std::abort();
  }
  return 0;
}
