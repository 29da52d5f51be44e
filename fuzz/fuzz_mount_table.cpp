// Mount tables and the output of the VMFS tool. The text is read as a configured list, so that no mount point in it is
// asked for its size.

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

#include "inventory/mount_table.h"
#include "inventory/vmfs_volume.h"

namespace {

void Check(bool condition) {
  if (!condition) std::abort();
}

struct CloseStream {
  void operator()(FILE* stream) const { std::fclose(stream); }
};

void CheckTable(int added) {
  int index = 0;
  std::string previous;
  for (; const mount_entry* entry = get_fs_table(index); ++index) {
    Check(index == 0 || previous < entry->mount_point);
    previous = entry->mount_point;
    Check(entry->mount_point_length == previous.size() && !previous.empty());
    Check(entry->device_length == std::strlen(entry->device) && entry->type_length == std::strlen(entry->type));
    Check(entry->mounted == 0 && entry->source == kConfiguredList && std::strcmp(entry->type, "nfs") != 0);
  }
  Check(index == added);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0 || size > 4096) return 0;
  std::string text(reinterpret_cast<const char*>(data), size);
  const std::unique_ptr<FILE, CloseStream> table(::fmemopen(text.data(), text.size(), "r"));
  if (table) CheckTable(read_mount_table(table.get(), kConfiguredList | kOnlyNewMountPoints));
  vmfs_usage usage;
  Check(parse_vmfs_usage(text, usage) == 5 ? usage.capacity > 0 : usage.capacity == 0);
  return 0;
}
