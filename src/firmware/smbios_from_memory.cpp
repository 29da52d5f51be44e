#include "firmware/smbios_from_memory.h"

#include <fcntl.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>

#include "firmware/little_endian.h"
#include "firmware/physical_mapping.h"
#include "platform/stream.h"
#include "platform/unique_fd.h"
#include "trace/debug.h"

namespace smbios_tables {
namespace {

constexpr const char* kSystemTable = "/sys/firmware/efi/systab";
constexpr const char* kOldSystemTable = "/proc/efi/systab";
constexpr const char* kMemoryDevice = "/dev/mem";
constexpr size_t kLineSize = 255;              // 254 characters and the end of the text
constexpr uint64_t kLargestTable = 16U << 20;  // real ones stay below 1 MiB

// The system table's new place, else its old one; path tells which.
FileStream OpenSystemTable(const char*& path) {
  for (const char* candidate : {kSystemTable, kOldSystemTable}) {
    path = candidate;
    if (FileStream file{std::fopen(candidate, "re")}) return file;
    const int error = errno;
    TRACE(4, "\nSMBiosTableFromMemory::GetUEFIAddress() : Couldn't open '%s' : %s", candidate, std::strerror(error));
  }
  return nullptr;
}

// Value of the first line with that key, 0 when there is none. "SMBIOS=0xf0480\n" => 0xf0480
uint64_t ReadAddress(FILE* file, std::string_view key) {
  char line[kLineSize];
  while (std::fgets(line, sizeof(line), file) != nullptr) {
    const char* equals = std::strchr(line, '=');
    if (equals == nullptr || std::string_view(line, equals) != key) continue;
    return std::strtoull(equals + 1, nullptr, 0);
  }
  return 0;
}

void TraceMap(bool header, uint64_t address, uint64_t length) {
  const unsigned long long offset = address % CPhysicalMapping::PageSize();
  const unsigned long long base = address - offset;
  const unsigned long long size = length + offset;
  if (header) {
    TRACE(
        3,
        "\nSMBiosTableFromMemory::GetBiosData() : Map SMBios header (address=0x%016llx, size=0x%016llx, offset=0x%016llx)",
        base, size, offset);
  } else {
    TRACE(
        3,
        "\nSMBiosTableFromMemory::GetBiosData() : Map SMBios data table (address=0x%016llx, size=0x%016llx, offset=0x%016llx)",
        base, size, offset);
  }
}

// Maps the bytes and copies them.
bool CopyPhysical(int device, uint64_t address, uint64_t length, CDataStream& out) {
  CPhysicalMapping mapping;
  const int error = length > kLargestTable ? EFBIG : mapping.Map(device, address, length, false);
  if (error != 0) {
    TRACE(1, "\nSMBiosTableFromMemory::GetBiosData() : ERROR # mmap failed : (errno=%d) %s", error,
          std::strerror(error));
    return false;
  }
  out = CDataStream(mapping.Data(), length);
  return true;
}

}  // namespace

template <typename EntryPoint>
SMBiosTableFromMemory<EntryPoint>::SMBiosTableFromMemory() {
  TRACE(5, "\nSMBiosTableFromMemory::Ctor() : Done.");
}

template <typename EntryPoint>
SMBiosTableFromMemory<EntryPoint>::~SMBiosTableFromMemory() {
  TRACE(5, "\nSMBiosTableFromMemory::Dtor() : Done.");
}

template <typename EntryPoint>
uint64_t SMBiosTableFromMemory<EntryPoint>::GetUEFIAddress() const {
  TRACE(5, "\nSMBiosTableFromMemory::GetUEFIAddress() : Start.");
  const char* key = GetVersionString();
  const char* path = nullptr;
  const FileStream file = OpenSystemTable(path);
  if (!file) {
    TRACE(3, "\nSMBiosTableFromMemory::GetUEFIAddress() : Failed.");
    return 0;
  }
  TRACE(3, "\nSMBiosTableFromMemory::GetUEFIAddress() : UEFI interface detected: try to get %s address info from '%s'",
        key, path);
  const uint64_t address = ReadAddress(file.get(), key);
  if (address != 0) {
    TRACE(3, "\nSMBiosTableFromMemory::GetUEFIAddress() : %s address found : %#016llx", key,
          static_cast<unsigned long long>(address));
  } else {
    TRACE(1, "\nSMBiosTableFromMemory::GetUEFIAddress() : %s address NOT found!", key);
  }
  return address;
}

template <typename EntryPoint>
bool SMBiosTableFromMemory<EntryPoint>::GetBiosData(CDataStream& header, CDataStream& data) const {
  TRACE(5, "\nSMBiosTableFromMemory::GetBiosData() : Start.");
  const uint64_t address = GetUEFIAddress();
  if (address == 0) {
    TRACE(2, "\nSMBiosTableFromMemory::GetBiosData() : SMBios address not found. Abort.");
    return false;
  }
  const UniqueFd device{::open(kMemoryDevice, O_RDONLY | O_CLOEXEC)};
  if (!device) {
    const int error = errno;
    TRACE(1, "\nSMBiosTableFromMemory::GetBiosData() : ERROR # Couldn't open %s : %s", kMemoryDevice,
          std::strerror(error));
    return false;
  }
  CDataStream foundHeader;
  CDataStream foundData;
  if (!ReadHeader(device.Get(), address, foundHeader) || !ReadTable(device.Get(), foundHeader, foundData)) return false;
  if (foundHeader.IsEmpty() || foundData.IsEmpty()) {
    TRACE(2, "\nSMBiosTableFromMemory::GetBiosData() : SMBios table NOT found in memory.");
    return false;
  }
  TRACE(4, "\nSMBiosTableFromMemory::GetBiosData() : SMBios table found in memory.");
  header = std::move(foundHeader);
  data = std::move(foundData);
  return true;
}

template <typename EntryPoint>
bool SMBiosTableFromMemory<EntryPoint>::ReadHeader(int device, uint64_t address, CDataStream& header) const {
  TraceMap(true, address, HeaderSize());
  return CopyPhysical(device, address, HeaderSize(), header);
}

template <typename EntryPoint>
bool SMBiosTableFromMemory<EntryPoint>::ReadTable(int device, const CDataStream& header, CDataStream& data) const {
  const unsigned char* fields = header.IsEmpty() ? nullptr : header.Data();
  const uint32_t length = GetDataLength(fields);
  const uint64_t table = GetDataAddress(fields);
  if (length == 0 || table == 0) {
    TRACE(
        1,
        "\nSMBiosTableFromMemory::GetBiosData() : ERROR # Couldn't parse SMBios header! (address=0x%016llx, size=0x%016x)",
        static_cast<unsigned long long>(table), length);
    return true;
  }
  TraceMap(false, table, length);
  return CopyPhysical(device, table, length, data);
}

uint32_t SMBiosTableFromMemoryV3::GetDataLength(const unsigned char* header) const {
  if (header == nullptr) return 0;
  return ReadLittleEndian<uint32_t>({header, sizeof(_DMI_30_EPS)}, offsetof(_DMI_30_EPS, tableMaximumSize));
}

uint64_t SMBiosTableFromMemoryV3::GetDataAddress(const unsigned char* header) const {
  if (header == nullptr) return 0;
  return ReadLittleEndian<uint64_t>({header, sizeof(_DMI_30_EPS)}, offsetof(_DMI_30_EPS, tableAddress));
}

uint32_t SMBiosTableFromMemoryV2::GetDataLength(const unsigned char* header) const {
  if (header == nullptr) return 0;
  return ReadLittleEndian<uint16_t>({header, sizeof(_DMI_21_EPS)}, offsetof(_DMI_21_EPS, tableLength));
}

uint64_t SMBiosTableFromMemoryV2::GetDataAddress(const unsigned char* header) const {
  if (header == nullptr) return 0;
  return ReadLittleEndian<uint32_t>({header, sizeof(_DMI_21_EPS)}, offsetof(_DMI_21_EPS, tableAddress));
}

template class SMBiosTableFromMemory<_DMI_30_EPS>;
template class SMBiosTableFromMemory<_DMI_21_EPS>;

}  // namespace smbios_tables
