#include "firmware/irq_routing_table.h"

#include <cstring>
#include <numeric>

#include "firmware/little_endian.h"
#include "trace/debug.h"

namespace {

constexpr char kSignature[] = {'$', 'P', 'I', 'R'};
constexpr size_t kParagraph = 16;
constexpr size_t kHeaderSize = 32;
constexpr size_t kEntrySize = sizeof(IRQ_ROUTING_TABLE_ENTRY);
constexpr unsigned int kHighestMajor = 10;
constexpr unsigned int kHighestMinor = 20;

// From the signature to the end of the area; empty when there is none.
std::span<const unsigned char> FindTable(std::span<const unsigned char> area) {
  for (size_t at = 0; at + sizeof(kSignature) <= area.size(); at += kParagraph) {
    if (std::memcmp(area.data() + at, kSignature, sizeof(kSignature)) == 0) return area.subspan(at);
  }
  return {};
}

unsigned int SumOf(std::span<const unsigned char> bytes) {
  return std::accumulate(bytes.begin(), bytes.end(), 0U) & 0xFF;
}

void TraceHeader(std::span<const unsigned char> table, unsigned int size) {
  const unsigned int entries = size < kHeaderSize ? 0 : static_cast<unsigned int>((size - kHeaderSize) / kEntrySize);
  TRACE(2, "\nCDeviceBiosBase::GetRoutingTable   : ## PCI IRQ Routing table found");
  TRACE(5, "\nCDeviceBiosBase::GetRoutingTable   :      address:         0x%p", static_cast<const void*>(table.data()));
  TRACE(3, "\nCDeviceBiosBase::GetRoutingTable   :      version:         %d.%d", ReadLittleEndian<uint8_t>(table, 5),
        ReadLittleEndian<uint8_t>(table, 4));
  TRACE(3, "\nCDeviceBiosBase::GetRoutingTable   :      table size:      %d", static_cast<int>(size));
  TRACE(2, "\nCDeviceBiosBase::GetRoutingTable   :      number entries:  %d", static_cast<int>(entries));
  TRACE(3, "\nCDeviceBiosBase::GetRoutingTable   :      checksum value : %02X\n", ReadLittleEndian<uint8_t>(table, 31));
}

// Of sizes below the header's own only 16 gets past the modulo rule.
bool IsSizeLegal(std::span<const unsigned char> table, size_t size) {
  return size != 0 && size != kEntrySize && table.size() >= kHeaderSize && size <= table.size() - kHeaderSize;
}

bool IsSound(std::span<const unsigned char> table, unsigned int size) {
  if (!IsSizeLegal(table, size)) {
    TRACE(1, "\nCDeviceBiosBase::GetRoutingTable   : ## ERROR! Illegal table size in PCI IRQ Routing Table (%d)\n",
          static_cast<int>(size));
    return false;
  }
  if (size % kEntrySize != 0) {
    TRACE(
        1,
        "\nCDeviceBiosBase::GetRoutingTable   : ## ERROR! PCI IRQ Routing Table size modulo sizeof (IRQ_ROUTING_TABLE_ENTRY) is not zero (%d)\n",
        static_cast<int>(size % kEntrySize));
    return false;
  }
  const unsigned int major = table[5];
  const unsigned int minor = table[4];
  if (major > kHighestMajor || minor > kHighestMinor) {
    TRACE(1,
          "\nCDeviceBiosBase::GetRoutingTable   : ## ERROR! Illegal version number in PCI IRQ Routing Table (%d.%d)\n",
          static_cast<int>(major), static_cast<int>(minor));
    return false;
  }
  if (const unsigned int sum = SumOf(table.first(size)); sum != 0) {
    TRACE(1, "\nCDeviceBiosBase::GetRoutingTable   : ## ERROR! Illegal checksum in PCI IRQ Routing Table (%02X)\n",
          sum);
    return false;
  }
  return true;
}

void TraceEntries(std::span<const unsigned char> entries) {
  TRACE(5, "\nCDeviceBiosBase::GetRoutingTable   : Dump of PCI slot mapping table:\n");
  for (size_t at = 0; at < entries.size(); at += kEntrySize) {
    const auto e = entries.subspan(at, kEntrySize);
    TRACE(
        5,
        "\n                    : [%02d] %02X %02X %02X %02X %02X %02X %02X %02X %02X %02X %02X %02X %02X %02X %02X %02X",
        static_cast<int>(at / kEntrySize), e[0], e[1], e[2], e[3], e[4], e[5], e[6], e[7], e[8], e[9], e[10], e[11],
        e[12], e[13], e[14], e[15]);
  }
}

}  // namespace

std::vector<unsigned char> ParseIrqRoutingTable(std::span<const unsigned char> area) {
  TRACE(5, "\nCDevScan            : Search for slot mapping table (mapped address = 0x%p)",
        static_cast<const void*>(area.data()));
  const std::span<const unsigned char> table = FindTable(area);
  if (table.empty()) return {};
  const unsigned int size = ReadLittleEndian<uint16_t>(table, 6);
  TraceHeader(table, size);
  if (!IsSound(table, size)) return {};
  const auto entries = table.subspan(kHeaderSize, size - kHeaderSize);
  TraceEntries(entries);
  return {entries.begin(), entries.end()};
}
