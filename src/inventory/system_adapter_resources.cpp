// The resource queries of CSystemAdapter.

#include <cstdlib>
#include <string_view>

#include "firmware/little_endian.h"
#include "inventory/memory_ranges.h"
#include "inventory/system_adapter.h"
#include "platform/stdio_file.h"
#include "platform/text_cursor.h"
#include "trace/debug.h"

namespace {

constexpr const char* kDmaChannels = "/proc/dma";
constexpr unsigned int kMaxDmaLine = 0xFF;  // what the line reader can be asked for

constexpr size_t kFirstBar = 0x10;
constexpr size_t kBarSize = 4;
constexpr size_t kBars = 6;
constexpr size_t kBridgeBars = 2;
constexpr uint8_t kBridgeClass = 0x06;

constexpr uint32_t kIoSpace = 0x1;
constexpr uint32_t kSpaceBits = 0x3;
constexpr uint32_t kTypeBits = 0x6;
constexpr uint32_t kType64Bit = 0x4;
constexpr uint32_t kMemoryAddress = 0xFFFFFFF0;

constexpr uint8_t kMaxHeaderLayout = 2;
constexpr uint8_t kNoInterruptLine = 0xFF;

bool IsPort(uint32_t bar) {
  return (bar & kIoSpace) != 0;
}

bool IsMemory(uint32_t bar) {
  return (bar & kSpaceBits) == 0;
}

uint32_t ReadBar(const CPciCommonConfigHeader& header, size_t bar) {
  return ReadLittleEndian<uint32_t>(header.bytes, kFirstBar + bar * kBarSize);
}

size_t CountBars(const CPciCommonConfigHeader& header) {
  return header.BaseClass() == kBridgeClass ? kBridgeBars : kBars;
}

// The base address register number `index` of those that are wanted. Ends at the first one that is 0; the
// upper half of a 64-bit address is no register of its own.
bool FindBar(const CPciCommonConfigHeader& header, bool (*isWanted)(uint32_t), int index, uint32_t& found) {
  for (size_t bar = 0; bar < CountBars(header); ++bar) {
    const uint32_t value = ReadBar(header, bar);
    if (value == 0) return false;
    if (isWanted(value) && index-- == 0) {
      found = value;
      return true;
    }
    if (IsMemory(value) && (value & kTypeBits) == kType64Bit) ++bar;
  }
  return false;
}

// "4: cascade" => "4" and "cascade"
bool SplitDmaLine(std::string_view line, std::string_view& channel, std::string_view& name) {
  const size_t colon = line.find(':');
  if (colon == std::string_view::npos) return false;
  channel = TextCursor::Trim(line.substr(0, colon));
  name = TextCursor::Trim(line.substr(colon + 1));
  return true;
}

}  // namespace

bool CSystemAdapter::GetIoResource(_SystemAdapterIoDescriptor& descriptor, int index) const {
  uint32_t bar = 0;
  if (!m_SlotData.header.IsPresent() || !FindBar(m_SlotData.header, IsPort, index, bar)) return false;
  const uint64_t start = bar & ~kSpaceBits;
  descriptor = {start, start, 0};
  return true;
}

bool CSystemAdapter::GetMemoryResource(_SystemAdapterMemoryDescriptor& descriptor, int index) const {
  uint32_t bar = 0;
  if (!m_SlotData.header.IsPresent() || !FindBar(m_SlotData.header, IsMemory, index, bar)) return false;
  const uint64_t start = bar & kMemoryAddress;
  unsigned long long end = 0;
  if (!GetMemoryResourceEndAddress(start, end)) return false;
  descriptor = {start, end, 0};
  return true;
}

bool CSystemAdapter::GetIrqResource(_SystemAdapterIrqDescriptor& descriptor, int index) const {
  const CPciCommonConfigHeader& header = m_SlotData.header;
  if (index != 0 || !header.IsPresent() || header.HeaderLayout() > kMaxHeaderLayout || header.InterruptPin() == 0 ||
      header.InterruptLine() == kNoInterruptLine) {
    return false;
  }
  descriptor = {header.InterruptLine(), 0, 0};
  return true;
}

bool CSystemAdapter::GetDmaResource(_SystemAdapterDmaDescriptor& descriptor, unsigned int index) const {
  if (!m_SlotData.header.IsPresent()) return false;
  std::string line;
  if (index > kMaxDmaLine || !CStdioFile::GetLineFromFile(line, kDmaChannels, static_cast<uint8_t>(index))) {
    TRACE(2, "\nCSystemAdapter      : Cannot retrieve DMA channel for index %d from file %s. ", static_cast<int>(index),
          kDmaChannels);
    return false;
  }
  std::string_view channel;
  std::string_view name;
  if (!SplitDmaLine(line, channel, name)) {
    TRACE(2, "\nCSystemAdapter      : Cannot get DMA data from /proc/dma for index %d from line '%s'.",
          static_cast<int>(index), line.c_str());
    return false;
  }
  if (std::string_view(DeviceIdText()).find(name) == std::string_view::npos) return false;
  descriptor = {std::strtoul(std::string(channel).c_str(), nullptr, 0), 0};
  return true;
}

bool CSystemAdapter::GetIoAddresses(std::vector<CPhysicalAddress>& addresses) const {
  int index = 0;
  for (_SystemAdapterIoDescriptor descriptor; GetIoResource(descriptor, index); ++index)
    addresses.push_back({descriptor.start});
  return index > 0;
}

bool CSystemAdapter::GetMemoryAddresses(std::vector<CPhysicalAddress>& addresses) const {
  int index = 0;
  for (_SystemAdapterMemoryDescriptor descriptor; GetMemoryResource(descriptor, index); ++index)
    addresses.push_back({descriptor.start});
  return index > 0;
}
