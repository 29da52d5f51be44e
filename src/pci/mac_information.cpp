#include "pci/mac_information.h"

#include <fcntl.h>
#include <glob.h>
#include <net/if.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <new>
#include <vector>

#include "pci/bus_table.h"
#include "pci/line_reader.h"
#include "platform/never_destroyed.h"
#include "platform/text_cursor.h"
#include "platform/unique_fd.h"
#include "trace/debug.h"

namespace {

constexpr const char* kNetworkClass = "/sys/class/net/";
constexpr const char* kProcNetDev = "/proc/net/dev";
constexpr const char* kListPhysicalNics = "/usr/bin/vim-cmd hostsvc/net/pnic_info";
constexpr const char* kStandardNames = "/sys/class/net/eth*";
constexpr const char* kModernNames = "/sys/class/net/en*";
constexpr const char* kEmbeddedNames = "/sys/class/net/em[0-9]*";
constexpr const char* kSlotNames = "/sys/class/net/p[0-9]*s[0-9]*";
constexpr const char* kVmwareNames = "/sys/class/net/vmnic*";
constexpr const char* kVmwareServiceNames = "/sys/class/net/vswif*";
constexpr size_t kMaxQuoted = 31;
constexpr uint32_t kMacLength = 6;
constexpr uint32_t kWwnLength = 8;

constinit NeverDestroyed<std::vector<PhysicalNic>> s_PhysicalNics;  // of the last VMware host that was asked

// Adds the names of the interfaces that match, in alphabetical order. Returns what the search returned.
int FindNames(const char* pattern, std::vector<std::string>& names) {
  glob_t matches = {};
  const int result = ::glob(pattern, 0, nullptr, &matches);
  for (size_t index = 0; result == 0 && index < matches.gl_pathc; ++index) {
    names.emplace_back(matches.gl_pathv[index] + std::strlen(kNetworkClass));
  }
  ::globfree(&matches);
  return result;
}

bool FindNicNames(std::vector<std::string>& names) {
  if (FindNames(kStandardNames, names) == 0) {
    TRACE(4, "TolvBusGetMACInformation(): Matched standard ethernet interface eth*\n");
    return true;
  }
  if (FindNames(kModernNames, names) == 0) {
    TRACE(4, "TolvBusGetMACInformation(): Matched modern ethernet interface en*\n");
    return true;
  }
  const int embedded = FindNames(kEmbeddedNames, names);
  const int slots = FindNames(kSlotNames, names);
  if (!names.empty()) {
    TRACE(4, "TolvBusGetMACInformation(): Matched modern ethernet interface em* or p*p*\n");
    return true;
  }
  if (embedded == GLOB_NOMATCH && slots == GLOB_NOMATCH) {
    TRACE(4, "TolvBusGetMACInformation(): No matches found! Returning GLOB_NOMATCH...");
  } else {
    const bool first = embedded != GLOB_NOMATCH;
    TRACE(1, "TolvBusGetMACInformation(): Error in searching %s interfaces. return = %d\n",
          first ? kEmbeddedNames : kSlotNames, first ? embedded : slots);
  }
  return false;
}

void ReadPhysicalNics() {
  s_PhysicalNics.object.clear();
  LineReader output = LineReader::OpenCommand(kListPhysicalNics);
  PhysicalNicParser parser;
  PhysicalNic nic;
  for (std::string_view line; output.Next(line);) {
    if (parser.AddLine(line, nic)) s_PhysicalNics.object.push_back(nic);
  }
}

bool FindVmwareNames(std::vector<std::string>& names) {
  if (FindNames(kVmwareNames, names) != 0) return false;
  FindNames(kVmwareServiceNames, names);
  ReadPhysicalNics();
  return true;
}

std::string ReadAttribute(const std::string& path) {
  char text[64];
  const UniqueFd fd{::open(path.c_str(), O_RDONLY | O_CLOEXEC)};
  const ssize_t count = fd ? ::read(fd.Get(), text, sizeof text) : -1;
  return std::string(text, static_cast<size_t>(std::max<ssize_t>(count, 0)));
}

// Empty when there is no link.
std::string ReadLink(const std::string& path) {
  char target[4096];
  const ssize_t count = ::readlink(path.c_str(), target, sizeof target);
  return std::string(target, static_cast<size_t>(std::max<ssize_t>(count, 0)));
}

std::string_view LastComponent(std::string_view path) {
  return path.substr(path.rfind('/') + 1);
}

// The network function that owns the IRQ and has no address yet.
BusTableEntry* FindFunctionByIrq(unsigned irq) {
  if (irq == 0) return nullptr;
  for (BusTableEntry* entry = GetBusTables().irqs.first; entry != nullptr; entry = entry->next) {
    BusTableEntry* const owner = entry->owner;
    if (entry->used == 0 || entry->irq.irq != irq || owner == nullptr) continue;
    const BusHardwareAddress& address = owner->function.hardwareAddress;
    if (address.length == kMacLength &&
        std::all_of(address.bytes, address.bytes + kMacLength, [](unsigned char byte) { return byte == 0; })) {
      return owner;
    }
  }
  return nullptr;
}

BusTableEntry* FindFunctionByAddress(const CPciAddress& address) {
  if (address.segment != 0) return nullptr;
  const BusKey key = {kBusTypePci, address.bus + 1, address.device, address.function + 1, 0};
  return BusSearchTable(GetBusTables().functions, 0, key, true);
}

void TakeMac(BusTableEntry* entry, const MacAddress& mac) {
  BusHardwareAddress& address = entry->function.hardwareAddress;
  if (address.length != kWwnLength) address.Assign(mac.data(), kMacLength);
}

struct NetworkInterface {
  std::string name;
  MacAddress mac = {};
  unsigned irq = 0;
  CPciAddress address;  // invalid when not known
  std::string driver;
};

// A VMware host may keep the PCI address of its physical NICs to its management command.
void FillFromPhysicalNic(NetworkInterface& interface) {
  const std::vector<PhysicalNic>& nics = s_PhysicalNics.object;
  const auto nic = std::ranges::find(nics, interface.name, &PhysicalNic::device);
  if (nic == nics.end()) return;
  ParsePciAddress(nic->pci, interface.address);
  if (interface.driver.empty()) interface.driver = nic->driver;
}

bool ReadInterface(const std::string& name, NetworkInterface& out) {
  const std::string directory = kNetworkClass + name;
  out.name = name;
  if (!ParseMacAddress(ReadAttribute(directory + "/address"), out.mac)) return false;
  const std::string irq = ReadAttribute(directory + "/device/irq");
  TextCursor(irq).Field(out.irq, 10);
  out.driver = LastComponent(ReadLink(directory + "/driver"));
  if (!ParsePciAddress(ReadLink(directory + "/device"), out.address)) FillFromPhysicalNic(out);
  return true;
}

void AddInterface(const std::string& name) {
  NetworkInterface interface;
  if (!ReadInterface(name, interface)) return;
  const CPciAddress& address = interface.address;
  if (!address.IsValid()) {
    if (BusTableEntry* const entry = FindFunctionByIrq(interface.irq)) TakeMac(entry, interface.mac);
    return;
  }
  TRACE(3, "... found PCI address %02x:%02x.%x and driver '%s' for %s\n", address.bus, address.device, address.function,
        interface.driver.c_str(), name.c_str());
  if (BusTableEntry* const entry = FindFunctionByAddress(address)) {
    TakeMac(entry, interface.mac);
  } else {
    TRACE(3, "... could not find entry with PCI address %02x:%02x.%x\n", address.bus, address.device, address.function);
  }
}

// The map of an interface has room for 8 bits of its IRQ.
void AddInterfaceOfSocketLayer(int socket, std::string_view name) {
  ifreq request = {};
  if (name.empty() || name.size() >= sizeof request.ifr_name) return;
  name.copy(request.ifr_name, name.size());
  if (::ioctl(socket, SIOCGIFHWADDR, &request) != 0) return;
  MacAddress mac;
  std::memcpy(mac.data(), request.ifr_hwaddr.sa_data, mac.size());
  if (::ioctl(socket, SIOCGIFMAP, &request) != 0) return;
  if (BusTableEntry* const entry = FindFunctionByIrq(request.ifr_map.irq)) TakeMac(entry, mac);
}

void AddInterfacesOfSocketLayer() {
  const UniqueFd socket{::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)};
  LineReader file = LineReader::OpenFile(kProcNetDev);
  if (!socket) return;
  for (std::string_view line; file.Next(line);) {
    const size_t colon = line.find(':');
    if (colon == std::string_view::npos) continue;
    AddInterfaceOfSocketLayer(socket.Get(), TextCursor::Trim(line.substr(0, colon)));
  }
}

}  // namespace

bool PhysicalNicParser::AddLine(std::string_view line, PhysicalNic& out) {
  line = TextCursor::Trim(line);
  std::string* field = nullptr;
  if (line.starts_with("device")) {
    m_Record = {};
    field = &m_Record.device;
  } else if (line.starts_with("pci")) {
    field = &m_Record.pci;
  } else if (line.starts_with("driver")) {
    field = &m_Record.driver;
  }
  const size_t open = line.find('"');
  const size_t close = open == std::string_view::npos ? open : line.find('"', open + 1);
  if (field == nullptr || !field->empty() || close == std::string_view::npos) return false;
  *field = line.substr(open + 1, close - open - 1).substr(0, kMaxQuoted);
  if (m_Record.device.empty() || m_Record.pci.empty() || m_Record.driver.empty()) return false;
  out = m_Record;
  return true;
}

bool ParseMacAddress(std::string_view text, MacAddress& out) {
  TextCursor cursor(text);
  MacAddress found;
  for (size_t index = 0; index < found.size(); ++index) {
    if ((index > 0 && !cursor.Skip(':')) || !cursor.Number(found[index], 16)) return false;
  }
  out = found;
  return true;
}

bool ParsePciAddress(std::string_view path, CPciAddress& out) {
  const std::string_view name = LastComponent(path);
  TextCursor cursor(name);
  CPciAddress found;
  const bool hasSegment = std::ranges::count(name, ':') == 2;
  if (hasSegment && (!cursor.Number(found.segment, 16) || !cursor.Skip(':'))) return false;
  if (!cursor.Number(found.bus, 16) || !cursor.Skip(':') || !cursor.Number(found.device, 16) || !cursor.Skip('.') ||
      !cursor.Number(found.function, 16)) {
    return false;
  }
  out = found;
  return found.IsValid();
}

void BusGetMACInformation() try {
  TRACE(3, "Retrieve Ethernet  MAC information ...\n");
  std::vector<std::string> names;
  if (!FindNicNames(names) && !FindVmwareNames(names)) {
    TRACE(3, "... no paths %s. Use kernel 2.4 procedures\n", kVmwareNames);
    AddInterfacesOfSocketLayer();
    return;
  }
  for (const std::string& name : names)
    AddInterface(name);
} catch (const std::bad_alloc&) {
  return;
}
