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

#include "platform/text_cursor.h"
#include "platform/unique_fd.h"
#include "trace/debug.h"

namespace {

constexpr const char* kProcBusPci = "/proc/bus/pci";

// Longer names than that are neither buses nor functions.
constexpr size_t kMaxName = 7;

struct DirectoryEntry {
  std::array<char, kMaxName + 1> name;
  unsigned char type;  // DT_*; DT_UNKNOWN and DT_LNK need a look at the file itself

  std::string_view Name() const { return name.data(); }
};

struct CloseDirectory {
  void operator()(DIR* directory) const { ::closedir(directory); }
};

// Adds the entries with names short enough, sorted by name. False, with a trace, when the directory cannot be listed.
bool ListDirectory(const std::string& path, std::vector<DirectoryEntry>& entries) {
  bool any = false;
  errno = 0;
  if (const std::unique_ptr<DIR, CloseDirectory> directory{::opendir(path.c_str())}) {
    while (const dirent* entry = ::readdir(directory.get())) {
      any = true;
      const std::string_view name = entry->d_name;
      if (name.size() > kMaxName) continue;
      name.copy(entries.emplace_back(DirectoryEntry{{}, entry->d_type}).name.data(), kMaxName);
    }
  }
  const int error = errno;
  if (!any) {
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

// A type that the listing told needs no stat, here and below.
bool IsPciDevDirValid(const std::string& path, unsigned char type) {
  if (type == DT_DIR) return true;
  struct stat info {};
  if (::stat(path.c_str(), &info) == 0) return S_ISDIR(info.st_mode);
  const int error = errno;
  TRACE(2, "IsPciDevDirValid  : stat() for %s failed errno=%d (%s)--> ignoring\n", path.c_str(), error,
        std::strerror(error));
  return false;
}

bool IsPciDevFileValid(const std::string& path, unsigned char type) {
  if (type == DT_REG) return true;
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
    if (!ParseFunctionName(entry.Name(), address)) continue;
    std::string path;
    path.reserve(directory.size() + 1 + entry.name.size());
    path.append(directory).append("/").append(entry.Name());
    if (IsPciDevFileValid(path, entry.type)) names.insert_or_assign(names.end(), address, std::move(path));
  }
}

}  // namespace

CDeviceBusIoBase::~CDeviceBusIoBase() {
  if (m_IsOpen) Close();
}

CDeviceBusIo::CDeviceBusIo() : CDeviceBusIoBase(kProcBusPci) {}

CDeviceBusIo::~CDeviceBusIo() = default;

bool CDeviceBusIo::BuildPciDeviceNameList(NameList& names) {
  TRACE(3, "BuildPciDeviceNameList  : from directory %s\n", kProcBusPci);
  std::vector<DirectoryEntry> entries;
  if (!ListDirectory(kProcBusPci, entries)) return false;
  for (const DirectoryEntry& entry : entries) {
    CPciAddress address;
    if (!ParseBusName(entry.Name(), address)) continue;
    const std::string directory = std::string(kProcBusPci) + "/" + entry.name.data();
    if (IsPciDevDirValid(directory, entry.type)) AddFunctionsOfBus(directory, address, names);
  }
  return true;
}

const char* CDeviceBusIo::FindPath(unsigned segment, unsigned bus, unsigned device, unsigned function) {
  if (segment > 0xFFFF || bus > 0xFF || device > 31 || function > 7) return nullptr;
  const CPciAddress address = {static_cast<uint16_t>(segment), static_cast<uint8_t>(bus), static_cast<uint8_t>(device),
                               static_cast<uint8_t>(function)};
  if (m_Expected == m_DeviceNameList.end() || !(m_Expected->first == address)) {
    m_Expected = m_DeviceNameList.find(address);
  }
  if (m_Expected == m_DeviceNameList.end()) return nullptr;
  const char* const path = m_Expected->second.c_str();
  ++m_Expected;
  return path;
}

bool CDeviceBusIo::GetPciConfigSpace(unsigned segment, unsigned bus, unsigned device, unsigned function,
                                     unsigned offset, unsigned& length, unsigned char* buffer) {
  if (length == 0 || buffer == nullptr) return false;
  if (!m_NameListBuilt) {
    m_NameListBuilt = BuildPciDeviceNameList(m_DeviceNameList);
    m_IsOpen = m_NameListBuilt && Open(O_PATH | O_DIRECTORY);
  }
  const char* const path = m_NameListBuilt ? FindPath(segment, bus, device, function) : nullptr;
  if (path == nullptr) return false;

  TRACE(4, "CDeviceBusIo::GetPciConfigSpace: open and read %s\n", path);
  // From the open directory on, the way to the file is short.
  const char* const nameInDirectory = path + std::string_view(kProcBusPci).size() + 1;
  UniqueFd fd{::openat(GetDescriptor(), nameInDirectory, O_RDONLY | O_CLOEXEC)};
  if (!fd) {
    TRACE(4, "GetPciConfigSpace: cannot open %s\n", path);
    return false;
  }
  // A short read means that the file ends there, so there is nothing to retry.
  const bool complete = ::pread(fd.Get(), buffer, length, offset) == static_cast<ssize_t>(length);
  fd.Reset();
  if (!complete) {
    TRACE(3, "GetPciConfigSpace : read error from %s\n", path);
    return false;
  }
  TRACE(3, "GetPciConfigSpace : %d bytes read at offset 0x%02x from %s\n", static_cast<int>(length), offset, path);
  return true;
}
