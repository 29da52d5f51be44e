// The driver query of CSystemAdapter.

#include <linux/ethtool.h>
#include <linux/sockios.h>
#include <net/if.h>
#include <strings.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include "inventory/system_adapter.h"
#include "platform/unique_fd.h"
#include "trace/debug.h"

namespace {

constexpr const char* kNetworkClass = "Net";

bool AskDriver(const std::string& interface, ethtool_drvinfo& info) {
  const UniqueFd socket(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  if (!socket) {
    TRACE(4, "CSystemAdapter::GetNetworkDrvInfo(): Could not open AF_INET socket - abort.\n");
    return false;
  }
  info.cmd = ETHTOOL_GDRVINFO;
  ifreq request = {};
  interface.copy(request.ifr_name, sizeof request.ifr_name - 1);
  request.ifr_data = reinterpret_cast<char*>(&info);
  if (::ioctl(socket.Get(), SIOCETHTOOL, &request) != 0) {
    TRACE(4, "CSystemAdapter::GetNetworkDrvInfo(): SIOCETHTOOL (ETHTOOL_GDRVINFO) failed - abort.\n");
    return false;
  }
  return true;
}

}  // namespace

bool CSystemAdapter::GetNetworkDrvInfo(ethtool_drvinfo* info) const {
  if (info == nullptr) {
    TRACE(1, "CSystemAdapter::GetNetworkDrvInfo(): ERROR # Called with invalid arg!\n");
    return false;
  }
  *info = {};
  if (DeviceId == nullptr || ::strcasecmp(ClassName.c_str(), kNetworkClass) != 0) {
    TRACE(1, "CSystemAdapter::GetNetworkDrvInfo(): Must be called on network adapter - abort.\n");
    return false;
  }
  if (InterfaceName.empty()) {
    TRACE(1, "CSystemAdapter::GetNetworkDrvInfo(): Could not retrieve interface name - abort.\n");
    return false;
  }
  TRACE(5, "CSystemAdapter::GetNetworkDrvInfo(): Interface name - %s\n", InterfaceName.c_str());
  ethtool_drvinfo answer = {};
  if (!AskDriver(InterfaceName, answer)) return false;
  *info = answer;
  TRACE(4, "CSystemAdapter::GetNetworkDrvInfo(): OK.\n");
  TRACE(4, "CSystemAdapter::GetNetworkDrvInfo(): DriverInfo:\nDriver - %.*s\nVersion - %.*s\nFirmware - %.*s\n",
        static_cast<int>(sizeof answer.driver), answer.driver, static_cast<int>(sizeof answer.version), answer.version,
        static_cast<int>(sizeof answer.fw_version), answer.fw_version);
  return true;
}
