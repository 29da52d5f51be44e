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
#include <vector>

#include "platform/descriptor_io.h"
#include "platform/unique_fd.h"
#include "trace/debug.h"

namespace {

constexpr const char* kNetworkClass = "/sys/class/net/";
constexpr const char* kPhysicalLink = "/sys/class/net/peth0/device";
constexpr const char* kEthernetNames = "/sys/class/net/eth*";
constexpr const char* kPredictableNames = "/sys/class/net/en*";
constexpr const char* kOnboardNames = "/sys/class/net/em[0-9]*";
constexpr const char* kSlotNames = "/sys/class/net/p[0-9]*p[0-9]*";
constexpr size_t kLinkRoom = 256;
constexpr size_t kMaxPermanentMac = 32;

using AddressParts = std::array<unsigned, 4>;  // segment, bus, device, function
constexpr AddressParts kNoAddress = {0, 254, 255, 254};

struct NetInterface {
  std::string name;  // that of the physical interface where the listed one is virtual
  MacAddress mac = {};
  AddressParts address = kNoAddress;
};

bool AppendMatches(const char* pattern, std::vector<std::string>& paths) {
  glob_t matches = {};
  const bool found = ::glob(pattern, 0, nullptr, &matches) == 0;
  for (const char* path : std::span(matches.gl_pathv, found ? matches.gl_pathc : 0))
    paths.emplace_back(path);
  ::globfree(&matches);
  return found;
}

std::vector<std::string> ListInterfaces() {
  std::vector<std::string> paths;
  if (AppendMatches(kEthernetNames, paths))
    TRACE(3, "GetMACInformation():   Interfaces matching %s found.\n", kEthernetNames);
  if (AppendMatches(kPredictableNames, paths))
    TRACE(3, "GetMACInformation():  Interfaces matching %s found (RHEL7).\n", kPredictableNames);
  if (AppendMatches(kOnboardNames, paths))
    TRACE(3, "GetMACInformation():  CNDN onboard interfaces matching %s found.\n", kOnboardNames);
  if (AppendMatches(kSlotNames, paths))
    TRACE(3, "GetMACInformation():  CNDN PCI interfaces matching %s found.\n", kSlotNames);
  TRACE(3, "GetMACInformation():  Matched %zu interfaces.\n", paths.size());
  return paths;
}

// The attribute of an interface as it is shown in traces, both slashes included.
std::string AttributePath(const std::string& name, const char* attribute) {
  return std::string(kNetworkClass) + "/" + name + "/" + attribute;
}

bool ReadMac(NetInterface& interface) {
  const std::string path = AttributePath(interface.name, "address");
  const UniqueFd file(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
  if (!file) {
    TRACE(1, "GetMACInformation():   Cannot open %s\n", path.c_str());
    return false;
  }
  std::string text;
  ReadToEnd(file.Get(), text);
  MacAddress& mac = interface.mac;
  if (!ParseMacAddress(text, mac)) {
    TRACE(1, "GetMACInformation():   Cannot scan MAC address from %s\n", path.c_str());
    return false;
  }
  TRACE(3, "GetMACInformation():   found MAC address for %s:  %02x:%02x:%02x:%02x:%02x:%02x\n", interface.name.c_str(),
        mac[0], mac[1], mac[2], mac[3], mac[4], mac[5]);
  return true;
}

// Where a virtual machine monitor has taken "eth0" for its bridge, the physical interface is "peth0".
bool ReadDeviceLink(NetInterface& interface, std::string& target) {
  std::array<char, kLinkRoom> room = {};
  std::string path = AttributePath(interface.name, "device");
  ssize_t length = ::readlink(path.c_str(), room.data(), room.size());
  if (length < 0 && interface.name == "eth0") {
    path = kPhysicalLink;
    interface.name = "peth0";
    length = ::readlink(path.c_str(), room.data(), room.size());
  }
  if (length < 0) {
    const int error = errno;
    TRACE(1, "GetMACInformation():   Cannot read %s, errno %d\n", path.c_str(), error);
    return false;
  }
  if (static_cast<size_t>(length) >= kLinkRoom) {
    TRACE(1, "GetMACInformation():   The target of %s is too long (%d)\n", path.c_str(), static_cast<int>(length));
    return false;
  }
  target.assign(room.data(), static_cast<size_t>(length));
  TRACE(3, "GetMACInformation():   %s -> %s\n", path.c_str(), target.c_str());
  return true;
}

bool ReadPciAddress(NetInterface& interface) {
  std::string target;
  if (!ReadDeviceLink(interface, target)) return false;
  const size_t slash = target.rfind('/');
  if (slash == std::string::npos) {
    TRACE(1, "GetMACInformation():   Symbolic link target %s has no '/'\n", target.c_str());
    return false;
  }
  AddressParts& address = interface.address;
  if (std::sscanf(target.c_str() + slash, "/%x:%x:%x.%x", &address[0], &address[1], &address[2], &address[3]) < 4) {
    TRACE(1, "GetMACInformation():   Symbolic link target %s basename is no valid PCI address\n", target.c_str());
  }
  TRACE(3, "GetMACInformation():   found PCI address for %s:  %04x:%02x:%02x.%x\n", interface.name.c_str(), address[0],
        address[1], address[2], address[3]);
  return true;
}

}  // namespace

bool FindNetInterface(unsigned segment, unsigned bus, unsigned device, unsigned function, std::string& name,
                      MacAddress& mac) {
  for (const std::string& path : ListInterfaces()) {
    NetInterface interface { path.substr(path.rfind('/') + 1) };
    TRACE(3, "GetMACInformation():   found %s in %s\n", interface.name.c_str(), path.c_str());
    if (!ReadMac(interface) || !ReadPciAddress(interface) ||
        interface.address != AddressParts{segment, bus, device, function}) {
      continue;
    }
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
  const bool found = FindNetInterface(segment, bus, device, function, foundName, foundMac);
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
