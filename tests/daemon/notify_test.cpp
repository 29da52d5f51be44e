#include "daemon/notify.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <string>

#include "platform/unique_fd.h"

namespace {

// A service manager's end of the socket; the name is a path, or abstract behind an '@'.
class Receiver {
 public:
  explicit Receiver(const std::string& name) : m_Name(name), m_Fd(::socket(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK, 0)) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path, name.data(), name.size());
    if (IsAbstract()) address.sun_path[0] = '\0';
    const size_t length = offsetof(sockaddr_un, sun_path) + name.size() + (IsAbstract() ? 0 : 1);
    EXPECT_EQ(::bind(m_Fd.Get(), reinterpret_cast<sockaddr*>(&address), static_cast<socklen_t>(length)), 0);
  }
  ~Receiver() {
    if (!IsAbstract()) ::unlink(m_Name.c_str());
  }
  Receiver(const Receiver&) = delete;
  Receiver& operator=(const Receiver&) = delete;

  std::string Take() const {
    char text[64];
    const ssize_t length = ::recv(m_Fd.Get(), text, sizeof text, 0);
    return length < 0 ? "(nothing)" : std::string(text, static_cast<size_t>(length));
  }

 private:
  bool IsAbstract() const { return m_Name[0] == '@'; }

  std::string m_Name;
  UniqueFd m_Fd;
};

int LowestFreeDescriptor() {
  return UniqueFd{::open("/dev/null", O_RDONLY | O_CLOEXEC)}.Get();
}

}  // namespace

TEST(NotifyReady, ReachesAPathAndAnAbstractName) {
  const std::string pid = std::to_string(::getpid());
  const std::string longest(sizeof(sockaddr_un::sun_path) - 1 - 1 - pid.size(), 'x');
  for (const std::string& name : {"/tmp/ravd-notify-" + pid, "@ravd-notify-" + pid, "@" + longest + pid}) {
    SCOPED_TRACE(name);
    const Receiver receiver(name);
    ::setenv("NOTIFY_SOCKET", name.c_str(), 1);
    NotifyReady(NotifySocket());
    EXPECT_EQ(receiver.Take(), "READY=1");
    EXPECT_EQ(receiver.Take(), "(nothing)");
    ::unsetenv("NOTIFY_SOCKET");
    NotifyReady(NotifySocket());
    EXPECT_EQ(receiver.Take(), "(nothing)");
  }
}

TEST(NotifyReady, AnythingElseIsPassedOverAndLeavesNoDescriptor) {
  const int before = LowestFreeDescriptor();
  for (const std::string& name : {std::string(), std::string("/"), std::string("@"), std::string("vsock:2:1234"),
                                  std::string("/nobody/listens/here"), "/" + std::string(107, 'x')}) {
    SCOPED_TRACE(name);
    NotifyReady(name);
    EXPECT_EQ(LowestFreeDescriptor(), before);
  }
}
