// A mounted file system that reads what it is asked and never answers.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/fuse.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/mount.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <memory>
#include <string>
#include <thread>

#include "inventory/system_device_scan.h"
#include "inventory/system_volume.h"
#include "platform/unique_fd.h"
#include "prove/prove.h"
#include "support/fixture_root.h"

namespace {

using Clock = std::chrono::steady_clock;

double SecondsSince(Clock::time_point start) {
  return std::chrono::duration<double>(Clock::now() - start).count();
}

// Greets the kernel, then takes one question after the other.
[[noreturn]] void ServeNoAnswers(int device) {
  alignas(fuse_in_header) static std::array<char, FUSE_MIN_READ_BUFFER> question;
  while (::read(device, question.data(), question.size()) > 0) {
    const auto* head = reinterpret_cast<const fuse_in_header*>(question.data());
    if (head->opcode != FUSE_INIT) continue;
    struct {
      fuse_out_header head;
      fuse_init_out init;
    } greeting{};
    greeting.head = {sizeof greeting, 0, head->unique};
    greeting.init.major = FUSE_KERNEL_VERSION;
    greeting.init.minor = FUSE_KERNEL_MINOR_VERSION;
    greeting.init.max_write = 4096;
    if (::write(device, &greeting, sizeof greeting) < 0) break;
  }
  ::_exit(0);
}

constexpr int kDeadMounts = 8;

std::string MountList() {
  std::string list = "/dev/sda1 / ext4 rw 0 0\n";
  for (int number = 0; number < kDeadMounts; ++number)
    list += "none /dead" + std::to_string(number) + " fuse.dead rw 0 0\n";
  return list + "/dev/sdb1 /dead0/inside ext4 rw 0 0\nnone /lively fuse.lively rw 0 0\n";
}

void MountDead(int number, int device) {
  const std::string options = "fd=" + std::to_string(device) + ",rootmode=40000,user_id=0,group_id=0";
  const std::string place = "/dead" + std::to_string(number);
  ASSERT_EQ(::mount("none", place.c_str(), "fuse.dead", MS_NOSUID | MS_NODEV, options.c_str()), 0);
}

std::string Volumes() {
  std::vector<CSystemVolume> volumes;
  CSystemVolume::ScanSystemVolumes(volumes);
  std::string text;
  for (const CSystemVolume& volume : volumes)
    text += volume.MountPoints.at(0) + " " + std::to_string(volume.UsedPercent) + "\n";
  return text;
}

// Runs the body in a child, which has five seconds to end. After that the file systems go, since nothing else may end
// it. The time that the child took, in seconds.
template <typename Body>
double InChild(const Body& body) {
  const Clock::time_point start = Clock::now();
  const pid_t child = ::fork();
  if (child == 0) ::_exit(body() ? 0 : 1);
  int status = -1;
  const bool hasEnded = WaitUntil([&] { return ::waitpid(child, &status, WNOHANG) == child; }, 5);
  EXPECT_TRUE(hasEnded) << "it still runs after five seconds";
  if (!hasEnded) {
    for (int number = 0; number < kDeadMounts; ++number)
      ::umount2(("/dead" + std::to_string(number)).c_str(), MNT_FORCE);
    ::kill(child, SIGKILL);
    ::waitpid(child, nullptr, 0);
  }
  EXPECT_EQ(status, 0);
  return SecondsSince(start);
}

// The hardware scan of an agent that goes down in the middle of it.
bool StopInTheMiddle() {
  auto scan = std::make_unique<CSystemDeviceScan>();
  std::thread scanner([&scan] {
    scan->ScanDevices(CSystemDeviceScan::SCAN_VOLUMES | CSystemDeviceScan::SCAN_UPDATE_THREAD, true, 1000);
  });
  ::usleep(300'000);
  scan.reset();
  scanner.join();
  return true;
}

}  // namespace

TEST(Prove, MountThatNeverAnswers) {
  std::array<UniqueFd, kDeadMounts> devices;
  for (UniqueFd& device : devices)
    device.Reset(::open("/dev/fuse", O_RDWR | O_CLOEXEC));
  if (!devices[0]) GTEST_SKIP() << "no /dev/fuse here";
  FixtureRoot root;
  for (int number = 0; number < kDeadMounts; ++number)
    root.MakeDirectory("/dead" + std::to_string(number));
  root.MakeDirectory("/lively");
  root.WriteFile("/etc/mtab", MountList());
  root.Run([&devices] {
    std::array<pid_t, kDeadMounts> servers{};
    for (int number = 0; number < kDeadMounts; ++number) {
      UniqueFd& device = devices[static_cast<size_t>(number)];
      MountDead(number, device.Get());
      servers[static_cast<size_t>(number)] = ::fork();
      if (servers[static_cast<size_t>(number)] == 0) ServeNoAnswers(device.Get());
      device.Reset();
    }
    std::string text;
    UniqueFd said(::memfd_create("said", MFD_CLOEXEC));
    const double scanned = InChild([&said] {
      const std::string volumes = Volumes() + Volumes();  // not asked again at once
      return ::write(said.Get(), volumes.data(), volumes.size()) == static_cast<ssize_t>(volumes.size());
    });
    std::array<char, 4000> buffer{};
    EXPECT_GT(::pread(said.Get(), buffer.data(), buffer.size() - 1, 0), 0);
    text = buffer.data();
    for (const char* full : {"/dead0 100\n", "/dead7 100\n", "/dead0/inside 100\n"})
      EXPECT_NE(text.find(full), std::string::npos) << text;
    EXPECT_EQ(text.find("/lively 100\n"), std::string::npos) << text;

    const double stopped = InChild(StopInTheMiddle);
    Figure(
        "%d file systems that never answer: two scans come back after %.1f s, a scan with its update thread ends "
        "%.1f s after a stop in its middle",
        kDeadMounts, scanned, stopped - 0.3);
    for (const pid_t server : servers) {
      ::kill(server, SIGKILL);
      ::waitpid(server, nullptr, 0);
    }
  });
}
