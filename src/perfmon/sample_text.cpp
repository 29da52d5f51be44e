#include "perfmon/sample_text.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <limits>
#include <optional>
#include <system_error>

namespace {

constexpr uint64_t kBytesPerKb = 1024;

struct MemInfoRow {
  std::string_view key;
  uint64_t MemInfo::*value;
};

constexpr auto kMemInfoRows = std::to_array<MemInfoRow>({
    {"MemTotal:", &MemInfo::memTotal},
    {"MemFree:", &MemInfo::memFree},
    {"SwapTotal:", &MemInfo::swapTotal},
    {"SwapFree:", &MemInfo::swapFree},
});

bool IsBlank(char c) {
  return c == ' ' || c == '\t';
}

std::string_view TakeLine(std::string_view& text) {
  const std::string_view line = text.substr(0, text.find('\n'));
  text.remove_prefix(std::min(line.size() + 1, text.size()));
  return line;
}

std::optional<uint64_t> TakeNumber(std::string_view& text) {
  const char* first = std::find_if_not(text.data(), text.data() + text.size(), IsBlank);
  const char* last = text.data() + text.size();
  uint64_t number = 0;
  const auto [end, error] = std::from_chars(first, last, number);
  if (error == std::errc::invalid_argument) return std::nullopt;
  text = std::string_view(end, static_cast<size_t>(last - end));
  return error == std::errc::result_out_of_range ? std::numeric_limits<uint64_t>::max() : number;
}

uint64_t Difference(uint64_t previous, uint64_t current) {
  return current > previous ? current - previous : 0;
}

// Bytes of two amounts in kB together.
uint64_t SumInBytes(uint64_t first, uint64_t second) {
  return Saturate((uint128{first} + second) * kBytesPerKb);
}

}  // namespace

bool ParseMemInfo(std::string_view text, MemInfo& info) {
  constexpr unsigned int kAll = (1U << kMemInfoRows.size()) - 1;
  MemInfo values{};
  unsigned int found = 0;
  while (!text.empty() && found != kAll) {
    std::string_view line = TakeLine(text);
    const auto row =
        std::ranges::find_if(kMemInfoRows, [line](const MemInfoRow& r) { return line.starts_with(r.key); });
    if (row == kMemInfoRows.end()) continue;
    line.remove_prefix(row->key.size());
    const std::optional<uint64_t> number = TakeNumber(line);
    if (!number) continue;
    values.*row->value = *number;
    found |= 1U << (row - kMemInfoRows.begin());
  }
  if (found != kAll) return false;
  info = values;
  return true;
}

_PerfDataMemory MakeMemoryRecord(const MemInfo& info) {
  const uint64_t totalVirtual = SumInBytes(info.memTotal, info.swapTotal);
  const uint64_t totalPhysical = SumInBytes(info.memTotal, 0);
  return {totalVirtual, Difference(SumInBytes(info.memFree, info.swapFree), totalVirtual), totalPhysical,
          Difference(SumInBytes(info.memFree, 0), totalPhysical)};
}

int ParseCpuLine(std::string_view line, _PerfDataSystem& ticks) {
  constexpr std::string_view kKey = "cpu";
  if (!line.starts_with(kKey) || line.size() == kKey.size() || !IsBlank(line[kKey.size()])) return 0;
  std::array<uint64_t, 4> numbers{};
  const int found = ParseNumbers(line.substr(kKey.size()), numbers);
  if (found != static_cast<int>(numbers.size())) return found;
  const auto [user, nice, system, idle] = numbers;
  ticks = {Saturate(uint128{user} + nice + system + idle), Saturate(uint128{user} + nice), system, idle};
  return found;
}

_PerfDataSystem TicksBetween(const _PerfDataSystem& previous, const _PerfDataSystem& current) {
  return {Difference(previous.total, current.total), Difference(previous.user, current.user),
          Difference(previous.kernel, current.kernel), Difference(previous.idle, current.idle)};
}

int ParseNumbers(std::string_view text, std::span<uint64_t> numbers) {
  int found = 0;
  for (uint64_t& number : numbers) {
    const std::optional<uint64_t> value = TakeNumber(text);
    if (!value) break;
    number = *value;
    ++found;
  }
  return found;
}
