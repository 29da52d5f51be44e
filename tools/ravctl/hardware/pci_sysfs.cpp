#include "ravctl/hardware/pci_sysfs.h"

#include <unistd.h>

#include <algorithm>
#include <functional>
#include <tuple>

#include "platform/directory.h"
#include "platform/file.h"
#include "platform/text_cursor.h"
#include "ravctl/base/files.h"
#include "ravctl/base/text.h"
#include "ravctl/hardware/record.h"

namespace ravctl {

namespace {

constexpr const char* kPciDevices = "/sys/bus/pci/devices/";
constexpr const char* kInterfaces = "/sys/class/net/";
constexpr const char* kFcHosts = "/sys/class/fc_host/";
constexpr std::string_view kVirtualPort = "/vport-";

constexpr size_t kBaseRegisters = 6;  // expansion ROM and ranges of virtual functions come behind them
constexpr uint64_t kIsPort = 0x100;
constexpr uint64_t kIsMemory = 0x200;

// Of a class entry: its link, or that of the device which an older kernel has below it. Empty without both.
std::string DeviceLink(const std::string& path) {
  std::string target;
  if (CFile::GetSymbolicLink(target, path) && LastPciPlace(target)) return target;
  return CFile::GetSymbolicLink(target, path + "/device") ? target : "";
}

// Of an adapter on a bus that the function is the host of, such as a network adapter at a USB port: not the function's.
bool IsBehindOtherBus(std::string_view link) {
  return link.find("/usb") != std::string_view::npos || link.find("/mmc") != std::string_view::npos;
}

// Calls take for each entry of a class that belongs to a function.
void ForEachEntry(const char* directory,
                  const std::function<void(const std::string& name, const std::string& link, const PciPlace&)>& take) {
  std::vector<std::string> names;
  CDirectory::GetDirectoryContent(names, directory, false);
  std::ranges::sort(names);
  for (const std::string& name : names) {
    const std::string link = DeviceLink(directory + name);
    const auto place = LastPciPlace(link);
    if (place && !IsBehindOtherBus(link)) take(name, link, *place);
  }
}

bool IsZero(std::string_view address) {
  return address.find_first_not_of("0:") == std::string_view::npos;
}

// By port; on one port the interface itself has a shorter name than those that stand for ports of virtual functions.
std::string PortOrder(const std::string& name) {
  const auto padded = [](const std::string& text, size_t width) {
    return std::string(width - std::min(text.size(), width), '0') + text;
  };
  return padded(ReadAttribute(kInterfaces + name + "/dev_port"), 8) + padded(std::to_string(name.size()), 3) + name;
}

// "0x10000090fa123456" => "10:00:00:90:fa:12:34:56"
std::string WorldWideName(const std::string& text) {
  std::string name;
  if (text.size() != 18 || !text.starts_with("0x")) return "";
  for (size_t at = 2; at < text.size(); at += 2)
    name += (name.empty() ? "" : ":") + text.substr(at, 2);
  return IsZero(name) ? "" : name;
}

bool HexField(TextCursor& cursor, uint64_t& value) {
  cursor.SkipBlanks();
  return cursor.Skip('0') && cursor.Skip('x') && cursor.Number(value, 16);
}

template <typename Map>
const typename Map::mapped_type& At(const Map& map, const PciPlace& place) {
  static const typename Map::mapped_type none;
  const auto found = map.find(place);
  return found == map.end() ? none : found->second;
}

}  // namespace

PciClassDevices::PciClassDevices() {
  std::map<PciPlace, std::map<std::string, NetInterface>> ordered;
  ForEachEntry(kInterfaces, [&ordered](const std::string& name, const std::string&, const PciPlace& place) {
    const std::string address = ReadAttribute(kInterfaces + name + "/address");
    ordered[place][PortOrder(name)] = {name, IsZero(address) ? "" : address};
  });
  for (auto& [place, interfaces] : ordered) {
    for (auto& [order, interface] : interfaces)
      m_Interfaces[place].push_back(std::move(interface));
  }
  ForEachEntry(kFcHosts, [this](const std::string& name, const std::string& link, const PciPlace& place) {
    if (link.find(kVirtualPort) != std::string::npos) return;
    const std::string path = kFcHosts + name;
    m_FcHosts[place].push_back(
        {name, WorldWideName(ReadAttribute(path + "/port_name")), WorldWideName(ReadAttribute(path + "/node_name"))});
  });
}

const std::vector<NetInterface>& PciClassDevices::InterfacesOf(const PciPlace& place) const {
  return At(m_Interfaces, place);
}

const std::vector<FcHost>& PciClassDevices::FcHostsOf(const PciPlace& place) const {
  return At(m_FcHosts, place);
}

std::optional<PciPlace> InterfacePlace(const std::string& interface) {
  const std::string link = DeviceLink(kInterfaces + interface);
  return IsBehindOtherBus(link) ? std::nullopt : LastPciPlace(link);
}

PciRanges ParsePciRanges(std::string_view text) {
  PciRanges ranges;
  const std::vector<std::string> lines = SplitList(text, '\n');
  for (size_t line = 0; line < std::min(lines.size(), kBaseRegisters); ++line) {
    TextCursor cursor(lines[line]);
    uint64_t begin = 0, end = 0, flags = 0;
    if (!HexField(cursor, begin) || !HexField(cursor, end) || !HexField(cursor, flags)) break;
    if (end <= begin) continue;
    if ((flags & kIsPort) != 0) ranges.ports.push_back("0x" + HexText(begin, 4));
    if ((flags & kIsMemory) != 0) ranges.memory.push_back("0x" + HexText(begin, 8) + "-0x" + HexText(end, 8));
  }
  return ranges;
}

std::optional<PciRanges> ReadPciRanges(const PciPlace& place) {
  std::string text;
  if (ReadFileInto(kPciDevices + place.Text() + "/resource", text) != 0) return std::nullopt;
  return ParsePciRanges(text);
}

std::optional<std::string> ReadPciDriver(const PciPlace& place) {
  const std::string function = kPciDevices + place.Text();
  std::string target;
  if (CFile::GetSymbolicLink(target, function + "/driver")) return target.substr(target.rfind('/') + 1);
  return ::access((function + "/vendor").c_str(), F_OK) == 0 ? std::optional(std::string()) : std::nullopt;
}

std::optional<PciPlace> LastPciPlace(std::string_view path) {
  while (!path.empty()) {
    const size_t slash = path.rfind('/');
    const std::string_view name = slash == std::string_view::npos ? path : path.substr(slash + 1);
    if (const auto place = ParsePciPlace(name)) return place;
    path = path.substr(0, slash == std::string_view::npos ? 0 : slash);
  }
  return std::nullopt;
}

std::string ReadAttribute(const std::string& path) {
  std::string text;
  if (ReadFileInto(path, text) != 0) return "";
  return std::string(TextCursor::Trim(std::string_view(text).substr(0, text.find('\n'))));
}

}  // namespace ravctl
