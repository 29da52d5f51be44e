// Detached threads are cancelled wherever they are in the library.

#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <random>
#include <thread>

#include "netif/host_ip_address.h"
#include "netif/network_interface_manager.h"
#include "platform/thread.h"
#include "prove/prove.h"
#include "registry/registry.h"
#include "support/fixture_root.h"

namespace {

constexpr int kCancellations = 20;  // in each process

std::atomic<int> running = 0;

struct Running {
  ~Running() { --running; }
};

// Opens, sets and destroys, and asks for addresses and interfaces until it is cancelled.
void* Work(void* kind) {
  const Running self;
  for (unsigned int number = 0;; ++number) {
    if (kind != nullptr) {
      CRegistry registry("Key", CRegistry::HKEY_LOCAL_MACHINE, 0);
      registry.SetValue("Value", number);
    } else {
      CHostIPAddress::GetHostIPAddress(0, CHostIPAddress::ipv4);
      CHostIPAddress::GetHostIPAddress(0, CHostIPAddress::ipv6);
      libnetif::network_interface_manager().get_network_interfaces();
    }
    ::pthread_testcancel();
  }
}

// Hangs when a cancelled thread took a lock with it; an abort ends the process.
int CancelThreads(unsigned int seed) {
  std::minstd_rand random(seed);
  for (int number = 0; number < kCancellations; ++number) {
    CThread thread;
    ++running;
    if (!thread.Start(Work, number % 2 == 0 ? &random : nullptr, 0, false, 0, 0, false)) return 1;
    ::usleep(static_cast<useconds_t>(random() % 3000));
    thread.Kill();
  }
  while (running > 0)
    std::this_thread::yield();
  return 0;
}

}  // namespace

TEST(Prove, Cancellations) {
  const FixtureRoot root;
  root.MakeDirectory("/etc/pelrix");
  const auto body = [] {
    const int processes = Rounds(40, 8);
    for (int number = 1; number <= processes; ++number) {
      const pid_t child = ::fork();
      if (child == 0) ::_exit(CancelThreads(static_cast<unsigned int>(number)));
      ASSERT_EQ(WaitFor(child, 60), 0) << "process " << number;
    }
    Figure("%d processes of %d cancellations inside saves and network calls: each ended its thread and nobody else",
           processes, kCancellations);
  };
  root.Run(body, FixtureRoot::kProc | FixtureRoot::kNetwork);
}
