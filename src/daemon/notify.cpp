#include "daemon/notify.h"

#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>

#include <algorithm>
#include <cstddef>
#include <cstdlib>
#include <optional>
#include <string_view>

#include "platform/unique_fd.h"

namespace {

constexpr const char* kSocketVariable = "NOTIFY_SOCKET";
constexpr std::string_view kReady = "READY=1";
constexpr timeval kSendTimeout{5, 0};

struct Address {
  sockaddr_un name{};
  socklen_t length = 0;
};

// "/run/systemd/notify" => the path with its zero byte; "@name" => a zero byte and "name"
std::optional<Address> ParseAddress(std::string_view text) {
  Address address;
  if (text.size() < 2 || text.size() >= sizeof address.name.sun_path) return std::nullopt;
  if (text.front() != '/' && text.front() != '@') return std::nullopt;
  address.name.sun_family = AF_UNIX;
  std::copy(text.begin(), text.end(), address.name.sun_path);
  const bool abstract = text.front() == '@';
  if (abstract) address.name.sun_path[0] = '\0';
  address.length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + text.size() + (abstract ? 0 : 1));
  return address;
}

}  // namespace

std::string NotifySocket() {
  const char* name = std::getenv(kSocketVariable);
  return name != nullptr ? name : "";
}

void NotifyReady(const std::string& socket) {
  const std::optional<Address> address = ParseAddress(socket);
  if (!address) return;
  const UniqueFd fd{::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0)};
  if (!fd) return;
  ::setsockopt(fd.Get(), SOL_SOCKET, SO_SNDTIMEO, &kSendTimeout, sizeof kSendTimeout);
  ::sendto(fd.Get(), kReady.data(), kReady.size(), MSG_NOSIGNAL, reinterpret_cast<const sockaddr*>(&address->name),
           address->length);
}
