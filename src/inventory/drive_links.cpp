#include "inventory/drive_links.h"

#include <algorithm>
#include <charconv>
#include <vector>

#include "platform/directory.h"
#include "platform/file.h"
#include "platform/reg_ex.h"
#include "platform/stdio_file.h"

namespace {

constexpr const char* kScsiDevices = "/sys/class/scsi_device/";
constexpr const char* kScsiGeneric = "/sys/class/scsi_generic";
constexpr const char* kBlockDevices = "/sys/block/";
constexpr const char* kMultipathDevices = "/sys/devices/mpdx/";

constexpr const char* kMultipathMark = "mpdx/mpdh";
constexpr const char* kMultipathPattern = "mpdh[0-9]+";
// h: a hexadecimal digit in lower case; ?: any character.
constexpr std::string_view kPciAddressPattern = "hhhh:hh:hh?h";

bool Contains(const std::string& text, std::string_view part) {
  return text.find(part) != std::string::npos;
}

// Newer kernels have the link in the place of the directory, older ones in it.
bool GetDeviceLink(std::string& target, const std::string& path) {
  return CFile::GetSymbolicLink(target, path) || CFile::GetSymbolicLink(target, path + "/device");
}

bool GetBlockName(std::string& name, const std::string& device) {
  std::vector<std::string> entries;
  CDirectory::GetDirectoryContent(entries, device + "/block", false);
  if (entries.size() != 1) return false;
  name = entries.front();
  return true;
}

// An entry such as "block:sda".
bool GetBlockNameOfOlderKernel(std::string& name, const std::string& device) {
  std::vector<std::string> entries;
  CDirectory::GetDirectoryContent(entries, device, false);
  for (const std::string& entry : entries) {
    const size_t colon = entry.find(':');
    if (colon == std::string::npos || !Contains(entry, "block")) continue;
    name = entry.substr(colon + 1);
    return true;
  }
  return false;
}

bool IsHexDigit(char letter) {
  return (letter >= '0' && letter <= '9') || (letter >= 'a' && letter <= 'f');
}

bool StandsAt(std::string_view path, size_t place) {
  const auto fits = [](char letter, char pattern) {
    return pattern == 'h' ? IsHexDigit(letter) : pattern == '?' || letter == pattern;
  };
  return (place == 0 || !IsHexDigit(path[place - 1])) &&
         std::ranges::equal(path.substr(place, kPciAddressPattern.size()), kPciAddressPattern, fits);
}

bool FindLastPciAddress(CPciAddress& pci, std::string_view path) {
  const std::vector<CPciAddress> found = FindPciAddresses(path);
  if (found.empty() || !found.back().IsValid()) return false;
  pci = found.back();
  return true;
}

template <typename Number>
bool ParsePart(std::string_view part, int base, Number& number) {
  const auto result = std::from_chars(part.data(), part.data() + part.size(), number, base);
  return result.ec == std::errc() && result.ptr == part.data() + part.size();
}

}  // namespace

bool GetScsiDriveOSName(std::string& name, const std::string& address, bool tape) {
  if (tape) return GetScsiTapeDriveOSName(name, address);
  const std::string device = kScsiDevices + address + "/device";
  return GetBlockName(name, device) || GetBlockNameOfOlderKernel(name, device) ||
         GetScsiDriveGenericName(name, address);
}

bool GetScsiTapeDriveOSName(std::string& name, const std::string& address) {
  constexpr std::string_view kTapeMark = "scsi_tape/st";
  std::string target;
  if (!CFile::GetSymbolicLink(target, kScsiDevices + address + "/device/tape")) return false;
  const size_t mark = target.find(kTapeMark);
  if (mark == std::string::npos) return false;
  name = "nst" + target.substr(mark + kTapeMark.size());
  return true;
}

bool GetScsiDriveGenericName(std::string& name, const std::string& address) {
  std::vector<std::string> entries;
  CDirectory::GetDirectoryContent(entries, kScsiGeneric, false);
  for (const std::string& entry : entries) {
    std::string target;
    const std::string link = std::string(kScsiGeneric) + "/" + entry + "/device";
    if (!CFile::GetSymbolicLink(target, link) || target.substr(target.rfind('/') + 1) != address) continue;
    name = entry;
    return true;
  }
  return false;
}

bool SetMpdDrive(const std::string& address) {
  std::string target;
  return GetDeviceLink(target, kScsiDevices + address) && Contains(target, kMultipathMark);
}

bool GetDrivePciAddress(CPciAddress& pci, const std::string& name, bool multipath, bool scsi) {
  std::string target;
  if (!GetDeviceLink(target, (scsi ? kScsiDevices : kBlockDevices) + name)) return false;
  return multipath ? GetMpdDrivePciAddress(pci, target) : FindLastPciAddress(pci, target);
}

bool GetMpdDrivePciAddress(CPciAddress& pci, const std::string& linkTarget) {
  if (!Contains(linkTarget, kMultipathMark)) return false;
  std::string device;
  if (!CRegEx::GetRegexFromString(device, kMultipathPattern, linkTarget, 1) || device.empty()) return false;
  std::string path;
  if (!CStdioFile::GetLineFromFile(path, kMultipathDevices + device + "/mpdh_path_0", 0)) return false;
  return FindLastPciAddress(pci, path);
}

std::vector<CPciAddress> FindPciAddresses(std::string_view path) {
  std::vector<CPciAddress> found;
  for (size_t place = 0; place + kPciAddressPattern.size() <= path.size(); ++place) {
    if (!StandsAt(path, place)) continue;
    ReadPciAddressByPosition(found.emplace_back(), path.substr(place));
    place += kPciAddressPattern.size() - 1;
  }
  return found;
}

bool ReadPciAddressByPosition(CPciAddress& pci, std::string_view text) {
  if (text.size() < 12) return false;
  CPciAddress found;
  if (!ParsePart(text.substr(0, 4), 16, found.segment) || !ParsePart(text.substr(5, 2), 16, found.bus) ||
      !ParsePart(text.substr(8, 2), 16, found.device) || !ParsePart(text.substr(11, 1), 10, found.function)) {
    return false;
  }
  pci = found;
  return true;
}
