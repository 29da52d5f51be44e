#pragma once

#include <sys/socket.h>

#include "netif/libnetif_exception.h"
#include "support/fake_ioctl.h"
#include "support/fixture_root.h"

// Makes the system's name index fail; network_interface_test.cpp stands in for the system.
extern bool refuseNameIndex;

// Output of the ip command, which reads a batch from its input; fails the test when the command fails.
inline std::string Ip(const std::string& arguments, const std::string& batch = "") {
  EXPECT_EQ(std::system(("echo '" + batch + "' | /usr/sbin/ip " + arguments + " >/output").c_str()), 0);
  return ReadWholeFile("/output");
}

// The system lists the interfaces as lo, v1, v0, fifteen-letters.
constexpr const char* kNetwork = R"(link add v0 mtu 1400 address 02:00:5e:10:20:30 type veth peer name v1
link add fifteen-letters type bridge
addr add 192.168.7.20/20 brd + dev v0
addr add fd00::7/64 dev v0 nodad
addr add 1.2.3.4/8 brd + dev v1
link set lo up
link set v0 multicast off up
)";

// Tests against the real kernel in a network namespace of their own, set up and looked at with the ip command.
struct PrivateNetwork : ::testing::Test {
  // Runs the ip commands, one a line, and then the body, which is killed when it waits for too long.
  void Run(const std::function<void()>& body, const std::string& more = "") const {
    if (!std::filesystem::exists("/usr/sbin/ip")) GTEST_SKIP() << "iproute2 is not installed";
    root.Run(FixtureRoot::kUsr | FixtureRoot::kProc | FixtureRoot::kNetwork, [&] {
      ::alarm(100);
      Ip("-batch -", kNetwork + more);
      body();
    });
  }

  FixtureRoot root;
};

inline std::ptrdiff_t CountDescriptors() {
  return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), std::filesystem::directory_iterator());
}

// The text of the exception that the operation throws, "" when it throws none.
inline std::string FailureOf(const std::function<void()>& operation) try {
  operation();
  return "";
} catch (const libnetif::libnetif_exception& failure) {
  return failure.what();
}
