#include "perfmon/network_interface_table.h"

#include <netinet/in.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>

#include "perfmon/net_dev.h"
#include "platform/descriptor_io.h"
#include "platform/unique_fd.h"
#include "trace/debug.h"

namespace {

constexpr auto kCountedPrefixes =
    std::to_array<const char*>({"eth", "bond", "sha", "vswif", "br", "xenbr", "en", "mic", "lo", "em"});

constexpr size_t kMaxName = 32;
constexpr int kHeadingLines = 2;
constexpr unsigned int kMaxCount = CNetworkInterfaceTable::kError - 1;

bool HasLanName(const std::string& name) {
  const auto starts = [&name](const char* prefix) {
    return CNetworkInterfaceTable::StrStartsWith(name.c_str(), prefix);
  };
  if (std::ranges::any_of(kCountedPrefixes, starts)) return true;
  return name.size() > 1 && name[0] == 'p' && name[1] >= '0' && name[1] <= '9';
}

// First word of the line without its last colon and what follows. "  eth0:123 4" => "eth0".
std::string NameOfLine(std::string_view line) {
  constexpr std::string_view kBlanks = " \t\r\v\f";
  line.remove_prefix(std::min(line.find_first_not_of(kBlanks), line.size()));
  const std::string_view word = line.substr(0, std::min(line.find_first_of(kBlanks), kMaxName));
  return std::string(word.substr(0, word.rfind(':')));
}

bool PrepareRequest(const std::string& name, ifreq& request) {
  request = {};
  if (name.size() >= sizeof(request.ifr_name)) return false;
  std::ranges::copy(name, request.ifr_name);
  return true;
}

bool IsKnownToKernel(int socket, const std::string& name) {
  ifreq request;
  return PrepareRequest(name, request) && ::ioctl(socket, SIOCGIFFLAGS, &request) == 0;
}

uint32_t AddressOf(int socket, const std::string& name, unsigned long question) {
  ifreq request;
  if (!PrepareRequest(name, request) || ::ioctl(socket, question, &request) != 0) return 0;
  sockaddr_in address{};
  std::memcpy(&address, &request.ifr_addr, sizeof(address));
  return address.sin_addr.s_addr;
}

void FillInterface(int socket, const std::string& name, CNetworkInterfaceTable::interface& entry) {
  CNetworkInterfaceTable::interface filled {};
  std::ranges::copy(name, filled.name);
  filled.address = AddressOf(socket, name, SIOCGIFADDR);
  filled.mask = AddressOf(socket, name, SIOCGIFNETMASK);
  ifreq request;
  if (PrepareRequest(name, request) && ::ioctl(socket, SIOCGIFHWADDR, &request) == 0) {
    std::memcpy(filled.hardwareAddress.data(), request.ifr_hwaddr.sa_data, filled.hardwareAddress.size());
  }
  entry = filled;
}

// Calls each(name) for every counted interface until it returns false.
template <typename Each>
void ForEachInterface(std::string_view text, bool everyName, int socket, Each each) {
  for (int lines = 0; !text.empty(); ++lines) {
    const std::string_view line = text.substr(0, text.find('\n'));
    text.remove_prefix(std::min(line.size() + 1, text.size()));
    if (lines < kHeadingLines) continue;
    const std::string name = NameOfLine(line);
    if (!everyName && !HasLanName(name)) {
      TRACE(4, "GetInterface: Filtering out interface from line: %s", std::string(line).c_str());
    } else if (IsKnownToKernel(socket, name) && !each(name)) {
      return;
    }
  }
}

}  // namespace

unsigned char CNetworkInterfaceTable::GetInterface(unsigned int index, CNetworkInterfaceTable::interface* entry,
                                                   int countOnly) {
  const char* nickname = std::getenv("QN_NICKNAME");
  const bool everyName = nickname != nullptr && std::strstr(nickname, "OVM3") != nullptr;
  TRACE(3, "GetInterface: INFO: LAN interface names: isOVM3 = %s.", everyName ? "true" : "false");
  std::string text;
  if (!OpenAndReadToEnd(kProcNetDev, text)) {
    TRACE(3, "GetInterface: ERROR: cannot open /proc/net/dev\n");
    return kError;
  }
  const UniqueFd socket(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  if (!socket) {
    TRACE(3, "GetInterface: ERROR: cannot open socket\n");
    return kError;
  }
  unsigned int count = 0;
  if (countOnly != 0) {
    ForEachInterface(text, everyName, socket.Get(), [&count](const std::string&) { return ++count < kMaxCount; });
    return static_cast<unsigned char>(count);
  }
  if (entry == nullptr) return 0;
  unsigned char filled = 0;
  ForEachInterface(text, everyName, socket.Get(), [&](const std::string& name) {
    if (count++ < index) return true;
    FillInterface(socket.Get(), name, *entry);
    filled = 1;
    return false;
  });
  return filled;
}

bool CNetworkInterfaceTable::StrStartsWith(const char* text, const char* prefix) {
  return std::strncmp(text, prefix, std::strlen(prefix)) == 0;
}
