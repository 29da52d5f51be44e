// The walk over an SMBIOS structure table. Whatever the bytes are, the index points into the table.

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

#include "firmware/smbios_walk.h"
#include "trace/debug.h"

namespace {

constexpr size_t kLargestInput = 65536;

bool LiesInside(const _DMI_20_HEADER* header, const std::vector<unsigned char>& table, bool sound) {
  const auto* start = reinterpret_cast<const unsigned char*>(header);
  const auto left = static_cast<size_t>(table.data() + table.size() - start);
  const size_t needed = std::max<size_t>(sizeof(_DMI_20_HEADER), sound ? header->FormattedArea().size() : 0);
  return start >= table.data() && left >= needed;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size > kLargestInput) return 0;
  Debug.m_TraceActive = true;  // to no target: the dumps are made, nothing is written
  Debug.m_TraceLevel = 6;
  const std::vector<unsigned char> table(data, data + size);
  SmbiosStructureIndex index;
  unsigned int walked = 0;
  std::string error;
  const bool sound = WalkSmbiosStructures(table, index, walked, error);
  size_t indexed = 0;
  for (const auto& [type, list] : index) {
    indexed += list.size();
    for (const _DMI_20_HEADER* header : list) {
      if (!LiesInside(header, table, sound) || header->type != type) std::abort();
    }
  }
  if (indexed < walked || indexed > walked + 1 || sound != error.empty()) std::abort();
  return 0;
}
