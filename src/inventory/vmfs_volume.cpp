#include "inventory/vmfs_volume.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>
#include <filesystem>
#include <limits>

#include "platform/stream.h"
#include "trace/debug.h"

namespace {

constexpr const char* kVmkfstools = "/usr/sbin/vmkfstools";
constexpr size_t kMaxOutput = 65536;  // bytes of the tool's output that are looked at

// The name comes from a directory and goes to a shell of root.
bool IsPlainShellWord(std::string_view text) {
  constexpr std::string_view kPlain = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789/._:-+@,=%";
  return !text.empty() && text.front() != '-' && text.find_first_not_of(kPlain) == std::string_view::npos;
}

std::string ReadOutput(FILE* pipe) {
  std::string output;
  std::array<char, 512> part{};
  while (output.size() < kMaxOutput) {
    const size_t size = std::fread(part.data(), 1, part.size(), pipe);
    if (size == 0) break;
    output.append(part.data(), size);
  }
  return output;
}

// Ties go to the even neighbour; what no unsigned number can hold goes to the nearest one that it can.
uint64_t Round(double value) {
  const double rounded = std::nearbyint(value);
  if (!(rounded > 0)) return 0;
  if (rounded >= std::ldexp(1.0, 64)) return std::numeric_limits<uint64_t>::max();
  return static_cast<uint64_t>(rounded);
}

void SetVmfsSizes(mount_entry& entry, const vmfs_usage& usage) {
  entry.blocks = static_cast<uint64_t>(std::max(usage.blocks, 0));
  entry.available_blocks = static_cast<uint64_t>(std::max(usage.available_blocks, 0));
  entry.block_size = static_cast<uint32_t>(std::max(usage.block_size, 0) / 512);
  entry.size = Round(usage.capacity / 1024);
  entry.available = Round(usage.available / 1024);
  const double usedPercent = (usage.capacity - usage.available) * 100 / usage.capacity;
  entry.used_percent = static_cast<uint32_t>(std::min<uint64_t>(Round(usedPercent), 100));
  TRACE(3, "\nget_vmfs_data[%d %d %d %d %d %d]", static_cast<int>(entry.size), static_cast<int>(entry.blocks),
        static_cast<int>(entry.block_size), static_cast<int>(entry.available_blocks), static_cast<int>(entry.available),
        static_cast<int>(entry.used_percent));
}

}  // namespace

bool list_vmfs_names(const char* directory, std::vector<std::string>& names) {
  std::error_code error;
  std::filesystem::directory_iterator entry(directory, error);
  for (; !error && entry != std::filesystem::directory_iterator(); entry.increment(error)) {
    std::string name = entry->path().filename().string();
    if (name.find(':') != std::string::npos) names.push_back(std::move(name));
  }
  std::ranges::sort(names);
  return !error;
}

void get_vmfs_data(mount_entry* entry, const char* volume) {
  const std::string command = std::string(kVmkfstools) + " -l " + volume;
  TRACE(2, "\nget_vmfs_data: cmd '%s'", command.c_str());
  PipeStream pipe(IsPlainShellWord(volume) ? ::popen(command.c_str(), "re") : nullptr);
  if (!pipe) {
    TRACE(3, "\nget_vmfs_data: popen '%s' failed", command.c_str());
    return;
  }
  vmfs_usage usage;
  const int items = parse_vmfs_usage(ReadOutput(pipe.get()), usage);
  if (items == 5) SetVmfsSizes(*entry, usage);
  pipe.reset();
  TRACE(2, "\nget_vmfs_data[%d items found]", items);
}

int parse_vmfs_usage(std::string_view output, vmfs_usage& usage) {
  constexpr std::string_view kLineEnds = "\f\n\r\v";
  while (!output.empty()) {
    const std::string line(output.substr(0, output.find_first_of(kLineEnds)));
    output.remove_prefix(std::min(line.size() + 1, output.size()));
    vmfs_usage found;
    const int items =
        std::sscanf(line.c_str(), "Capacity %lf (%d file blocks * %d), %lf (%d blocks) \n", &found.capacity,
                    &found.blocks, &found.block_size, &found.available, &found.available_blocks);
    if (items != 5 || !(found.capacity > 0)) continue;
    usage = found;
    return items;
  }
  return -1;
}
