#pragma once

#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "ravctl/hardware/pci_functions.h"

namespace ravctl {

// What sysfs tells about PCI functions beside their headers. Where it has nothing, as in a tree that was captured
// without it, answers are empty.

struct NetInterface {
  std::string name;
  std::string address;  // "02:00:00:00:00:01" as the kernel writes it, of InfiniBand 20 bytes; empty when all zero
};

struct FcHost {
  std::string name;                // "host3"
  std::string portName, nodeName;  // "10:00:00:90:fa:12:34:56", empty when not known
};

// Which network interfaces and Fibre Channel hosts sit on which function, whatever they are called: by their links,
// read once when it is made.
class PciClassDevices {
 public:
  PciClassDevices();

  // In the order of their ports, then shorter names first.
  const std::vector<NetInterface>& InterfacesOf(const PciPlace& place) const;
  // Without those that are created on top of another host of the same function.
  const std::vector<FcHost>& FcHostsOf(const PciPlace& place) const;

 private:
  std::map<PciPlace, std::vector<NetInterface>> m_Interfaces;
  std::map<PciPlace, std::vector<FcHost>> m_FcHosts;
};

// The function that a network interface sits on.
std::optional<PciPlace> InterfacePlace(const std::string& interface);

// The address ranges behind the base address registers as the kernel set them up.
struct PciRanges {
  std::vector<std::string> ports;   // "0x3000", where each begins
  std::vector<std::string> memory;  // "0xfb000000-0xfb0fffff"
};
// None when the kernel does not show them.
std::optional<PciRanges> ReadPciRanges(const PciPlace& place);
// The parser: a line a register, with begin, end and flags in hexadecimal.
PciRanges ParsePciRanges(std::string_view text);

// The driver that is bound, empty for none; nothing when sysfs does not show the function.
std::optional<std::string> ReadPciDriver(const PciPlace& place);

// The function that a path of sysfs leads to or over at last.
//   "../../devices/pci0000:00/0000:00:1d.0/0000:02:00.0/nvme/nvme0" => 0000:02:00.0
std::optional<PciPlace> LastPciPlace(std::string_view path);

// The first line of a file of sysfs without the blanks around it; empty for none.
std::string ReadAttribute(const std::string& path);

}  // namespace ravctl
