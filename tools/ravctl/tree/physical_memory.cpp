#include "ravctl/tree/physical_memory.h"

#include <fcntl.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <span>
#include <string_view>

#include "firmware/physical_mapping.h"
#include "firmware/smbios_from_memory.h"
#include "firmware/smbios_lookup.h"
#include "platform/unique_fd.h"
#include "ravctl/tree/bundle_format.h"

namespace ravctl {

namespace {

constexpr const char* kMemoryDevice = "/dev/mem";
constexpr uint64_t kLegacyArea = 0xE0000;  // to 1 MiB: the 32-bit entry point anywhere in it, "$PIR" from 0xF0000 on
constexpr uint64_t kLegacyAreaSize = 0x20000;
constexpr size_t kParagraph = 16;
constexpr std::string_view kAnchor = "_SM_";
constexpr uint64_t kLargestTable = uint64_t{16} << 20;

class MemoryReader {
 public:
  explicit MemoryReader(Capture& capture)
      : m_Capture(capture), m_Device(::open(kMemoryDevice, O_RDONLY | O_CLOEXEC)), m_Error(m_Device ? 0 : errno) {}

  bool IsOpen() const { return static_cast<bool>(m_Device); }
  int Error() const { return m_Error; }
  const MemoryPieces& Pieces() const { return m_Pieces; }

  // Empty when the range cannot be mapped, which is noted.
  std::string Read(uint64_t address, uint64_t length) {
    CPhysicalMapping mapping;
    const int error = length > kLargestTable ? EFBIG : mapping.Map(m_Device.Get(), address, length, false);
    if (error != 0) {
      char range[64];
      std::snprintf(range, sizeof range, "%s from %#llx", kMemoryDevice, static_cast<unsigned long long>(address));
      m_Capture.AddUncaptured(range, std::strerror(error), error == EPERM || error == EACCES);
      return "";
    }
    std::string bytes(reinterpret_cast<const char*>(mapping.Data()), length);
    AddPiece(address, bytes, m_Pieces);
    return bytes;
  }

 private:
  Capture& m_Capture;
  UniqueFd m_Device;
  int m_Error;
  MemoryPieces m_Pieces;
};

// The paragraph with the anchor decides, as for CSMBios.
void ReadLegacyTable(const std::string& area, MemoryReader& memory) {
  size_t at = 0;
  while (at < area.size() && area.compare(at, kAnchor.size(), kAnchor) != 0)
    at += kParagraph;
  if (at >= area.size()) return;
  const std::span entryPoint(reinterpret_cast<const unsigned char*>(area.data()) + at, area.size() - at);
  uint32_t address = 0;
  unsigned long length = 0;
  CDataStream header;
  CSMBios smbios;
  smbios.checkSmbiosHeader(entryPoint, address, length, header);
  if (address != 0 && length != 0) memory.Read(address, length);
}

template <typename Reader>
void ReadUefiTable(const Reader& reader, MemoryReader& memory) {
  const uint64_t address = reader.GetUEFIAddress();
  if (address == 0) return;
  const std::string header = memory.Read(address, reader.HeaderSize());
  if (header.empty()) return;
  const auto* fields = reinterpret_cast<const unsigned char*>(header.data());
  const uint32_t length = reader.GetDataLength(fields);
  const uint64_t table = reader.GetDataAddress(fields);
  if (length != 0 && table != 0) memory.Read(table, length);
}

CapturedEntry MakeEntry(const MemoryPieces& pieces) {
  CapturedEntry entry{.path = kMemoryPath, .mode = 0600};
  const uint64_t page = CPhysicalMapping::PageSize();
  for (const auto& [address, bytes] : pieces) {
    entry.ranges.push_back({address, bytes.size()});
    entry.content += bytes;
    entry.size = (address + bytes.size() + page - 1) / page * page;
  }
  return entry;
}

}  // namespace

void AddPiece(uint64_t address, std::string bytes, MemoryPieces& pieces) {
  auto next = pieces.upper_bound(address);
  if (next != pieces.begin()) {
    const auto before = std::prev(next);
    const uint64_t distance = address - before->first;
    if (distance <= before->second.size()) {
      if (distance + bytes.size() < before->second.size()) return;
      bytes.insert(0, before->second, 0, distance);
      address = before->first;
    }
  }
  const uint64_t end = address + bytes.size();
  while (next != pieces.end() && next->first <= end) {
    const uint64_t covered = end - next->first;
    if (covered < next->second.size()) bytes.append(next->second, covered);
    next = pieces.erase(next);
  }
  pieces[address] = std::move(bytes);
}

void CapturePhysicalMemory(Capture& capture) {
  MemoryReader memory(capture);
  if (!memory.IsOpen()) {
    const int error = memory.Error();
    if (error != ENOENT) capture.AddUncaptured(kMemoryDevice, std::strerror(error), error == EACCES || error == EPERM);
    return;
  }
  ReadLegacyTable(memory.Read(kLegacyArea, kLegacyAreaSize), memory);
  ReadUefiTable(smbios_tables::SMBiosTableFromMemoryV3(), memory);
  ReadUefiTable(smbios_tables::SMBiosTableFromMemoryV2(), memory);
  if (!memory.Pieces().empty()) capture.AddEntry(MakeEntry(memory.Pieces()));
}

}  // namespace ravctl
