#include "machine/interfaces.h"

#include <unistd.h>

#include <algorithm>
#include <filesystem>

#include "base/text_cursor.h"
#include "base/whole_file.h"

namespace {

constexpr const char* kNetDev = "/proc/net/dev";
constexpr const char* kNetClass = "/sys/class/net/";
constexpr const char* kDeviceDirectories[] = {"/sys/bus/pci/devices", "/sys/block"};
constexpr uint64_t kBytesPerMegabit = 125'000;

// Those of sysfs. The kernel says "unknown" of an interface without a link of its own that is up.
void AddProperties(InterfaceFigures& interface) {
  const std::string directory = kNetClass + interface.device + "/";
  interface.mac = ReadLine(directory + "address");
  char target[512];
  const ssize_t length = ::readlink((directory + "device").c_str(), target, sizeof target);
  const std::string device(target, length > 0 ? static_cast<size_t>(length) : 0);
  const std::string name = device.substr(device.rfind('/') + 1);
  if (name.size() >= 12 && name[name.size() - 2] == '.') {
    interface.address = name;
  } else if (!name.empty()) {  // a virtio device lies below its PCI function
    std::error_code error;
    const std::string parent =
        std::filesystem::canonical(directory + "device", error).parent_path().filename().string();
    if (parent.size() >= 12 && parent[parent.size() - 2] == '.') interface.address = parent;
  }
  const std::string state = ReadLine(directory + "operstate");
  if (!state.empty()) interface.isUp = state == "up" || state == "unknown";
  const std::optional<uint64_t> megabits = ToNumber(ReadLine(directory + "speed"));  // "-1" is no number
  // Some drivers say 2^32 - 1 for a link that is down.
  if (megabits && *megabits > 0 && *megabits < UINT32_MAX) interface.speed = *megabits * kBytesPerMegabit;
}

}  // namespace

std::vector<InterfaceFigures> ParseInterfaces(std::string_view text) {
  std::vector<InterfaceFigures> interfaces;
  while (!text.empty()) {
    std::string_view line = NextLine(text);
    const size_t colon = line.rfind(':');
    if (colon == std::string_view::npos) continue;  // the headings
    std::string_view name = line.substr(0, colon);
    InterfaceFigures interface;
    interface.device = NextWord(name);
    line.remove_prefix(colon + 1);
    interface.received = ToNumber(NextWord(line));
    for (int column = 1; column < 8; ++column)
      NextWord(line);
    interface.sent = ToNumber(NextWord(line));
    if (!interface.device.empty()) interfaces.push_back(std::move(interface));
  }
  return interfaces;
}

std::vector<InterfaceFigures> ReadInterfaces() {
  std::vector<InterfaceFigures> interfaces = ParseInterfaces(ReadWhole(kNetDev).value_or(""));
  std::ranges::for_each(interfaces, AddProperties);
  std::ranges::sort(interfaces, {}, [](const InterfaceFigures& interface) {
    return std::pair(interface.address.empty(), interface.device);
  });
  if (interfaces.size() > kMaxInterfaces) interfaces.resize(kMaxInterfaces);
  return interfaces;
}

std::string ListDevices() {
  std::vector<std::string> names;
  for (const char* directory : kDeviceDirectories) {
    std::error_code error;
    for (std::filesystem::directory_iterator entry(directory, error), end; !error && entry != end;
         entry.increment(error))
      names.push_back(entry->path().string());
  }
  std::ranges::sort(names);
  std::string list;
  for (const std::string& name : names)
    list += name + '\n';
  return list;
}
