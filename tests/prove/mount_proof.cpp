// Mounted file systems that read what they are asked and never answer.

#include <linux/fuse.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/mount.h>

#include <array>
#include <chrono>
#include <memory>
#include <new>

#include "inventory/system_device_scan.h"
#include "inventory/system_volume.h"
#include "platform/unique_fd.h"
#include "prove/prove.h"

namespace {

using Clock = std::chrono::steady_clock;

double SecondsSince(Clock::time_point start) {
  return std::chrono::duration<double>(Clock::now() - start).count();
}

// ---- a file system of one directory that is alive until it is said to be dead

// Without an answer the question is refused.
template <typename... Answer>
void Reply(int device, uint64_t question, const Answer&... answer) {
  const fuse_out_header head = {static_cast<uint32_t>((sizeof head + ... + sizeof answer)),
                                sizeof...(answer) == 0 ? -ENOSYS : 0, question};
  std::string text(reinterpret_cast<const char*>(&head), sizeof head);
  (text.append(reinterpret_cast<const char*>(&answer), sizeof answer), ...);
  if (::write(device, text.data(), text.size()) < 0) ::_exit(1);
}

void AnswerQuestion(int device, const fuse_in_header& question) {
  if (question.opcode == FUSE_INIT) {
    fuse_init_out init{};
    init.major = FUSE_KERNEL_VERSION;
    init.minor = FUSE_KERNEL_MINOR_VERSION;
    init.max_write = 4096;
    Reply(device, question.unique, init);
  } else if (question.opcode == FUSE_GETATTR) {
    fuse_attr_out attributes{};
    attributes.attr_valid = 3600;
    attributes.attr.ino = question.nodeid;
    attributes.attr.mode = S_IFDIR | 0755;
    attributes.attr.nlink = 2;
    Reply(device, question.unique, attributes);
  } else if (question.opcode == FUSE_STATFS) {
    fuse_statfs_out sizes{};
    sizes.st = {1000, 250, 250, 0, 0, 4096, 255, 4096, 0, {}};
    Reply(device, question.unique, sizes);
  } else {
    Reply(device, question.unique);
  }
}

// What the processes of the proof share.
struct Shared {
  std::atomic<bool> isDead = false;
  double seconds = 0;       // of a scan when it was dead
  double secondsAgain = 0;  // of the next one
  double secondsOfStop = 0;
};

[[noreturn]] void Serve(int device, const std::atomic<bool>& isDead) {
  alignas(fuse_in_header) static std::array<char, FUSE_MIN_READ_BUFFER> question;
  while (::read(device, question.data(), question.size()) > 0) {
    if (!isDead) AnswerQuestion(device, *reinterpret_cast<const fuse_in_header*>(question.data()));
  }
  ::_exit(0);
}

// ---- the machine

constexpr int kShares = 100;

std::string Share(int number) {
  return "/share" + std::to_string(number);
}

std::string MountList() {
  std::string list = "/dev/sda1 / ext4 rw 0 0\n";
  for (int number = 0; number < kShares; ++number)
    list += "server:/" + std::to_string(number) + " " + Share(number) + " fuse.dead rw 0 0\n";
  return list +
         "/dev/sdb1 /local ext4 rw 0 0\nnone /local fuse.dead rw 0 0\n"
         "/dev/sdc1 /above/inside ext4 rw 0 0\nnone /above fuse.dead rw 0 0\n"
         "/dev/sdd1 /above/later ext4 rw 0 0\n/dev/sde1 /above/latest ext4 rw 0 0\n"
         "auto /auto autofs rw 0 0\nnone /lively fuse.lively rw 0 0\noverlay /merged overlay rw 0 0\n";
}

void Bind(const std::string& place) {
  ASSERT_EQ(::mount("/share0", place.c_str(), nullptr, MS_BIND, nullptr), 0) << place;
}

void MountFuse(int device) {
  const std::string options = "fd=" + std::to_string(device) + ",rootmode=40000,user_id=0,group_id=0";
  ASSERT_EQ(::mount("none", "/share0", "fuse.dead", MS_NOSUID | MS_NODEV, options.c_str()), 0);
}

// Needs its answers.
void MountOthers() {
  for (int number = 1; number < kShares; ++number)
    Bind(Share(number));
  ASSERT_EQ(::mount("none", "/local", "tmpfs", 0, nullptr), 0);
  Bind("/local");
  ASSERT_EQ(::mount("none", "/above/inside", "tmpfs", 0, nullptr), 0);
  Bind("/above");
  ASSERT_EQ(::mount("overlay", "/merged", "overlay", 0, "lowerdir=/share0:/lively"), 0);
  Bind("/auto");
}

// What is reported of all but the shares between the first and the last: "/local 75 1" for 75 % used, as it answered.
std::string Volumes() {
  std::vector<CSystemVolume> volumes;
  CSystemVolume::ScanSystemVolumes(volumes);
  std::string text;
  for (const CSystemVolume& volume : volumes) {
    const std::string& place = volume.MountPoints.at(0);
    if (place == "/" || (place.starts_with("/share") && place > "/share0" && place < "/share99")) continue;
    const std::string percent = place == "/lively" ? "as the machine" : std::to_string(volume.UsedPercent);
    text += place + " " + percent + " " + std::to_string(volume.Answer) + "\n";
  }
  return text;
}

constexpr const char* kAlive =
    "/above 75 1\n/above/inside 100 2\n/above/later 100 2\n/above/latest 100 2\n/auto 100 1\n/lively as the machine 1\n"
    "/local 75 1\n/local 75 1\n/merged 75 1\n/share0 75 1\n/share99 75 1\n";
constexpr const char* kDead =
    "/above 75 3\n/above/inside 100 3\n/above/later 100 3\n/above/latest 100 3\n/auto 100 1\n/lively as the machine 1\n"
    "/local 75 3\n/local 75 3\n/merged 75 3\n/share0 75 3\n/share99 75 3\n";

// Scans before and after the death, by a process that holds a lock.
void ScanDead(Shared& shared) {
  const auto lockAgain = [](UniqueFd& lock) {
    const UniqueFd file(::open("/lock", O_RDWR | O_CREAT | O_CLOEXEC, 0600));
    lock.Reset(::fcntl(file.Get(), F_DUPFD_CLOEXEC, 100));  // a number that nothing else takes by chance
    return ::flock(lock.Get(), LOCK_EX | LOCK_NB) == 0;
  };
  UniqueFd lock;
  EXPECT_TRUE(lockAgain(lock));
  EXPECT_EQ(Volumes(), kAlive);
  shared.isDead = true;
  const Clock::time_point start = Clock::now();
  EXPECT_EQ(Volumes(), kDead) << "the figures of before";
  shared.seconds = SecondsSince(start);
  EXPECT_EQ(Volumes(), kDead) << "not asked again at once";
  shared.secondsAgain = SecondsSince(start) - shared.seconds;
  lock.Reset();
  EXPECT_TRUE(lockAgain(lock)) << "helpers that hang keep nothing open";
}

// Ends the connection to the file system, and with it every wait.
void LetGo() {
  ::umount2("/share0", MNT_FORCE);
}

bool HasNoChild() {
  siginfo_t info{};
  return ::waitid(P_ALL, 0, &info, WEXITED | WNOHANG | WNOWAIT) != 0 && errno == ECHILD;
}

// An agent that goes down in the middle of its hardware scan. Then the helpers are let go.
void StopInTheMiddle(Shared& shared) {
  auto scan = std::make_unique<CSystemDeviceScan>();
  std::thread scanner([&scan] {
    scan->ScanDevices(CSystemDeviceScan::SCAN_VOLUMES | CSystemDeviceScan::SCAN_UPDATE_THREAD, true, 1000);
  });
  ::usleep(300'000);
  const Clock::time_point start = Clock::now();
  scan.reset();
  shared.secondsOfStop = SecondsSince(start);
  scanner.join();
  EXPECT_FALSE(HasNoChild());
  LetGo();
  bool isReaped = false;
  for (int tries = 0; tries < 50 && !isReaped; ++tries) {
    ::usleep(20'000);
    Volumes();
    isReaped = HasNoChild();
  }
  EXPECT_TRUE(isReaped) << "a zombie is left";
}

// Runs the body in a child, which has twenty seconds to end.
template <typename Body>
void InChild(const Body& body) {
  const pid_t child = ::fork();
  if (child == 0) {
    body();
    ::_exit(testing::Test::HasFailure() ? 1 : 0);
  }
  int status = -1;
  if (!WaitUntil([&] { return ::waitpid(child, &status, WNOHANG) == child; })) {
    LetGo();
    WaitFor(child, 0);
  }
  EXPECT_EQ(status, 0);
}

}  // namespace

TEST(Prove, MountThatNeverAnswers) {
  UniqueFd device(::open("/dev/fuse", O_RDWR | O_CLOEXEC));
  if (!device) GTEST_SKIP() << "no /dev/fuse here";
  FixtureRoot root;
  for (int number = 0; number < kShares; ++number)
    root.MakeDirectory(Share(number));
  for (const char* place : {"/local", "/above/inside", "/auto", "/lively", "/merged"})
    root.MakeDirectory(place);
  root.WriteFile("/etc/mtab", MountList());
  void* const memory = ::mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  ASSERT_NE(memory, MAP_FAILED);
  Shared& shared = *new (memory) Shared;
  root.Run([&device, &shared] {
    MountFuse(device.Get());
    const pid_t server = ::fork();
    if (server == 0) Serve(device.Get(), shared.isDead);
    device.Reset();
    MountOthers();
    InChild([&shared] { ScanDead(shared); });
    InChild([&shared] { StopInTheMiddle(shared); });
    Figure(
        "%d dead mounts of a server, one over a local file system, one above and one below another: a scan comes back "
        "after %.1f s, the next one after %.1f s, a scan and its update thread end %.1f s after a stop in their middle",
        kShares, shared.seconds, shared.secondsAgain, shared.secondsOfStop);
    ::kill(server, SIGKILL);
    ::waitpid(server, nullptr, 0);
  });
}
