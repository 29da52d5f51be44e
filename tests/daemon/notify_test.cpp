#include "daemon/notify.h"

#include <sys/socket.h>
#include <sys/un.h>

#include <cstddef>

#include "platform/unique_fd.h"
#include "support/fixture_root.h"

// The name of a path is the daemon's own test.
TEST(NotifyReady, ReachesAnAbstractNameUpToTheLongest) {
  for (const size_t length : {20UL, sizeof(sockaddr_un::sun_path) - 1}) {
    std::string name = "@" + std::to_string(::getpid());
    name.resize(length, 'x');
    const UniqueFd manager(::socket(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    name.copy(address.sun_path + 1, length - 1, 1);
    const auto size = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + length);
    ASSERT_EQ(::bind(manager.Get(), reinterpret_cast<sockaddr*>(&address), size), 0);
    NotifyReady(name);
    std::string message(64, '\0');
    ASSERT_EQ(::recv(manager.Get(), message.data(), message.size(), 0), 7) << name;
    EXPECT_EQ(message.substr(0, 7), "READY=1");
    EXPECT_LT(::recv(manager.Get(), message.data(), message.size(), 0), 0) << "told twice";
  }
}

TEST(NotifyReady, AnythingElseIsPassedOverAndLeavesNoDescriptor) {
  ::unsetenv("NOTIFY_SOCKET");
  const auto lowestFree = [] { return UniqueFd{::open("/dev/null", O_RDONLY | O_CLOEXEC)}.Get(); };
  const int before = lowestFree();
  for (const std::string& name : {NotifySocket(), std::string("/"), std::string("@"), std::string("vsock:2:1234"),
                                  std::string("/nobody/listens/here"), "/" + std::string(107, 'x')}) {
    NotifyReady(name);
    EXPECT_EQ(lowestFree(), before) << name;
  }
}
