// The text of /proc/meminfo, and the record made of whatever numbers it holds.

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "perfmon/sample_text.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size > 65536) return 0;
  constexpr uint64_t kUntouched = 77;
  MemInfo info{kUntouched, kUntouched, kUntouched, kUntouched};
  if (!ParseMemInfo(std::string_view(reinterpret_cast<const char*>(data), size), info)) {
    if (info.memTotal != kUntouched || info.swapFree != kUntouched) std::abort();
    return 0;
  }
  const _PerfDataMemory record = MakeMemoryRecord(info);
  if (record.usedVirtual > record.totalVirtual || record.usedPhysical > record.totalPhysical) std::abort();
  if (record.totalPhysical > record.totalVirtual) std::abort();
  return 0;
}
