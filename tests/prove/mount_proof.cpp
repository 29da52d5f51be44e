// A mounted file system that reads what it is asked and never answers.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/fuse.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <string>

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

std::string Volumes() {
  std::vector<CSystemVolume> volumes;
  CSystemVolume::ScanSystemVolumes(volumes);
  std::string text;
  for (const CSystemVolume& volume : volumes)
    text += volume.MountPoints.at(0) + " " + std::to_string(volume.UsedPercent) + "\n";
  return text;
}

// Of the child, which has five seconds to end. After that the file system goes, since nothing else may end the child.
int StatusOf(pid_t child) {
  int status = -1;
  const bool hasEnded = WaitUntil([&] { return ::waitpid(child, &status, WNOHANG) == child; }, 5);
  EXPECT_TRUE(hasEnded) << "it still runs after five seconds";
  if (hasEnded) return status;
  ::umount2("/dead", MNT_FORCE);
  ::kill(child, SIGKILL);
  ::waitpid(child, nullptr, 0);
  return -1;
}

}  // namespace

TEST(Prove, MountThatNeverAnswers) {
  UniqueFd device(::open("/dev/fuse", O_RDWR | O_CLOEXEC));
  if (!device) GTEST_SKIP() << "no /dev/fuse here";
  FixtureRoot root;
  root.MakeDirectory("/dead");
  root.MakeDirectory("/lively");
  root.WriteFile("/etc/mtab",
                 "none /dead fuse.dead rw 0 0\n/dev/sda1 / ext4 rw 0 0\nnone /lively fuse.lively rw 0 0\n");
  root.Run([&device] {
    const std::string options = "fd=" + std::to_string(device.Get()) + ",rootmode=40000,user_id=0,group_id=0";
    ASSERT_EQ(::mount("none", "/dead", "fuse.dead", MS_NOSUID | MS_NODEV, options.c_str()), 0);
    const pid_t server = ::fork();
    if (server == 0) ServeNoAnswers(device.Get());
    device.Reset();

    const Clock::time_point start = Clock::now();
    std::array<int, 2> ends{};
    ASSERT_EQ(::pipe(ends.data()), 0);
    const pid_t scanner = ::fork();
    if (scanner == 0) {
      std::string said = Volumes();
      said += Volumes();  // not asked again at once
      [[maybe_unused]] const ssize_t written = ::write(ends[1], said.data(), said.size());
      ::_exit(SecondsSince(start) < 5 ? 0 : 1);
    }
    EXPECT_EQ(StatusOf(scanner), 0) << "the scan does not come back";
    const double scanned = SecondsSince(start);
    std::array<char, 1000> said{};
    ASSERT_GT(::read(ends[0], said.data(), said.size() - 1), 0);
    const std::string text = said.data();
    EXPECT_NE(text.find("/dead 100\n"), std::string::npos) << text;
    EXPECT_EQ(text.find("/lively 100\n"), std::string::npos) << text;

    // Stopped in the middle of the first question.
    const pid_t stopped = ::fork();
    if (stopped == 0) {
      Volumes();
      ::_exit(1);
    }
    ::usleep(300'000);
    const Clock::time_point stop = Clock::now();
    ::kill(stopped, SIGTERM);
    EXPECT_TRUE(WIFSIGNALED(StatusOf(stopped)));
    Figure("a file system that never answers: two scans come back after %.1f s, a stop takes %.3f s", scanned,
           SecondsSince(stop));
    ::kill(server, SIGKILL);
    ::waitpid(server, nullptr, 0);
  });
}
