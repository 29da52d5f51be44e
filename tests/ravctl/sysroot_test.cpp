// Answers for a captured tree: what of this machine may be seen, and what a bundle may do.

#include <linux/capability.h>
#include <net/if.h>
#include <sched.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/statvfs.h>
#include <sys/sysmacros.h>

#include "ravctl/archive_file.h"
#include "ravctl/base/error.h"
#include "ravctl/ravctl_runner.h"
#include "ravctl/tree/enter.h"

using ::testing::HasSubstr;

namespace {

constexpr const char* kConfiguration = "etc/norrow/QuennetSuite/TraceConfig/ravd_trace.ini";
constexpr const char* kSection = "[ravd]\nFileDebugLevel=4\n[EndOfFile]\n";

}  // namespace

TEST(Sysroot, ShowsTheTreeAndNothingOfThisMachine) {
  if (kSanitized) GTEST_SKIP() << "what is in the tree for good does not find its own process";
  const ToolRoot machine;
  machine.WriteFile("/this-machine", "");
  machine.WriteFile("/tree/etc/name", "tree");
  machine.WriteFile("/tree/dev/mem", "memory");
  machine.WriteFile("/tree/usr/bin/true", "#!/bin/sh\nexit 7\n", 0755);
  machine.WriteFile("/tree/tool", "#!/bin/sh\nexit 0\n", 0755);
  machine.MakeLink("/tree/up", "../../this-machine");
  machine.Run(FixtureRoot::kUsr, [] {
    ravctl::EnterSysroot("/tree");
    EXPECT_TRUE(ravctl::IsInSysroot());
    EXPECT_EQ(ReadWholeFile("/etc/name"), "tree");
    EXPECT_EQ(ReadWholeFile("/dev/mem"), "memory");
    EXPECT_NE(::access("/this-machine", F_OK), 0);
    EXPECT_NE(::access("/up", F_OK), 0);
    // Read-only, without a network, a file system or a program of its own.
    EXPECT_TRUE(::open("/etc/name", O_WRONLY) == -1 && errno == EROFS);
    EXPECT_EQ(::if_nametoindex("eth0"), 0U);
    struct statvfs info {};
    EXPECT_TRUE(::statvfs("/etc", &info) == -1 && errno == ENOSYS);
    EXPECT_EQ(::access("/tool", X_OK), -1);
    EXPECT_EQ(std::system("/usr/bin/true 2>/dev/null"), 0);
    EXPECT_EQ(std::system("/tool 2>/dev/null") >> 8, 126);
  });
  EXPECT_FALSE(machine.Exists("/tree/bin")) << "the tree was changed";
}

TEST(Sysroot, LeavesNoRightsAndClosesWhatWaitsOrLoads) {
  const FixtureRoot machine;
  machine.WriteFile("/tree/etc/closed", "for root", 0600);
  machine.WriteFile("/tree/etc/ld.so.preload", "/lib/evil.so\n");
  machine.WriteFile("/tree/elsewhere", "/lib/evil.so\n");
  machine.MakeLink("/tree/etc/ld.so.cache", "../elsewhere");
  machine.WriteFile("/tree/dev/mem", "memory");
  machine.WriteFile("/tree/dev/null", "no null");
  machine.MakeLink("/tree/dev/disk/one", "../sda");
  for (int number = 0; number < 2000; ++number)
    machine.WriteFile("/tree/dev/sda" + (number == 0 ? "" : std::to_string(number)), "disk");
  for (const char* place : {"/tree/etc/mtab", "/tree/dev/pipe", "/tree/var/log/deep/log.ravd"}) {
    machine.MakeDirectory(std::filesystem::path(place).parent_path().string());
    ASSERT_EQ(::mkfifo(machine.HostPath(place).c_str(), 0666), 0);
  }
  const bool isRoot = ::geteuid() == 0;
  // An ordinary user can make no device.
  EXPECT_EQ(::mknod(machine.HostPath("/tree/dev/zero").c_str(), S_IFCHR | 0666, makedev(1, 5)) == 0, isRoot);
  machine.Run(FixtureRoot::kUsr, [&] {
    ravctl::EnterSysroot("/tree");
    EXPECT_NE(::getuid() == 0, isRoot);
    EXPECT_EQ(::unshare(CLONE_NEWNS), -1);
    EXPECT_TRUE(::mkdir("/x", 0755) == -1 && errno == EROFS);
    for (const int capability : {CAP_DAC_OVERRIDE, CAP_SYS_ADMIN, CAP_SETUID})
      EXPECT_EQ(::prctl(PR_CAPBSET_READ, capability), 0);
    rlimit limit{};
    EXPECT_TRUE(::getrlimit(RLIMIT_CPU, &limit) == 0 && limit.rlim_max <= 600);
    EXPECT_TRUE(::getrlimit(RLIMIT_NPROC, &limit) == 0 && limit.rlim_max <= 512);
    EXPECT_EQ(ReadWholeFile("/etc/closed"), "for root");
    // Nothing waits; a child is not told what to load.
    for (const char* path :
         {"/etc/mtab", "/dev/pipe", "/var/log/deep/log.ravd", "/etc/ld.so.preload", "/etc/ld.so.cache", "/dev/zero"})
      EXPECT_EQ(::open(path, O_RDONLY), -1) << path;
    EXPECT_EQ(ReadWholeFile("/dev/mem") + ReadWholeFile("/dev/sda1999") + ReadWholeFile("/dev/disk/one"),
              "memorydiskdisk");
    EXPECT_EQ(std::system("/usr/bin/true >/dev/null"), 0);
  });
}

TEST(Sysroot, ATreeThatNoMachineHasIsRefused) {
  if (kSanitized) GTEST_SKIP() << "what has entered other mounts does not find its own process";
  const auto expect = [](const FixtureRoot& machine, const char* why) {
    machine.Run([why] {
      try {
        ravctl::EnterSysroot("/tree");
        ADD_FAILURE() << why;
      } catch (const ravctl::CommandError& error) {
        EXPECT_THAT(error.what(), HasSubstr(why));
      }
    });
  };
  const FixtureRoot deep, wide, piped;
  std::string path = "/tree";
  for (int depth = 0; depth < 140; ++depth)
    path += "/d";
  deep.MakeDirectory(path);
  for (int number = 0; number < 300; ++number) {
    wide.MakeDirectory("/tree/d" + std::to_string(number));
    piped.MakeDirectory("/tree/d");
    ASSERT_EQ(::mkfifo(piped.HostPath("/tree/d/" + std::to_string(number)).c_str(), 0666), 0);
  }
  expect(deep, "too many directories below each other");
  expect(wide, "too many names in a directory");
  expect(piped, "too many pipes");
}

TEST(Sysroot, AnswersFromDirectoryAndBundleAndForUsers) {
  const ToolRoot machine;
  machine.WriteFile(std::string("/tree/") + kConfiguration, kSection);
  machine.WriteFile("/tree.tar.gz", ArchiveFile().File(std::string("./") + kConfiguration, kSection).Bytes());
  for (const char* tree : {"/tree", "/tree.tar.gz"}) {
    // The environment is that of another machine.
    const nlohmann::json answer =
        machine.Json(std::string("trace config --sysroot ") + tree, 0, {"QN_LOG_DEBUG_LEVEL=6"});
    EXPECT_EQ(Members(answer, "root data/settings/0/value"), std::string(tree) + ", 4");
  }
  if (::geteuid() != 0) return;
  const std::string command = std::string("env ") + kNoLeakCheck +
                              " setpriv --reuid 65534 --regid 65534 --clear-groups " RAVCTL_BINARY
                              " trace config --sysroot " +
                              machine.HostPath("/tree").string() + " > " + machine.HostPath("/out").string() + " 2>&1";
  const int status = std::system(command.c_str()) >> 8;
  const std::string text = machine.ReadFile("/out");
  if (status == 3) GTEST_SKIP() << text;
  EXPECT_EQ(status, 0) << text;
  EXPECT_THAT(text, HasSubstr("FileDebugLevel"));
}

TEST(Sysroot, HostileBundlesAreRefused) {
  const auto good = [] { return ArchiveFile().File("etc/a", std::string(5000, 'a')).File("etc/b", "b").Bytes(); };
  const auto withManifest = [](const std::string& manifest) {
    return ArchiveFile().File("etc/a", "a").File("manifest.json", manifest).Bytes();
  };
  const auto withEntry = [&](const std::string& entry) {
    return withManifest(R"({"schema":"ravctl/bundle-manifest","version":1,"entries":[)" + entry + "]}");
  };
  const auto directories = [](bool isNumbered) {
    ArchiveFile file;
    for (int number = 0; number <= 100000; ++number)
      file.Directory(isNumbered ? "d" + std::to_string(number) : ".");
    return file.Bytes();
  };
  std::string deepPath = "d", wideObject = "{";
  for (int depth = 0; depth < 100; ++depth)
    deepPath += "/d";
  for (int number = 0; number < 200000; ++number)
    wideObject += '"' + std::to_string(number) + "\":1,";
  const char* out = "leads out of the tree or is none";
  const std::pair<std::string, std::string> rows[] = {
      {ArchiveFile().File("../x", "").Bytes(), "leads out of the tree or is none: ../x"},
      {ArchiveFile().File("etc/../../x", "").Bytes(), out},
      {ArchiveFile().File("/x", "").Bytes(), "leads out of the tree or is none: /x"},
      {ArchiveFile().File(deepPath, "").Bytes(), out},
      {ArchiveFile().Sparse(".", size_t{1} << 30).Bytes(), "leads out of the tree or is none: ."},
      {ArchiveFile().Link("etc/l", "../../x").Bytes(), "a link that leads out of the tree"},
      {ArchiveFile().Link("etc", "/tmp").File("etc/x", "").Bytes(), "a path through what is no directory: etc/x"},
      {ArchiveFile().Link("x", "/tmp/x").File("x", "").Bytes(), "two entries of one path"},
      {ArchiveFile().File("a", "").HardLink("b", "a").Bytes(), "a hard link: b"},
      {ArchiveFile().Device("dev/mem").Bytes(), "neither file, directory nor link: dev/mem"},
      {ArchiveFile().Sparse("etc/pelrix/registry", size_t{1} << 29).Bytes(), "a file that is too large"},
      {directories(true), "too many entries"},
      {directories(false), "too many entries"},
      {good().substr(0, good().size() - 20), "the bundle is damaged"},
      {std::string(10000, 'x'), "it is cut short, or neither tar.gz nor tar.zst"},
      {"", "the bundle is damaged"},
      {withEntry(R"({"path":"etc/a","type":"file","size":1,"crc32":1})"), "it holds another etc/a than it says"},
      {withEntry(R"({"path":"etc/b","type":"file"})"), "it lacks etc/b"},
      {withEntry(std::string(1000000, '[')), "its manifest: it nests too deep"},
      {withManifest(wideObject + "\"x\":1}"), "its manifest: too many keys in one object"},
      {withManifest(R"([{"schema":5}])"), "its manifest is none"},
  };
  const ToolRoot machine;
  machine.WriteFile("/bundle", good());
  EXPECT_EQ(machine.Ravctl("trace config --sysroot /bundle").status, 0);
  for (const auto& [bytes, why] : rows) {
    machine.WriteFile("/bundle", bytes);
    const Fault faults[] = {{"", 5, "..." + why + "..."}};
    ExpectFaults(machine, "trace config --sysroot /bundle", faults);
    EXPECT_FALSE(machine.Exists("/x") || machine.Exists("/tmp/x")) << why;
  }
}
