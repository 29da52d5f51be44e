#pragma once

#include <linux/ethtool.h>
#include <linux/sockios.h>
#include <net/if.h>

#include <span>

#include "inventory/fake_drives.h"
#include "inventory/system_adapter.h"
#include "support/pci_fixture.h"

// A machine with adapters and drives, and what belongs to a function beside its configuration header.
class ServerMachine : public DriveMachine {
 public:
  // "0001:81:00.0", vendor and device as 0x808637D1, base class, subclass and interface as 0x020000
  void Add(const std::string& address, uint32_t ids, uint32_t classCode, const char* driver = "",
           FunctionDescription function = {}) {
    function.bus = (address.starts_with("0000") ? "" : address.substr(0, 5)) + address.substr(5, 2);
    function.name = address.substr(8);
    function.vendor = static_cast<uint16_t>(ids >> 16);
    function.device = static_cast<uint16_t>(ids);
    function.classCode = classCode;
    AddFunction(*this, function);
    const unsigned long place = std::stoul(address.substr(8, 2), nullptr, 16) * 8 + std::stoul(address.substr(11));
    char key[16];
    std::snprintf(key, sizeof key, "%02lx", place);
    m_Drivers += address.substr(5, 2) + key + "\t80860000\t0";
    for (int field = 0; field < 14; ++field)
      m_Drivers += "\t               0";
    WriteFile("/proc/bus/pci/devices", m_Drivers += std::string("\t") + driver + "\n");
  }
  void AddInterface(const std::string& name, const std::string& mac, const std::string& link) const {
    WriteFile("/sys/class/net/" + name + "/address", mac + "\n");
    if (!link.empty()) MakeLink("/sys/class/net/" + name + "/device", link);
  }
  // path: below /sys/devices
  void AddFcHost(const std::string& host, const std::string& path, const std::string& wwn) const {
    WriteFile("/sys/devices/" + path + "/" + host + "/port_name", wwn + "\n");
    MakeLink("/sys/class/fc_host/" + host, "../../devices/" + path + "/" + host);
  }

 private:
  std::string m_Drivers;
};

// Answers the questions of network adapters: "eth9" tells a permanent address that is too long.
inline std::optional<int> AnswerEthtool(unsigned long request, void* argument) {
  if (request != SIOCETHTOOL) return std::nullopt;
  auto& interface = *static_cast<ifreq*>(argument);
  const std::string name = interface.ifr_name;
  if (reinterpret_cast<const ethtool_cmd*>(interface.ifr_data)->cmd == ETHTOOL_GDRVINFO) {
    if (name != "eth0") return -EOPNOTSUPP;
    auto& info = *reinterpret_cast<ethtool_drvinfo*>(interface.ifr_data);
    std::memset(info.driver, 'd', sizeof info.driver);
    std::strcpy(info.version, "6.1");
    return 0;
  }
  auto& mac = *reinterpret_cast<ethtool_perm_addr*>(interface.ifr_data);
  if (name == "ethx" || mac.size != 32) return -ENODEV;
  mac.size = name == "eth9" ? 20 : 6;
  std::memcpy(mac.data, "\xA0\x00\x00\x00\x00\x01", 6);
  return 0;
}

inline const FakeIoctl::Handler kEthtool = [](const std::string&, unsigned long request, void* argument) {
  return AnswerEthtool(request, argument);
};

inline std::string Hex(std::span<const unsigned char> bytes) {
  std::string text;
  CDataStream::DumpHex(text, bytes.data(), bytes.size(), false, false, 16, 1, nullptr);
  std::erase(text, ' ');
  return bytes.empty() ? "" : text;
}

// Every field that a scan fills.
inline std::string Describe(const CSystemAdapter& adapter) {
  std::ostringstream text;
  text << adapter.DeviceIdText() << '|' << adapter.ClassName << '|' << adapter.DeviceName << '|' << adapter.DriverName
       << '|' << adapter.InterfaceName << '|' << Hex(adapter.GetMacAddress().Bytes()) << '|'
       << Hex(adapter.GetPermanentMacAddress().Bytes()) << '|' << adapter.GetSlotData().slot;
  return text.str();
}
