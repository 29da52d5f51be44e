#include "pci/pci_names.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <iterator>
#include <map>
#include <optional>
#include <utility>

#include "pci/adapter_names.h"
#include "pci/file_version.h"
#include "pci/line_reader.h"
#include "platform/descriptor_io.h"
#include "platform/never_destroyed.h"
#include "platform/text_cursor.h"
#include "platform/unique_fd.h"
#include "trace/debug.h"

namespace {

constexpr const char* kAdapterFile = "/etc/pelrix/Adapter.ini";
constexpr const char* kLspci[] = {"/sbin/lspci", "/usr/bin/lspci"};
constexpr size_t kMaxDescription = 97;

// By vendor and device ID.
using DeviceNames = std::map<std::pair<unsigned, unsigned>, std::string>;

// The adapter name file as it was read last, and the list of lspci. Both stay.
struct KnownNames {
  std::optional<AdapterNames> adapters;
  FileVersion adapterFile;
  std::optional<DeviceNames> devices;
};
constinit NeverDestroyed<KnownNames> s_Known;

// Null when the file cannot be read.
const AdapterNames* GetAdapterNames() {
  KnownNames& known = s_Known.object;
  const UniqueFd file{::open(kAdapterFile, O_RDONLY | O_CLOEXEC)};
  int error = errno;
  const FileVersion version = file ? FileVersion::Of(file.Get()) : FileVersion();
  if (version == known.adapterFile) return &*known.adapters;
  known.adapterFile = {};
  std::string text;
  if (file) error = ReadToEnd(file.Get(), text) ? 0 : errno;
  if (error != 0) {
    TRACE(3, "Error %d opening %s\n", error, kAdapterFile);
    return nullptr;
  }
  known.adapters.emplace(std::move(text));
  known.adapterFile = version;
  return &*known.adapters;
}

bool mapPciID_Adi(unsigned vendor, unsigned device, int subsystem, std::string& deviceName, std::string& vendorName) {
  const AdapterNames* const names = GetAdapterNames();
  std::string_view deviceText;
  std::string_view vendorText;
  const bool found = names != nullptr && names->Find(vendor, device, subsystem, deviceText, vendorText);
  deviceName = deviceText;
  vendorName = vendorText;
  return found;
}

DeviceNames ReadDeviceNames() {
  DeviceNames names;
  const auto* const lspci = std::ranges::find_if(kLspci, [](const char* path) { return ::access(path, X_OK) == 0; });
  if (lspci == std::end(kLspci)) {
    TRACE(1, "## ERROR! /sbin/lspci dos not exist on this system!\n");
    return names;
  }
  LineReader output = LineReader::OpenCommand(std::string(*lspci) + " -nn");
  for (std::string_view line; output.Next(line);) {
    LspciLine found;
    if (ParseLspciLine(line, found)) names.try_emplace({found.vendor, found.device}, found.description);
  }
  return names;
}

const DeviceNames& GetDeviceNames() {
  std::optional<DeviceNames>& devices = s_Known.object.devices;
  if (!devices) devices = ReadDeviceNames();
  return *devices;
}

}  // namespace

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
