#include "firmware/smbios_sources.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <utility>
#include <vector>

#include "firmware/little_endian.h"
#include "firmware/smbios_from_memory.h"
#include "platform/unique_fd.h"
#include "trace/debug.h"

namespace {

using smbios_tables::_DMI_21_EPS;

constexpr const char* kSysfsEntryPoint = "/sys/firmware/dmi/tables/smbios_entry_point";
constexpr const char* kSysfsTable = "/sys/firmware/dmi/tables/DMI";
constexpr const char* kEsxDevice = "/vmfs/devices/char/mem/smbios";
constexpr size_t kEsxReadSize = 64;
constexpr size_t kEsxSpareBytes = 32;

using EsxHead = std::array<unsigned char, kEsxReadSize>;

UniqueFd OpenEsxDevice() {
  return UniqueFd{::open(kEsxDevice, O_RDONLY | O_CLOEXEC)};
}

// One read, begun again when a signal interrupts it. errno is 0 unless it failed.
ssize_t ReadOnce(int fd, void* buffer, size_t size) {
  ssize_t count = 0;
  do {
    errno = 0;
    count = ::read(fd, buffer, size);
  } while (count < 0 && errno == EINTR);
  return count;
}

// The first bytes of the device, the whole entry point among them.
bool ReadEsxHead(int fd, EsxHead& head, size_t& length) {
  const ssize_t count = ReadOnce(fd, head.data(), head.size());
  const int error = errno;
  if (count < static_cast<ssize_t>(sizeof(_DMI_21_EPS))) {
    TRACE(
        1,
        "GetBiosTableESX        : ERROR: read SMBIOS header from %s failed! (readlen = %d, hdrlen = %d), Reason: %s\n",
        kEsxDevice, static_cast<int>(count), head[offsetof(_DMI_21_EPS, length)], std::strerror(error));
    return false;
  }
  length = static_cast<size_t>(count);
  return true;
}

// Opens the device anew and reads past the entry point, so that the position is at the table. None on failure, also
// when the device ends before that.
UniqueFd OpenEsxTable(size_t entryPointLength) {
  UniqueFd device = OpenEsxDevice();
  int error = errno;
  ssize_t count = device ? 1 : -1;
  while (count > 0 && entryPointLength > 0) {
    EsxHead part;
    count = ReadOnce(device.Get(), part.data(), std::min(entryPointLength, part.size()));
    error = errno;
    if (count > 0) entryPointLength -= static_cast<size_t>(count);
  }
  if (count > 0) return device;
  TRACE(1,
        "GetBiosTableESX        : ERROR: read SMBIOS header from %s failed! (len = %d, BytesToRead = %d), Reason: %s\n",
        kEsxDevice, static_cast<int>(count), static_cast<int>(entryPointLength), std::strerror(error));
  return {};
}

bool ReadEsxTable(int fd, size_t tableLength, CDataStream& data) {
  std::vector<unsigned char> table(tableLength + kEsxSpareBytes);
  size_t total = 0;
  ssize_t count = 0;
  do {
    count = ReadOnce(fd, table.data() + total, table.size() - total);
    const int error = errno;
    if (count < 0) {
      TRACE(1, "GetBiosTableESX        : ERROR: read SMBIOS Table from %s failed! (BytesToRead = %d), Reason: %s\n",
            kEsxDevice, static_cast<int>(table.size() - total), std::strerror(error));
      return false;
    }
    total += static_cast<size_t>(count);
  } while (count > 0 && total < table.size());
  if (total < tableLength || total == 0) {
    TRACE(
        1,
        "GetBiosTableESX        : ERROR: read SMBIOS Table from %s failed! (len = %d, TableLen = %d), Reason: no sufficiant data available\n",
        kEsxDevice, static_cast<int>(total), static_cast<int>(tableLength));
    return false;
  }
  TRACE(1, "GetBiosTableESX        : %d bytes read from SMBIOS Table %s (TableLen = %d, BytesToRead = %d)\n",
        static_cast<int>(total), kEsxDevice, static_cast<int>(tableLength), static_cast<int>(table.size() - total));
  data = CDataStream(table.data(), total);
  return true;
}

}  // namespace

bool CBiosTables::GetSmbiosData(CDataStream& header, CDataStream& data) {
  TRACE(5, "\nCBiosTables::GetSmbiosData() Start.");
  if (GetAnySMBiosFromSysfs(header, data)) {
    TRACE(5, "\nCBiosTables::GetSmbiosData() : Found in sysfs.");
    return true;
  }
  if (GetAnySMBiosFromMemory(header, data)) {
    TRACE(5, "\nCBiosTables::GetSmbiosData() : Found in memory.");
    return true;
  }
  if (GetBiosTableESX(header, data)) {
    TRACE(5, "\nCBiosTables::GetSmbiosData() : ESXi specific SMBios found.");
    return true;
  }
  TRACE(1, "\nCBiosTables::GetSmbiosData() : ERROR ## No SMBios found!");
  return false;
}

bool CBiosTables::GetAnySMBiosFromSysfs(CDataStream& header, CDataStream& data) {
  TRACE(5, "\nCBiosTables::GetAnySMBiosFromSysfs() Start.");
  CDataStream entryPoint;
  if (!CDataStream::ReadFromFile(kSysfsEntryPoint, entryPoint) || entryPoint.IsEmpty()) {
    TRACE(3, "\nCBiosTables::GetAnySMBiosFromSysfs() Could not read SMBios entry file.");
    return false;
  }
  CDataStream table;
  if (!CDataStream::ReadFromFile(kSysfsTable, table) || table.IsEmpty()) {
    TRACE(2, "\nCBiosTables::GetAnySMBiosFromSysfs() Could not read SMBios data table file.");
    return false;
  }
  header = std::move(entryPoint);
  data = std::move(table);
  TRACE(2, "\nCBiosTables::GetAnySMBiosFromSysfs() Success : Header (%u) bytes, Data (%u) bytes",
        static_cast<unsigned int>(header.Size()), static_cast<unsigned int>(data.Size()));
  return true;
}

bool CBiosTables::GetAnySMBiosFromMemory(CDataStream& header, CDataStream& data) {
  TRACE(5, "\nCBiosTables::GetAnySMBiosFromMemory() Start.");
  CDataStream entryPoint;
  CDataStream table;
  if (!smbios_tables::SMBiosTableFromMemoryV3().GetBiosData(entryPoint, table)) {
    TRACE(4, "\nCBiosTables::GetAnySMBiosFromMemory() No SMBios 3 in memory.");
    if (!smbios_tables::SMBiosTableFromMemoryV2().GetBiosData(entryPoint, table)) {
      TRACE(4, "\nCBiosTables::GetAnySMBiosFromMemory() No SMBios 2 in memory.");
      return false;
    }
  }
  TRACE(2, "\nCBiosTables::GetAnySMBiosFromMemory() : Read SMBios header (%u) bytes, data (%u) bytes",
        static_cast<unsigned int>(entryPoint.Size()), static_cast<unsigned int>(table.Size()));
  if (entryPoint.IsEmpty() || table.IsEmpty()) {
    TRACE(4, "\nCBiosTables::GetAnySMBiosFromMemory() Failed.");
    return false;
  }
  header = std::move(entryPoint);
  data = std::move(table);
  TRACE(4, "\nCBiosTables::GetAnySMBiosFromMemory() Success.");
  return true;
}

bool CBiosTables::GetBiosTableESX(CDataStream& header, CDataStream& data) {
  UniqueFd device = OpenEsxDevice();
  if (!device) return false;
  TRACE(1, "GetBiosTableESX        : we are running on ESX; file %s succesfully opened!\n", kEsxDevice);
  EsxHead head{};
  size_t headLength = 0;
  if (!ReadEsxHead(device.Get(), head, headLength)) return false;
  device.Reset();
  TraceHexDump(std::span(head).first(headLength), false, false);
  header = CDataStream(head.data(), sizeof(_DMI_21_EPS));
  const size_t entryPointLength = head[offsetof(_DMI_21_EPS, length)];
  const size_t tableLength = ReadLittleEndian<uint16_t>(head, offsetof(_DMI_21_EPS, tableLength));

  device = OpenEsxTable(entryPointLength);
  return device && ReadEsxTable(device.Get(), tableLength, data);
}
