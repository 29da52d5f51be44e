#include "firmware/smbios_lookup.h"

#include <algorithm>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <numeric>
#include <string_view>
#include <utility>

#include "firmware/device_bios.h"
#include "firmware/little_endian.h"
#include "firmware/smbios_from_memory.h"
#include "firmware/smbios_sources.h"
#include "trace/debug.h"

namespace {

using smbios_tables::_DMI_21_EPS;

constexpr uint32_t kShadowArea = 0xE0000;
constexpr uint32_t kShadowAreaSize = 0x20000;
constexpr size_t kParagraph = 16;
constexpr std::string_view kAnchor = "_SM_";
constexpr size_t kDumpedHeader = 32;

unsigned int TracedAddress(const void* address) {
  return static_cast<unsigned int>(reinterpret_cast<uintptr_t>(address));
}

bool StartsWith(std::span<const unsigned char> bytes, std::string_view anchor) {
  return bytes.size() >= anchor.size() && std::memcmp(bytes.data(), anchor.data(), anchor.size()) == 0;
}

// The first paragraph of the area that begins with the anchor, up to the end of the area; empty when there is none.
// The last paragraph is no candidate.
std::span<const unsigned char> ScanForSignature(std::span<const unsigned char> area) {
  const auto candidates = area.first(area.size() - kParagraph);
  auto hit = candidates.begin();
  while ((hit = std::find(hit, candidates.end(), '_')) != candidates.end()) {
    const auto found = area.subspan(static_cast<size_t>(hit - candidates.begin()));
    ++hit;
    if ((area.size() - found.size()) % kParagraph != 0) {
      TRACE(6, "\nScanForSignature    :   '_' found at a non-paragraph address (0x%08X), continue searching",
            TracedAddress(found.data()));
      continue;
    }
    TRACE(6, "\nScanForSignature    :   '_' found at address 0x%08X, value=0x%08X, check for valid signature...",
          TracedAddress(found.data()), ReadLittleEndian<uint32_t>(found, 0));
    if (StartsWith(found, kAnchor)) {
      TRACE(3, "\nScanForSignature    : SMBIOS signature \"_SM_\" found (SM BIOS >= 2.1) at 0x%08X",
            TracedAddress(found.data()));
      return found;
    }
    TRACE(6, "\nScanForSignature    :   no valid SMBIOS signature, continue searching");
  }
  return {};
}

void TraceEntryPoint(std::span<const unsigned char> p, unsigned int structures, uint32_t tableAddress,
                     unsigned long tableLength) {
  TRACE(2, "\nCheckSmbiosHeader   : SMBIOS header:");
  TRACE(3, "\nCheckSmbiosHeader   :   size:           %d", p[offsetof(_DMI_21_EPS, length)]);
  TRACE(3, "\nCheckSmbiosHeader   :   anchor string:  %c%c%c%c", p[0], p[1], p[2], p[3]);
  TRACE(2, "\nCheckSmbiosHeader   :   DMI Version:    %d.%d (BCD Rev: %02X)", p[offsetof(_DMI_21_EPS, majorVersion)],
        p[offsetof(_DMI_21_EPS, minorVersion)], p[offsetof(_DMI_21_EPS, bcdRevision)]);
  TRACE(3, "\nCheckSmbiosHeader   :   nr structures:  %d", static_cast<int>(structures));
  TRACE(3, "\nCheckSmbiosHeader   :   struct address: 0x%08X, size 0x%04X", tableAddress,
        static_cast<unsigned int>(tableLength));
}

// Text with a last error in it.
std::string WithLastError(const char* format, uint32_t lastError) {
  char text[128];
  std::snprintf(text, sizeof(text), format, lastError);
  return text;
}

}  // namespace

CSMBios::~CSMBios() {
  disconnect();
}

bool CSMBios::connect() {
  disconnect();
  clear();
  fetch();
  setSmbiosRevisionFromHeader();
  const bool built = isConnected() && buildIndex();
  TRACE(4, "\nCSMBios (Connect)   : SMBIOS %s connected", built ? "successfully" : "NOT");
  return built;
}

// A source that fails may leave a header behind, which is then not taken over.
void CSMBios::fetch() {
  CDataStream header;
  CDataStream data;
  if (CBiosTables::GetSmbiosData(header, data)) {
    TRACE(4, "\nCSMBios (Connect)   : SMBIOS data got from operating system (%d bytes)", static_cast<int>(data.Size()));
  } else if (getSmbiosDataFromBiosShadowMemory(header, data)) {
    TRACE(4, "\nCSMBios (Connect)   : Got SMBIOS data from BIOS shadow memory (%d bytes)",
          static_cast<int>(data.Size()));
  } else {
    TRACE(1, "\nCSMBios (Connect)   : ## ERROR! Could not find any SMBIOS data!");
    return;
  }
  m_Header = std::move(header);
  m_Data = std::move(data);
}

bool CSMBios::buildIndex() {
  TRACE(4, "\nCSMBios (Connect)   : SMBIOS revision: %d.%d", m_RevisionMajor, m_RevisionMinor);
  TRACE(4, "\nCSMBios (Connect)   : Build structure list...");
  return buildStructureList();
}

void CSMBios::disconnect() {
  if (!isConnected()) return;
  clear();
  TRACE(4, "\nCSMBios (Disconnect): Disconnected");
}

void CSMBios::clear() {
  m_Data.Clear();
  m_StructureCount = 0;
  m_Header.Clear();
  m_Index.clear();
  m_LastErrorText.clear();
  m_RevisionMajor = 0;
  m_RevisionMinor = 0;
}

const SmbiosStructureList* CSMBios::getStructuresByType(uint8_t type) const {
  const auto found = m_Index.find(type);
  return found != m_Index.end() ? &found->second : nullptr;
}

void CSMBios::setSmbiosRevisionFromHeader() {
  const std::span<const unsigned char> header = m_Header.Bytes();
  if (header.empty()) {
    TRACE(1, "\nCSMBios::setSmbiosRevisionFromHeader() : Error # No SMBios header to process!");
    return;
  }
  struct Row {
    std::string_view anchor;
    size_t shortest;
    size_t major;
    size_t minor;
  };
  constexpr Row kRows[] = {{"UEFI", 5, 5, 4}, {"_SM_", 5, 6, 7}, {"_SM3_", 6, 7, 8}};
  for (const Row& row : kRows) {
    if (header.size() < row.shortest || !StartsWith(header, row.anchor)) continue;
    m_RevisionMajor = ReadLittleEndian<uint8_t>(header, row.major);
    m_RevisionMinor = ReadLittleEndian<uint8_t>(header, row.minor);
    return;
  }
  TRACE(1, "\nCSMBios::setSmbiosRevisionFromHeader() : Error # Invalid SMBios version! (no anchor string matched)");
}

bool CSMBios::checkSmbiosHeader(std::span<const unsigned char> entryPoint, uint32_t& tableAddress,
                                unsigned long& tableLength, CDataStream& headerOut) {
  if (entryPoint.size() < sizeof(_DMI_21_EPS)) return false;
  TRACE(5, "\nCheckSmbiosHeader   : Dump of SM BIOS header:");
  TraceHexDump(entryPoint.first(std::min(kDumpedHeader, entryPoint.size())), true, true);
  TRACE(5, "\nCheckSmbiosHeader   : ...");
  tableAddress = ReadLittleEndian<uint32_t>(entryPoint, offsetof(_DMI_21_EPS, tableAddress));
  tableLength = ReadLittleEndian<uint16_t>(entryPoint, offsetof(_DMI_21_EPS, tableLength));
  m_StructureCount = ReadLittleEndian<uint16_t>(entryPoint, offsetof(_DMI_21_EPS, structureCount));
  TraceEntryPoint(entryPoint, m_StructureCount, tableAddress, tableLength);

  const size_t length = entryPoint[offsetof(_DMI_21_EPS, length)];
  const auto covered = entryPoint.first(std::min(length, entryPoint.size()));
  const unsigned int sum = std::accumulate(covered.begin(), covered.end(), 0U) & 0xFF;
  if (length > entryPoint.size() || sum != 0) {
    TRACE(1, "\n\nCheckSmbiosHeader   : ## CHECKSUM ERROR in DMI structure header!\n");
    return false;
  }
  TRACE(2, "\nCheckSmbiosHeader   : Checksum OK, storing header");
  headerOut = CDataStream(covered.data(), covered.size());
  return true;
}

bool CSMBios::getSmbiosDataFromBiosShadowMemory(CDataStream& header, CDataStream& data) {
  TRACE(2, "\nCSMBios (GetShadow) : Get SMBIOS data from BIOS shadow memory (E0000...FFFFF)");
  TRACE(3, "\nCSMBios (GetShadow) :   map physical memory 0x%05X length 0x%04X", kShadowArea, kShadowAreaSize);
  CDeviceBios device;
  device.Connect();
  const bool found = findShadowTable(device, header, data);
  device.UnmapPhysicalMemory();
  device.Disconnect();
  if (!found) TRACE(1, "\n\nCSMBios (GetShadow) : ## ERROR! %s", m_LastErrorText.c_str());
  return found;
}

bool CSMBios::findShadowTable(CDeviceBios& device, CDataStream& header, CDataStream& data) {
  const unsigned char* area = device.MapPhysicalMemory(0, kShadowArea, kShadowAreaSize, false);
  if (area == nullptr) {
    m_LastErrorText =
        WithLastError("Could not map SMBIOS physical memory (LastError = 0x%08X)!", device.GetLastError());
    return false;
  }
  uint32_t tableAddress = 0;
  unsigned long tableLength = 0;
  CDataStream entryPoint;
  if (!findEntryPoint({area, kShadowAreaSize}, tableAddress, tableLength, entryPoint)) return false;
  device.UnmapPhysicalMemory();
  const unsigned char* table = device.MapPhysicalMemory(0, tableAddress, tableLength, false);
  if (table == nullptr) {
    m_LastErrorText =
        WithLastError("Remapping of SMBIOS structure memory failed (LastError = 0x%08X)!", device.GetLastError());
    return false;
  }
  TRACE(3, "\nCSMBios (GetShadow) :   mapped address = 0x%08X", TracedAddress(table));
  header = std::move(entryPoint);
  data = CDataStream(table, tableLength);
  return true;
}

bool CSMBios::findEntryPoint(std::span<const unsigned char> area, uint32_t& tableAddress, unsigned long& tableLength,
                             CDataStream& header) {
  TRACE(3, "\nCSMBios (GetShadow) :   search for SMBIOS signature at mapped address 0x%08X...",
        TracedAddress(area.data()));
  TRACE(5, "\nScanForSignature    : physical addr = 0x%05X, mapped addr = 0x%08X, size 0x%05X", kShadowArea,
        TracedAddress(area.data()), kShadowAreaSize);
  const std::span<const unsigned char> entryPoint = ScanForSignature(area);
  const bool found = !entryPoint.empty() && checkSmbiosHeader(entryPoint, tableAddress, tableLength, header);
  TRACE(3, "\nScanForSignature    : -> SMBIOS %sdetected", found ? "" : "NOT ");
  if (!found) {
    m_LastErrorText = "No SMBIOS structures found!";
    return false;
  }
  TRACE(2, "\n\nCSMBios (GetShadow) : ## SMBIOS/DMI structures found ##\n");
  if (tableAddress == 0) {
    m_LastErrorText = "No address for SMBIOS strucures detected!";
    return false;
  }
  TRACE(3, "\nCSMBios (GetShadow) : SMBIOS structure address found; map this physical address (0x%08X size %d)...",
        tableAddress, static_cast<int>(tableLength));
  return true;
}

bool CSMBios::buildStructureList() {
  m_Index.clear();
  if (m_Data.IsEmpty()) {
    TRACE(1, "\nBuildStructureList  : ## ERROR! SMBIOS structures are not set");
    return false;
  }
  TRACE(5, "\nBuildStructureList  : struct buffer size = 0x%04X", static_cast<unsigned int>(m_Data.Size()));
  unsigned int walked = 0;
  const bool sound = WalkSmbiosStructures(m_Data.Bytes(), m_Index, walked, m_LastErrorText);
  if (!sound) m_Index.clear();
  if (m_StructureCount == 0) m_StructureCount = walked;
  if (m_StructureCount != walked) {
    TRACE(
        1,
        "\n\nBuildStructureList  : ## ERROR! Number of SMBIOS structures found (%d) does not match to number in header (%d)!\n",
        static_cast<int>(walked), static_cast<int>(m_StructureCount));
  }
  TRACE(4, "\nBuildStructureList  : %d SMBIOS structures found", static_cast<int>(m_StructureCount));
  return sound;
}
