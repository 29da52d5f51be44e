// The Fibre Channel query of CSystemAdapter.

#include <algorithm>
#include <cstdio>

#include "inventory/drive_links.h"
#include "inventory/system_adapter.h"
#include "pci/fc_controllers.h"
#include "platform/directory.h"
#include "platform/file.h"
#include "platform/stdio_file.h"
#include "trace/debug.h"

namespace {

constexpr const char* kFcHosts = "/sys/class/fc_host/";
constexpr const char* kPortName = "/port_name";
constexpr uint8_t kSerialBus = 0x0C;
constexpr uint8_t kFibreChannel = 0x04;

std::string AddressText(const CPciAddress& address) {
  char text[40] = {};
  std::snprintf(text, sizeof text, "%04x:%02x:%02x.%d", address.segment, address.bus, address.device, address.function);
  return text;
}

// The host whose link leads over that address: behind a root port, it is not the first one.
bool FindHost(const std::vector<std::string>& hosts, const CPciAddress& address, std::string& host) {
  for (const std::string& each : hosts) {
    std::string target;
    if (!CFile::GetSymbolicLink(target, kFcHosts + each)) continue;
    const std::vector<CPciAddress> way = FindPciAddresses(target);
    if (std::ranges::find(way, address) == way.end()) continue;
    host = each;
    return true;
  }
  return false;
}

}  // namespace

bool CSystemAdapter::GetNodeWWN(CWWN& wwn) {
  if (m_NodeWwn.value == CWWN() && !ReadNodeWwn(AddressText(m_SlotData.address))) return false;
  wwn = m_NodeWwn.value;
  return true;
}

bool CSystemAdapter::ReadNodeWwn(const std::string& address) {
  if (m_SlotData.header.BaseClass() != kSerialBus || m_SlotData.header.SubClass() != kFibreChannel) {
    TRACE(1, "CSystemAdapter: '%s' is NOT a FC-Controller.\n", address.c_str());
    return false;
  }
  std::vector<std::string> hosts;
  if (!CDirectory::GetDirectoryContent(hosts, kFcHosts, false)) {
    TRACE(1, "CSystemAdapter: Cannot collect elements from  directory '%s' to get wwn of  FC-Controller '%s'.\n",
          kFcHosts, address.c_str());
    return false;
  }
  std::string host;
  if (!FindHost(hosts, m_SlotData.address, host)) {
    TRACE(1, "CSystemAdapter: Cannot get wwn for FC-Controller '%s'.\n", address.c_str());
    return false;
  }
  const std::string path = kFcHosts + host + kPortName;
  std::string line;
  if (!CStdioFile::GetLineFromFile(line, path, 0) || !ParseWwn(line, m_NodeWwn.value.bytes)) {
    TRACE(1, "CSystemAdapter: Cannot get wwn from '%s' for FC-Controller: '%s'.\n", path.c_str(), address.c_str());
    return false;
  }
  const auto& bytes = m_NodeWwn.value.bytes;
  TRACE(1, "CSystemAdapter: %s is a FC-Controller. WWN: %02x%02x%02x%02x%02x%02x%02x%02x\n", address.c_str(), bytes[0],
        bytes[1], bytes[2], bytes[3], bytes[4], bytes[5], bytes[6], bytes[7]);
  return true;
}
