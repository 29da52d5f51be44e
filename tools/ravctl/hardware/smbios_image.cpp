#include "ravctl/hardware/smbios_image.h"

#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>

#include "firmware/smbios_lookup.h"
#include "firmware/smbios_sources.h"
#include "firmware/smbios_walk.h"
#include "ravctl/base/error.h"
#include "ravctl/base/text.h"

namespace ravctl {

namespace {

constexpr const char* kSysfsTable = "/sys/firmware/dmi/tables/DMI";
constexpr const char* kMemoryDevice = "/dev/mem";

using Bytes = std::span<const unsigned char>;

bool ReadShadow(CDataStream& header, CDataStream& data) {
  return CSMBios().getSmbiosDataFromBiosShadowMemory(header, data);
}

struct Source {
  const char* name;
  bool (*read)(CDataStream& header, CDataStream& data);
};

// In the order in which the library tries them.
constexpr auto kSources = std::to_array<Source>({
    {"sysfs", CBiosTables::GetAnySMBiosFromSysfs},
    {"memory", CBiosTables::GetAnySMBiosFromMemory},
    {"esx", CBiosTables::GetBiosTableESX},
    {"bios area", ReadShadow},
});

// Where an entry point has what (DMTF DSP0134, 5.2; the legacy one is the second half of the 32-bit one).
struct EntryPointRow {
  std::string_view anchor;
  size_t size;
  size_t version;  // major and minor, a byte each
  size_t tableSize, tableSizeBytes;
  size_t tableAddress, tableAddressBytes;
  size_t sumFrom, sumSize;  // what is to sum to 0 and holds the two fields before
  size_t checksum;
};
constexpr auto kEntryPoints = std::to_array<EntryPointRow>({
    {"_SM3_", 24, 7, 12, 4, 16, 8, 0, 24, 5},
    {"_SM_", 31, 6, 0x16, 2, 0x18, 4, 0x10, 15, 0x15},
});

constexpr size_t kDumpedTable = 32;

struct VersionRow {
  uint16_t written, meant;
};
constexpr auto kOddVersions = std::to_array<VersionRow>({{0x021F, 0x0203}, {0x0221, 0x0203}, {0x0233, 0x0206}});

const EntryPointRow* FindEntryPoint(Bytes entryPoint) {
  const std::string_view text(reinterpret_cast<const char*>(entryPoint.data()), entryPoint.size());
  const auto found = std::ranges::find_if(kEntryPoints, [text](const EntryPointRow& row) {
    return text.starts_with(row.anchor) && text.size() >= row.size;
  });
  return found == kEntryPoints.end() ? nullptr : found;
}

void PutNumber(std::string& bytes, size_t offset, size_t size, uint64_t value) {
  for (size_t place = offset; place < offset + size; ++place, value >>= 8)
    bytes[place] = static_cast<char>(value);
}

// Reads the string set at that place; the position behind its two NULs, or 0 when it does not end.
size_t ReadStrings(Bytes table, size_t at, std::vector<std::string_view>& strings) {
  if (at + 1 < table.size() && table[at] == 0 && table[at + 1] == 0) return at + 2;
  while (at < table.size()) {
    const auto* begin = reinterpret_cast<const char*>(table.data() + at);
    const size_t length = ::strnlen(begin, table.size() - at);
    if (length == 0) return at + 1;
    strings.emplace_back(begin, length);
    at += length + 1;
  }
  return 0;
}

// Adds the structure and moves the end of what is used.
void AddStructure(const _DMI_20_HEADER& header, SmbiosImage& image) {
  const Bytes table = image.table.Bytes();
  SmbiosStructure structure;
  structure.type = header.type;
  structure.length = header.length;
  structure.handle = static_cast<uint16_t>(header.Handle());
  structure.version = SmbiosVersion(image.entryPoint.Bytes());
  structure.offset = static_cast<size_t>(reinterpret_cast<const unsigned char*>(&header) - table.data());
  structure.area = table.subspan(structure.offset, std::min<size_t>(header.length, table.size() - structure.offset));
  const size_t strings = structure.offset + header.length;
  const size_t end = strings <= table.size() ? ReadStrings(table, strings, structure.strings) : 0;
  structure.isWhole = end != 0;
  image.used = structure.isWhole ? end : table.size();
  image.structures.push_back(std::move(structure));
}

// "## FATAL ERROR! text\n   place" => "text: place"
std::string OneLineError(const std::string& error) {
  constexpr std::string_view kMark = "ERROR! ";
  const size_t mark = error.find(kMark);
  std::string line;
  bool isBlank = false;
  for (const char letter : error.substr(mark == std::string::npos ? 0 : mark + kMark.size())) {
    const bool isGap = letter == '\n' || letter == ' ';
    if (!isGap || !isBlank) line += isGap ? ' ' : letter;
    isBlank = isGap;
  }
  return line;
}

}  // namespace

std::string_view SmbiosStructure::String(unsigned int number) const {
  return number == 0 || number > strings.size() ? std::string_view() : strings[number - 1];
}

void WalkSmbiosImage(SmbiosImage& image) {
  SmbiosStructureIndex index;
  unsigned int walked = 0;
  std::string error;
  if (!WalkSmbiosStructures(image.table.Bytes(), index, walked, error)) image.error = OneLineError(error);
  SmbiosStructureList all;
  for (const auto& [type, list] : index)
    all.insert(all.end(), list.begin(), list.end());
  std::ranges::sort(all);
  for (const _DMI_20_HEADER* header : all)
    AddStructure(*header, image);
}

uint16_t SmbiosVersion(Bytes entryPoint) {
  const EntryPointRow* const row = FindEntryPoint(entryPoint);
  if (row == nullptr) return 0;
  const auto written = static_cast<uint16_t>(entryPoint[row->version] << 8 | entryPoint[row->version + 1]);
  const auto odd = std::ranges::find(kOddVersions, written, &VersionRow::written);
  return odd == kOddVersions.end() ? written : odd->meant;
}

std::string SmbiosDumpFile(const SmbiosImage& image) {
  const Bytes entryPoint = image.entryPoint.Bytes();
  const Bytes table = image.table.Bytes();
  const EntryPointRow* const row = FindEntryPoint(entryPoint);
  if (row == nullptr) {
    throw CommandError(ExitCode::kInputDamaged, "the entry point has no known anchor or is cut", image.source,
                       "--raw and --entry-point write the bytes as they are");
  }
  std::string file(reinterpret_cast<const char*>(entryPoint.data()), row->size);
  PutNumber(file, row->tableSize, row->tableSizeBytes, table.size());
  PutNumber(file, row->tableAddress, row->tableAddressBytes, kDumpedTable);
  file[row->checksum] = 0;
  unsigned char sum = 0;
  for (const char each : file.substr(row->sumFrom, row->sumSize))
    sum = static_cast<unsigned char>(sum + static_cast<unsigned char>(each));
  file[row->checksum] = static_cast<char>(-sum);
  file.resize(kDumpedTable);
  return file.append(reinterpret_cast<const char*>(table.data()), table.size());
}

bool FindSmbiosImage(SmbiosImage& image) {
  for (const Source& source : kSources) {
    if (!source.read(image.entryPoint, image.table)) continue;
    image.source = source.name;
    WalkSmbiosImage(image);
    return true;
  }
  return false;
}

SmbiosImage ReadSmbiosImage() {
  SmbiosImage image;
  if (FindSmbiosImage(image)) return image;
  for (const char* path : {kSysfsTable, kMemoryDevice}) {
    if (::access(path, R_OK) != 0 && (errno == EACCES || errno == EPERM)) {
      throw CommandError(ExitCode::kPermission, "the SMBIOS data cannot be read", path, "needs root");
    }
  }
  throw CommandError(ExitCode::kInputMissing, "this machine has no SMBIOS data", kSysfsTable,
                     "virtual machines may have none");
}

}  // namespace ravctl
