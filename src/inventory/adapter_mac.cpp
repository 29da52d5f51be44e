#include "inventory/adapter_mac.h"

#include <fcntl.h>
#include <glob.h>
#include <linux/ethtool.h>
#include <linux/sockios.h>
#include <net/if.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <new>
#include <span>

#include "platform/descriptor_io.h"
#include "platform/unique_fd.h"
#include "trace/debug.h"

namespace {

constexpr const char* kNetworkClass = "/sys/class/net/";
constexpr const char* kPhysicalLink = "/sys/class/net/peth0/device";
// In the order of the search; the traces below go with them.
constexpr std::array<const char*, 4> kNamePatterns = {"/sys/class/net/eth*", "/sys/class/net/en*",
                                                      "/sys/class/net/em[0-9]*", "/sys/class/net/p[0-9]*p[0-9]*"};
constexpr size_t kLinkRoom = 256;
constexpr std::array<unsigned, 4> kNoAddress = {0, 254, 255, 254};
constexpr size_t kMaxPermanentMac = 32;

// The attribute of an interface as it is shown in traces, both slashes included.
std::string AttributePath(const std::string& name, const char* attribute) {
  return std::string(kNetworkClass) + "/" + name + "/" + attribute;
}

bool ReadAttribute(const std::string& path, std::string& text) {
  const UniqueFd file(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
  if (!file) return false;
  ReadToEnd(file.Get(), text);
  return true;
}

// At most kLinkRoom bytes, which is one more than a link may have. Negative: failed, errno is set.
int ReadLink(const std::string& path, std::string& target) {
  std::array<char, kLinkRoom> room = {};
  const ssize_t length = ::readlink(path.c_str(), room.data(), room.size());
  if (length >= 0) target.assign(room.data(), static_cast<size_t>(length));
  return static_cast<int>(length);
}

}  // namespace

NetInterfaceTable::NetInterfaceTable() {
  static_assert(kPatterns == kNamePatterns.size());
  for (size_t pattern = 0; pattern < kPatterns; ++pattern) {
    glob_t matches = {};
    m_Matched[pattern] = ::glob(kNamePatterns[pattern], 0, nullptr, &matches) == 0;
    for (const char* path : std::span(matches.gl_pathv, m_Matched[pattern] ? matches.gl_pathc : 0)) {
      Interface& interface = m_Interfaces.emplace_back();
      interface.path = path;
      interface.listedName = interface.path.substr(interface.path.rfind('/') + 1);
    }
    ::globfree(&matches);
  }
}

void NetInterfaceTable::TraceMatches() const {
  if (m_Matched[0]) TRACE(3, "GetMACInformation():   Interfaces matching %s found.\n", kNamePatterns[0]);
  if (m_Matched[1]) TRACE(3, "GetMACInformation():  Interfaces matching %s found (RHEL7).\n", kNamePatterns[1]);
  if (m_Matched[2]) TRACE(3, "GetMACInformation():  CNDN onboard interfaces matching %s found.\n", kNamePatterns[2]);
  if (m_Matched[3]) TRACE(3, "GetMACInformation():  CNDN PCI interfaces matching %s found.\n", kNamePatterns[3]);
  TRACE(3, "GetMACInformation():  Matched %zu interfaces.\n", m_Interfaces.size());
}

// Where a virtual machine monitor has taken "eth0" for its bridge, the physical interface is "peth0".
bool NetInterfaceTable::ReadDeviceLink(Interface& interface) {
  interface.linkPath = AttributePath(interface.name, "device");
  interface.linkLength = ReadLink(interface.linkPath, interface.target);
  if (interface.linkLength < 0 && interface.name == "eth0") {
    interface.linkPath = kPhysicalLink;
    interface.name = "peth0";
    interface.linkLength = ReadLink(interface.linkPath, interface.target);
  }
  interface.linkError = errno;
  return interface.linkLength >= 0;
}

NetInterfaceTable::Outcome NetInterfaceTable::Read(Interface& interface) {
  interface.name = interface.listedName;
  interface.addressPath = AttributePath(interface.name, "address");
  std::string text;
  if (!ReadAttribute(interface.addressPath, text)) return kNoAddressFile;
  if (!ParseMacAddress(text, interface.mac)) return kNoMac;
  if (!ReadDeviceLink(interface)) return kNoLink;
  if (interface.linkLength >= static_cast<int>(kLinkRoom)) return kLongLink;
  const size_t slash = interface.target.rfind('/');
  if (slash == std::string::npos) return kNoComponent;
  std::array<unsigned, 4>& address = interface.address = kNoAddress;
  interface.numbers = std::max(
      std::sscanf(interface.target.c_str() + slash, "/%x:%x:%x.%x", &address[0], &address[1], &address[2], &address[3]),
      0);
  return kComplete;
}

void NetInterfaceTable::Trace(const Interface& interface) {
  const char* const target = interface.target.c_str();
  const char* const name = interface.name.c_str();
  const Outcome outcome = interface.outcome;
  TRACE(3, "GetMACInformation():   found %s in %s\n", interface.listedName.c_str(), interface.path.c_str());
  if (outcome == kNoAddressFile) {
    TRACE(1, "GetMACInformation():   Cannot open %s\n", interface.addressPath.c_str());
    return;
  }
  if (outcome == kNoMac) {
    TRACE(1, "GetMACInformation():   Cannot scan MAC address from %s\n", interface.addressPath.c_str());
    return;
  }
  const MacAddress& mac = interface.mac;
  TRACE(3, "GetMACInformation():   found MAC address for %s:  %02x:%02x:%02x:%02x:%02x:%02x\n",
        interface.listedName.c_str(), mac[0], mac[1], mac[2], mac[3], mac[4], mac[5]);
  if (outcome == kNoLink) {
    TRACE(1, "GetMACInformation():   Cannot read %s, errno %d\n", interface.linkPath.c_str(), interface.linkError);
    return;
  }
  if (outcome == kLongLink) {
    TRACE(1, "GetMACInformation():   The target of %s is too long (%d)\n", interface.linkPath.c_str(),
          interface.linkLength);
    return;
  }
  TRACE(3, "GetMACInformation():   %s -> %s\n", interface.linkPath.c_str(), target);
  if (outcome == kNoComponent) {
    TRACE(1, "GetMACInformation():   Symbolic link target %s has no '/'\n", target);
    return;
  }
  if (interface.numbers < 4) {
    TRACE(1, "GetMACInformation():   Symbolic link target %s basename is no valid PCI address\n", target);
  }
  const std::array<unsigned, 4>& address = interface.address;
  TRACE(3, "GetMACInformation():   found PCI address for %s:  %04x:%02x:%02x.%x\n", name, address[0], address[1],
        address[2], address[3]);
}

bool NetInterfaceTable::Find(unsigned segment, unsigned bus, unsigned device, unsigned function, std::string& name,
                             MacAddress& mac) {
  TraceMatches();
  const std::array<unsigned, 4> wanted = {segment, bus, device, function};
  for (Interface& interface : m_Interfaces) {
    if (interface.outcome == kUnread) interface.outcome = Read(interface);
    Trace(interface);
    if (interface.outcome != kComplete || interface.address != wanted) continue;
    TRACE(3, "GetMACInformation():   PCI address for %s:  %04x:%02x:%02x.%x matches the required -> OK we found it\n",
          interface.name.c_str(), segment, bus, device, function);
    name = interface.name;
    mac = interface.mac;
    return true;
  }
  return false;
}

int GetMACInformation(unsigned segment, unsigned bus, unsigned device, unsigned function, char* name, int nameSize,
                      unsigned char* mac, int macSize) {
  const size_t nameRoom = name != nullptr ? static_cast<size_t>(std::max(nameSize, 0)) : 0;
  const size_t macRoom = mac != nullptr ? static_cast<size_t>(std::max(macSize, 0)) : 0;
  std::string foundName;
  MacAddress foundMac = {};
  const bool found = NetInterfaceTable().Find(segment, bus, device, function, foundName, foundMac);
  if (nameRoom > 0) std::snprintf(name, nameRoom, "%s", foundName.c_str());
  std::fill_n(mac, macRoom, static_cast<unsigned char>(0));
  std::copy_n(foundMac.begin(), std::min(macRoom, foundMac.size()), mac);
  return found ? 1 : 0;
}

bool GetHardwareMacInformation(const std::string& interface, CDataStream& mac) {
  TRACE(5, "\nGetHardwareMacInformation() : Start.");
  constexpr size_t kRequestSize = sizeof(ethtool_perm_addr) + kMaxPermanentMac;
  static_assert(kRequestSize == 40);
  const std::unique_ptr<unsigned char[]> room(new (std::nothrow) unsigned char[kRequestSize]());
  if (room == nullptr) {
    TRACE(1, "\nGetHardwareMacInformation() : ERROR # Could not malloc space for ethtool_perm_addr.");
    return false;
  }
  const UniqueFd socket(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  if (!socket) {
    TRACE(2, "\nGetHardwareMacInformation() : ERROR # Could not open AF_INET socket.");
    return false;
  }
  ethtool_perm_addr header = {ETHTOOL_GPERMADDR, kMaxPermanentMac};
  std::memcpy(room.get(), &header, sizeof header);
  ifreq request = {};
  interface.copy(request.ifr_name, sizeof request.ifr_name - 1);
  request.ifr_data = reinterpret_cast<char*>(room.get());
  if (::ioctl(socket.Get(), SIOCETHTOOL, &request) != 0) {
    TRACE(4, "\nGetHardwareMacInformation() : Warning # SIOCETHTOOL ioctl call failed.");
    return false;
  }
  std::memcpy(&header, room.get(), sizeof header);
  if (header.size != MacAddress().size()) {
    TRACE(2, "\nGetHardwareMacInformation() : ERROR # Invalid MAC length returned (%u)", header.size);
    return false;
  }
  const unsigned char* const bytes = room.get() + sizeof header;
  TRACE(3, "\nGetHardwareMacInformation()(): HW MAC address for %s = '%02x:%02x:%02x:%02x:%02x:%02x'",
        interface.c_str(), bytes[0], bytes[1], bytes[2], bytes[3], bytes[4], bytes[5]);
  mac = CDataStream(bytes, MacAddress().size());
  return true;
}
