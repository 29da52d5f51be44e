#pragma once

#include <array>
#include <cstddef>
#include <string>
#include <vector>

#include "firmware/data_stream.h"
#include "pci/mac_information.h"

// The network interfaces of PCI functions and their MAC addresses.

// The interface of a function as sysfs knows it: its name, cut to nameSize - 1 characters and terminated, and its MAC
// address, cut to macSize bytes. Returns 1, or 0 with an empty name and a zero address when no interface named eth*,
// en*, em<digit>* or p<digit>*p<digit>* belongs to the function. Any thread may call it.
int GetMACInformation(unsigned segment, unsigned bus, unsigned device, unsigned function, char* name, int nameSize,
                      unsigned char* mac, int macSize);

// The address that the hardware was made with, whatever the interface uses now. Asks the kernel (ETHTOOL_GPERMADDR);
// a failure is traced, gives false and leaves the output as it was.
bool GetHardwareMacInformation(const std::string& interface, CDataStream& mac);

// GetMACInformation for a scan that asks for many functions: interfaces are searched when the table is made, and each
// one is read when a question first comes to it. Belongs to one thread.
class NetInterfaceTable {
 public:
  NetInterfaceTable();

  // False leaves the outputs as they were.
  bool Find(unsigned segment, unsigned bus, unsigned device, unsigned function, std::string& name, MacAddress& mac);

 private:
  static constexpr size_t kPatterns = 4;

  enum Outcome { kUnread, kNoAddressFile, kNoMac, kNoLink, kLongLink, kNoComponent, kComplete };

  struct Interface {
    std::string path;
    std::string listedName;
    std::string name;  // that of the physical interface where the listed one is virtual
    std::string addressPath;
    std::string linkPath;
    std::string target;
    Outcome outcome = kUnread;
    int linkError = 0;
    int linkLength = 0;
    int numbers = 0;  // of its PCI address, as many as the link has
    std::array<unsigned, 4> address = {};
    MacAddress mac = {};
  };

  static Outcome Read(Interface& interface);
  static bool ReadDeviceLink(Interface& interface);
  static void Trace(const Interface& interface);
  void TraceMatches() const;

  std::array<bool, kPatterns> m_Matched = {};
  std::vector<Interface> m_Interfaces;
};
