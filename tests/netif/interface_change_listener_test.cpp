#include <sys/prctl.h>

#include "netif/network_interface_manager.h"
#include "netif/private_network.h"

using namespace libnetif;
using enum interface_change_event_type;

namespace {

// A listener that writes each name into a pipe, which keeps them apart, and throws.
struct Listener {
  explicit Listener(interface_change_event_type type) {
    EXPECT_EQ(::pipe2(names, O_CLOEXEC | O_DIRECT), 0);
    pid = network_interface_manager().add_network_interface_change_event(type, [this](network_interface interface) {
      EXPECT_GT(::write(names[1], interface.get_name().data(), interface.get_name().size()), 0);
      throw std::runtime_error("of no concern to the listener");
    });
  }
  std::string Next() const {
    char name[32] = {};
    EXPECT_GT(::read(names[0], name, sizeof name), 0);
    return name;
  }
  void WaitFor(const std::string& name) const {
    while (Next() != name) {
    }
  }
  ~Listener() {
    ::kill(pid, SIGHUP);
    int status = -1;
    EXPECT_TRUE(::waitpid(pid, &status, 0) == pid && status == 0) << status;
  }

  int names[2];
  pid_t pid;
};

}  // namespace

using InterfaceChangeListener = PrivateNetwork;

TEST_F(InterfaceChangeListener, ReportsChangesAndStopsAtOnce) {
  Run([] {
    ::signal(SIGHUP, [](int) { ::_exit(7); });  // the caller's, which a listener must not run
    for (int run = 0; run < 30; ++run)
      const Listener listener(link_changes);
    const std::ptrdiff_t before = CountDescriptors();
    const Listener both(link_changes | ipv4_address_changes), addresses(ipv4_address_changes);
    EXPECT_EQ(CountDescriptors(), before + 4);  // the pipes
    Ip("link set fifteen-letters up");
    both.WaitFor("fifteen-letters");
    Ip("addr add 10.0.0.1/8 dev lo");
    both.WaitFor("lo");
    EXPECT_EQ(addresses.Next(), "lo");
    Ip("link del v0");
    both.WaitFor("v0");
  });
}

TEST_F(InterfaceChangeListener, EndsWithItsParentWhateverTheParentDidWithHangups) {
  Run([] {
    ::prctl(PR_SET_CHILD_SUBREAPER, 1);
    sigset_t hangup{};
    sigaddset(&hangup, SIGHUP);
    ::sigprocmask(SIG_BLOCK, &hangup, nullptr);
    for (int run = 0; run < 20; ++run) {
      if (::fork() == 0) {
        if (run % 2 == 0) ::signal(SIGHUP, SIG_IGN);
        start_interface_change_listener(link_changes, [](network_interface) {});
        ::_exit(0);
      }
      for (int status = -1, ended = 0; ended < 2; ++ended)  // the parent and its listener
        EXPECT_EQ(::wait(&status) > 0 ? status : -1, 0);
    }
  });
}

TEST_F(InterfaceChangeListener, SurvivesMoreChangesThanTheKernelKeeps) {
  Run([] {
    const Listener listener(link_changes);
    ::kill(listener.pid, SIGSTOP);
    std::string burst;
    for (int i = 0; i < 3000; ++i)
      burst += "link set v0 mtu " + std::to_string(1000 + i % 400) + "\n";
    Ip("-batch -", burst + "link set fifteen-letters up\n");
    ::kill(listener.pid, SIGCONT);
    // One changed when there was no room any more, lo not at all: both come with the report of every interface.
    listener.WaitFor("lo");
    listener.WaitFor("fifteen-letters");
    Ip("link add late type bridge");
    listener.WaitFor("late");
  });
}
