#include "pci/device_bus_io.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <string_view>
#include <vector>

#include "platform/directory_stream.h"
#include "platform/text_cursor.h"
#include "platform/unique_fd.h"
#include "trace/debug.h"

namespace {

constexpr const char* kProcBusPci = "/proc/bus/pci";

// Adds the names of the entries in alphabetical order. False, with a trace, when the directory cannot be listed.
bool ListDirectory(const std::string& path, std::vector<std::string>& names) {
  errno = 0;
  if (const DirectoryStream directory{::opendir(path.c_str())}) {
    while (const dirent* entry = ::readdir(directory.get()))
      names.emplace_back(entry->d_name);
  }
  const int error = errno;
  if (names.empty()) {
    TRACE(3, "BuildPciDeviceNameList  : scandir for directory %s failed; ## ERROR: errno=%d (%s)\n", path.c_str(),
          error, std::strerror(error));
    return false;
  }
  std::ranges::sort(names);
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

bool IsPciDevFileValid(const std::string& path) {
  struct stat info {};
  if (::stat(path.c_str(), &info) == 0) return S_ISREG(info.st_mode);
  const int error = errno;
  TRACE(2, "IsPciDevFileValid  : stat() for %s failed errno=%d (%s)--> ignoring\n", path.c_str(), error,
        std::strerror(error));
  return false;
}

// address: segment and bus of the directory.
void AddFunctionsOfBus(const std::string& directory, CPciAddress address, CDeviceBusIo::NameList& names) {
  std::vector<std::string> entries;
  if (!ListDirectory(directory, entries)) return;
  for (const std::string& name : entries) {
    const std::string path = directory + "/" + name;
    if (ParseFunctionName(name, address) && IsPciDevFileValid(path)) names[address] = path;
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
  std::vector<std::string> entries;
  if (!ListDirectory(kProcBusPci, entries)) return false;
  for (const std::string& name : entries) {
    CPciAddress address;
    const std::string directory = std::string(kProcBusPci) + "/" + name;
    if (ParseBusName(name, address) && IsPciDevDirValid(directory)) AddFunctionsOfBus(directory, address, names);
  }
  return true;
}

bool CDeviceBusIo::GetPciConfigSpace(unsigned segment, unsigned bus, unsigned device, unsigned function,
                                     unsigned offset, unsigned& length, unsigned char* buffer) {
  if (length == 0 || buffer == nullptr) return false;
  if (!m_NameListBuilt) m_NameListBuilt = BuildPciDeviceNameList(m_DeviceNameList);
  if (!m_NameListBuilt || segment > 0xFFFF || bus > 0xFF || device > 31 || function > 7) return false;
  const auto found = m_DeviceNameList.find({static_cast<uint16_t>(segment), static_cast<uint8_t>(bus),
                                            static_cast<uint8_t>(device), static_cast<uint8_t>(function)});
  if (found == m_DeviceNameList.end()) return false;
  const char* const path = found->second.c_str();

  TRACE(4, "CDeviceBusIo::GetPciConfigSpace: open and read %s\n", path);
  UniqueFd file{::open(path, O_RDONLY | O_CLOEXEC)};
  if (!file) {
    TRACE(4, "GetPciConfigSpace: cannot open %s\n", path);
    return false;
  }
  // A short read means that the file ends there, so there is nothing to retry.
  const bool complete = ::pread(file.Get(), buffer, length, offset) == static_cast<ssize_t>(length);
  file.Reset();
  if (!complete) {
    TRACE(3, "GetPciConfigSpace : read error from %s\n", path);
    return false;
  }
  TRACE(3, "GetPciConfigSpace : %d bytes read at offset 0x%02x from %s\n", static_cast<int>(length), offset, path);
  return true;
}
