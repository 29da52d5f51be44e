#include "netif/interface_change_listener.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/wait.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <stdexcept>
#include <thread>

#include "netif/network_interface_manager.h"
#include "netif/private_network.h"
#include "platform/unique_fd.h"

using namespace libnetif;
using enum interface_change_event_type;

namespace {

bool refuseFork = false;

constexpr int kLimitMs = 20000;  // ends a test whose listener is silent

constexpr const char* kNetwork =
    "link add v0 type veth peer name v1\n"
    "link add br0 type bridge\n"
    "link set lo up\n";

struct Pipe {
  Pipe() {
    int ends[2] = {-1, -1};
    EXPECT_EQ(::pipe2(ends, O_CLOEXEC), 0);
    in = UniqueFd(ends[0]);
    out = UniqueFd(ends[1]);
  }
  UniqueFd in;
  UniqueFd out;
};

// A listener that sends the names through a pipe, one a line, and throws after each.
class Listener {
 public:
  explicit Listener(
      interface_change_event_type type, const std::function<void()>& atReport = [] {}) {
    m_pid = network_interface_manager().add_network_interface_change_event(
        type, [this, atReport](const network_interface& interface) {
          atReport();
          const std::string line = interface.get_name() + "\n";
          EXPECT_GE(::write(m_names.out.Get(), line.data(), line.size()), 0);
          throw std::runtime_error("of no concern to the listener");
        });
  }
  ~Listener() {
    if (m_pid > 0) Stop();
  }

  // The next name; "" when none comes.
  std::string Next() {
    std::string name;
    for (char c = 0; Read(c) && c != '\n';)
      name += c;
    return name;
  }
  bool Reports(const std::string& wanted) {
    for (std::string name = Next(); !name.empty(); name = Next()) {
      if (name == wanted) return true;
    }
    return false;
  }
  // The wait status after SIGHUP.
  int Stop() {
    int status = -1;
    ::kill(m_pid, SIGHUP);
    EXPECT_EQ(::waitpid(m_pid, &status, 0), m_pid);
    m_pid = -1;
    return status;
  }

 private:
  bool Read(char& c) {
    pollfd ready{.fd = m_names.in.Get(), .events = POLLIN, .revents = 0};
    return ::poll(&ready, 1, kLimitMs) == 1 && ::read(m_names.in.Get(), &c, 1) == 1;
  }

  Pipe m_names;
  pid_t m_pid = -1;
};

// A process that starts a listener and dies at once.
[[noreturn]] void StartAndDie(int disposition, int out) {
  sigset_t hangup;
  sigemptyset(&hangup);
  sigaddset(&hangup, SIGHUP);
  ::sigprocmask(disposition == SIG_BLOCK ? SIG_BLOCK : SIG_UNBLOCK, &hangup, nullptr);
  if (disposition != SIG_BLOCK) ::signal(SIGHUP, SIG_IGN);
  const pid_t listener = start_interface_change_listener(link_changes, [](const network_interface&) {});
  EXPECT_EQ(::write(out, &listener, sizeof listener), static_cast<ssize_t>(sizeof listener));
  ::_exit(0);
}

}  // namespace

// Stands in for the system's, so that a test can have it fail.
extern "C" pid_t fork() noexcept {
  if (refuseFork) {
    errno = EAGAIN;
    return -1;
  }
  return reinterpret_cast<pid_t (*)()>(::dlsym(RTLD_NEXT, "fork"))();
}

using InterfaceChangeListener = PrivateNetwork;

TEST_F(InterfaceChangeListener, LinkAndAddressChangesAreReported) {
  Run(kNetwork, [] {
    const size_t before = CountDescriptors();
    {
      Listener both(link_changes | ipv4_address_changes);
      Listener addresses(ipv4_address_changes);
      EXPECT_EQ(CountDescriptors(), before + 4);  // the two pipes
      Ip("link set br0 up");
      EXPECT_EQ(both.Next(), "br0");
      Ip("addr add 10.0.0.1/8 dev lo");
      EXPECT_TRUE(both.Reports("lo"));
      EXPECT_EQ(addresses.Next(), "lo");
      Ip("link set br0 name br1");
      EXPECT_TRUE(both.Reports("br1"));
      Ip("link del v0");
      EXPECT_TRUE(both.Reports("v0"));
      EXPECT_EQ(both.Stop(), 0);
    }
    EXPECT_EQ(CountDescriptors(), before);
    refuseFork = true;
    EXPECT_EQ(FailureOf([] { start_interface_change_listener(link_changes, [](const network_interface&) {}); }),
              "Can't fork listining process.\nError message: Resource temporarily unavailable");
    refuseFork = false;
    EXPECT_EQ(CountDescriptors(), before);
  });
}

TEST_F(InterfaceChangeListener, EndsWithItsParentWhateverTheParentDidWithHangups) {
  Run(kNetwork, [] {
    ASSERT_EQ(::prctl(PR_SET_CHILD_SUBREAPER, 1), 0);
    ::alarm(kLimitMs / 1000);
    for (int run = 0; run < 20; ++run) {
      const Pipe pipe;
      const pid_t parent = ::fork();
      if (parent == 0) StartAndDie(run % 2 == 0 ? SIG_BLOCK : SIG_UNBLOCK, pipe.out.Get());
      ASSERT_EQ(::waitpid(parent, nullptr, 0), parent);
      pid_t listener = -1;
      ASSERT_EQ(::read(pipe.in.Get(), &listener, sizeof listener), static_cast<ssize_t>(sizeof listener));
      int status = -1;
      ASSERT_EQ(::waitpid(listener, &status, 0), listener);
      EXPECT_EQ(status, 0);
    }
  });
}

TEST_F(InterfaceChangeListener, StopsAtOnceAmongBusyThreads) {
  Run(kNetwork, [] {
    ::signal(SIGHUP, [](int) { ::_exit(7); });  // the caller's, which the listener must not run
    sigset_t before;
    ::pthread_sigmask(SIG_SETMASK, nullptr, &before);
    std::atomic<bool> stop = false;
    std::thread busy([&stop] {
      while (!stop)
        EXPECT_NE(std::make_unique<std::string>(100, 'x'), nullptr);
    });
    for (int run = 0; run < 30; ++run) {
      Listener listener(link_changes);
      if (run % 3 == 0) {
        Ip(std::string("link set br0 ") + (run % 2 == 0 ? "up" : "down"));
        EXPECT_TRUE(listener.Reports("br0"));
      }
      EXPECT_EQ(listener.Stop(), 0);
    }
    stop = true;
    busy.join();
    sigset_t after;
    ::pthread_sigmask(SIG_SETMASK, nullptr, &after);
    EXPECT_EQ(sigismember(&before, SIGHUP), sigismember(&after, SIGHUP));
  });
}

TEST_F(InterfaceChangeListener, SurvivesMoreChangesThanTheKernelKeeps) {
  Run(kNetwork, [] {
    Pipe gate;
    Listener listener(link_changes, [&gate] {
      pollfd open{.fd = gate.in.Get(), .events = POLLIN, .revents = 0};
      ::poll(&open, 1, kLimitMs);
    });
    std::string burst;
    for (int i = 0; i < 3000; ++i)
      burst += "link set v0 mtu " + std::to_string(1000 + i % 400) + "\n";
    IpBatch(burst + "link set br0 up\n");
    EXPECT_EQ(::write(gate.out.Get(), "x", 1), 1);
    // br0 changed when there was no room any more, lo not at all: both come with the report of every interface.
    EXPECT_TRUE(listener.Reports("lo"));
    EXPECT_TRUE(listener.Reports("br0"));
    Ip("link add late type bridge");
    EXPECT_TRUE(listener.Reports("late"));
    EXPECT_EQ(listener.Stop(), 0);
  });
}
