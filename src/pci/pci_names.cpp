#include "pci/pci_names.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <map>
#include <utility>

#include "pci/line_reader.h"
#include "platform/text_cursor.h"
#include "platform/unique_fd.h"
#include "trace/debug.h"

namespace {

constexpr const char* kAdapterFile = "/etc/pelrix/Adapter.ini";
constexpr const char* kLspci = "/sbin/lspci";
constexpr const char* kLspciCommand = "/sbin/lspci -nn";
constexpr size_t kMaxDescription = 97;

// By vendor and device ID.
using DeviceNames = std::map<std::pair<unsigned, unsigned>, std::string>;

std::string HexText(unsigned value) {
  char text[16];
  std::snprintf(text, sizeof text, "%04X", value);
  return text;
}

bool NextLine(std::string_view& text, std::string_view& line) {
  do {
    if (text.empty()) return false;
    const size_t end = text.find('\n');
    line = text.substr(0, end);
    text.remove_prefix(end == std::string_view::npos ? text.size() : end + 1);
  } while (line.starts_with(';'));
  return true;
}

bool ReadText(const char* path, std::string& text) {
  const UniqueFd fd{::open(path, O_RDONLY | O_CLOEXEC)};
  const int error = errno;
  if (!fd) {
    TRACE(3, "Error %d opening %s\n", error, path);
    return false;
  }
  char block[16384];
  for (ssize_t count; (count = ::read(fd.Get(), block, sizeof block)) > 0;) {
    text.append(block, static_cast<size_t>(count));
  }
  return true;
}

bool mapPciID_Adi(unsigned vendor, unsigned device, int subsystem, std::string& deviceName, std::string& vendorName) {
  std::string text;
  if (!ReadText(kAdapterFile, text)) return false;
  std::string_view deviceText;
  std::string_view vendorText;
  const bool found = FindAdapterNames(text, vendor, device, subsystem, deviceText, vendorText);
  deviceName = deviceText;
  vendorName = vendorText;
  return found;
}

DeviceNames ReadDeviceNames() {
  DeviceNames names;
  if (::access(kLspci, X_OK) != 0) {
    TRACE(1, "## ERROR! /sbin/lspci dos not exist on this system!\n");
    return names;
  }
  LineReader output = LineReader::OpenCommand(kLspciCommand);
  for (std::string_view line; output.Next(line);) {
    LspciLine found;
    if (ParseLspciLine(line, found)) names.try_emplace({found.vendor, found.device}, found.description);
  }
  return names;
}

const DeviceNames& GetDeviceNames() {
  static const DeviceNames names = ReadDeviceNames();
  return names;
}

}  // namespace

bool FindAdapterNames(std::string_view text, unsigned vendor, unsigned device, int subsystem,
                      std::string_view& deviceName, std::string_view& vendorName) {
  constexpr std::string_view kVendorKey = "Vendor=";
  const std::string header = "[" + HexText(vendor) + "]";
  const std::string deviceKey = HexText(device) + "=";
  const std::string exactKey = subsystem < 0 ? "" : HexText(device) + HexText(static_cast<unsigned>(subsystem)) + "=";
  std::string_view line;
  do {
    if (!NextLine(text, line)) return false;
  } while (!line.starts_with(header));
  if (!NextLine(text, line) || !line.starts_with(kVendorKey)) return false;
  vendorName = TextCursor::Trim(line.substr(kVendorKey.size()));

  bool found = false;
  while (NextLine(text, line) && !line.starts_with('[')) {
    if (!exactKey.empty() && line.starts_with(exactKey)) {
      deviceName = TextCursor::Trim(line.substr(exactKey.size()));
      return true;
    }
    if (!found && line.starts_with(deviceKey)) {
      deviceName = TextCursor::Trim(line.substr(deviceKey.size()));
      found = true;
    }
  }
  return found;
}

bool ParseLspciLine(std::string_view line, LspciLine& out) {
  const size_t address = line.find(' ');
  const size_t bracket = line.rfind('[');
  if (address == std::string_view::npos || bracket == std::string_view::npos || bracket <= address) return false;
  TextCursor ids(line.substr(bracket + 1));
  LspciLine found;
  if (!ids.Number(found.vendor, 16) || !ids.Skip(':') || !ids.Number(found.device, 16)) return false;
  found.description = line.substr(address + 1, bracket - address - 1).substr(0, kMaxDescription);
  out = found;
  return true;
}

bool mapPciID(unsigned vendor, unsigned device, int subsystem, std::string& deviceName, std::string& vendorName) {
  deviceName.clear();
  vendorName.clear();
  return mapPciID_Adi(vendor, device, subsystem, deviceName, vendorName) || getDeviceName(vendor, device, &deviceName);
}

bool getDeviceName(unsigned vendor, unsigned device, std::string* name) {
  const auto found = GetDeviceNames().find({vendor, device});
  if (found == GetDeviceNames().end()) return false;
  if (name != nullptr) *name = found->second;
  return true;
}

bool GetPciDeviceName(unsigned vendor, unsigned device, char* buffer, size_t size) {
  if (buffer == nullptr || size == 0) return false;
  std::string name;
  const bool found = getDeviceName(vendor, device, &name);
  std::snprintf(buffer, size, "%s", name.c_str());
  return found;
}
