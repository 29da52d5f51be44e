#include "pci/device_bus_io.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <memory>
#include <string_view>
#include <vector>

#include "pci/text_cursor.h"
#include "platform/unique_fd.h"
#include "trace/debug.h"

namespace {

constexpr const char* kProcBusPci = "/proc/bus/pci";
constexpr size_t kConfigSpaceSize = 4096;  // of PCI Express; no function has more

struct DirectoryEntry {
  std::string name;
  unsigned char type;  // DT_*; DT_UNKNOWN and DT_LNK need a look at the file itself
};

struct CloseDirectory {
  void operator()(DIR* directory) const { ::closedir(directory); }
};

// Sorted by name, "." and ".." included. Traces when there are none.
bool ListDirectory(const std::string& path, std::vector<DirectoryEntry>& entries) {
  errno = 0;
  if (const std::unique_ptr<DIR, CloseDirectory> directory{::opendir(path.c_str())}) {
    while (const dirent* entry = ::readdir(directory.get()))
      entries.push_back({entry->d_name, entry->d_type});
  }
  const int error = errno;
  if (entries.empty()) {
    TRACE(3, "BuildPciDeviceNameList  : scandir for directory %s failed; ## ERROR: errno=%d (%s)\n", path.c_str(),
          error, std::strerror(error));
    return false;
  }
  std::ranges::sort(entries, {}, &DirectoryEntry::name);
  return true;
}

// A number of exactly that many hexadecimal digits.
template <typename Value>
bool ParseHex(std::string_view digits, Value& value) {
  TextCursor cursor(digits);
  return cursor.Number(value, 16) && cursor.Rest().empty();
}

// "1f" => bus 0x1f of segment 0, "0001:1f" => of segment 1
bool ParseBusName(std::string_view name, CPciAddress& address) {
  if (name.size() == 2) return ParseHex(name, address.bus);
  return name.size() == 7 && name[4] == ':' && ParseHex(name.substr(0, 4), address.segment) &&
         ParseHex(name.substr(5), address.bus);
}

// "1f.7" => device 0x1f, function 7
bool ParseFunctionName(std::string_view name, CPciAddress& address) {
  return name.size() == 4 && name[2] == '.' && ParseHex(name.substr(0, 2), address.device) &&
         ParseHex(name.substr(3), address.function) && address.device <= 31 && address.function <= 7;
}

bool IsPciDevDirValid(const std::string& path) {
  struct stat info {};
  if (::stat(path.c_str(), &info) == 0) return S_ISDIR(info.st_mode);
  const int error = errno;
  TRACE(2, "IsPciDevDirValid  : stat() for %s failed errno=%d (%s)--> ignoring\n", path.c_str(), error,
        std::strerror(error));
  return false;
}

bool IsPciDevFileValid(const std::string& path, unsigned char type) {
  if (type == DT_REG) return true;  // nothing that a stat could add
  struct stat info {};
  if (::stat(path.c_str(), &info) == 0) return S_ISREG(info.st_mode);
  const int error = errno;
  TRACE(2, "IsPciDevFileValid  : stat() for %s failed errno=%d (%s)--> ignoring\n", path.c_str(), error,
        std::strerror(error));
  return false;
}

// address: segment and bus of the directory.
void AddFunctionsOfBus(const std::string& directory, CPciAddress address, CDeviceBusIo::NameList& names) {
  std::vector<DirectoryEntry> entries;
  if (!ListDirectory(directory, entries)) return;
  for (const DirectoryEntry& entry : entries) {
    if (!ParseFunctionName(entry.name, address)) continue;
    std::string path = directory + "/" + entry.name;
    if (IsPciDevFileValid(path, entry.type)) names.insert_or_assign(names.end(), address, std::move(path));
  }
}

// Short reads of a configuration file mean that there is no more, so there is nothing to retry.
bool ReadExactly(int fd, unsigned offset, unsigned length, unsigned char* buffer) {
  std::array<unsigned char, kConfigSpaceSize> bytes;
  if (length > bytes.size() || ::pread(fd, bytes.data(), length, offset) != static_cast<ssize_t>(length)) return false;
  std::copy_n(bytes.begin(), length, buffer);
  return true;
}

}  // namespace

CDeviceBusIoBase::~CDeviceBusIoBase() {
  if (m_IsOpen) Close();
}

CDeviceBusIo::~CDeviceBusIo() = default;

bool CDeviceBusIo::BuildPciDeviceNameList(NameList& names) {
  TRACE(3, "BuildPciDeviceNameList  : from directory %s\n", kProcBusPci);
  std::vector<DirectoryEntry> entries;
  if (!ListDirectory(kProcBusPci, entries)) return false;
  for (const DirectoryEntry& entry : entries) {
    CPciAddress address;
    if (!ParseBusName(entry.name, address)) continue;
    const std::string directory = std::string(kProcBusPci) + "/" + entry.name;
    if (IsPciDevDirValid(directory)) AddFunctionsOfBus(directory, address, names);
  }
  return true;
}

bool CDeviceBusIo::FindDevice(unsigned segment, unsigned bus, unsigned device, unsigned function,
                              const char*& path) const {
  if (segment > 0xFFFF || bus > 0xFF || device > 31 || function > 7) return false;
  const auto found = m_DeviceNameList.find({static_cast<uint16_t>(segment), static_cast<uint8_t>(bus),
                                            static_cast<uint8_t>(device), static_cast<uint8_t>(function)});
  if (found == m_DeviceNameList.end()) return false;
  path = found->second.c_str();
  return true;
}

bool CDeviceBusIo::GetPciConfigSpace(unsigned segment, unsigned bus, unsigned device, unsigned function,
                                     unsigned offset, unsigned& length, unsigned char* buffer) {
  if (length == 0 || buffer == nullptr) return false;
  if (!m_NameListBuilt) m_NameListBuilt = BuildPciDeviceNameList(m_DeviceNameList);
  const char* path = nullptr;
  if (!m_NameListBuilt || !FindDevice(segment, bus, device, function, path)) return false;

  TRACE(4, "CDeviceBusIo::GetPciConfigSpace: open and read %s\n", path);
  UniqueFd fd{::open(path, O_RDONLY | O_CLOEXEC)};
  if (!fd) {
    TRACE(4, "GetPciConfigSpace: cannot open %s\n", path);
    return false;
  }
  const bool complete = ReadExactly(fd.Get(), offset, length, buffer);
  fd.Reset();
  if (!complete) {
    TRACE(3, "GetPciConfigSpace : read error from %s\n", path);
    return false;
  }
  TRACE(3, "GetPciConfigSpace : %d bytes read at offset 0x%02x from %s\n", static_cast<int>(length), offset, path);
  return true;
}
