// What comes into a bundle, and when a bundle is there.

#include "ravctl/tree/capture.h"
#include "ravctl/base/error.h"
#include "ravctl/tree/bundle_writer.h"
#include "support/fixture_root.h"

using ravctl::Capture;
using ravctl::CaptureKind;
using ::testing::ElementsAre, ::testing::HasSubstr, ::testing::Pair;

namespace {

std::map<std::string, std::string> Missing(const Capture& capture) {
  std::map<std::string, std::string> missing;
  for (const ravctl::Uncaptured& each : capture.Missing())
    missing[each.path] = each.reason;
  return missing;
}

// "path=content" of each file.
std::vector<std::string> Files(Capture& capture) {
  std::vector<std::string> files;
  for (const ravctl::CapturedEntry& entry : capture.Entries())
    if (entry.type == ravctl::EntryType::kFile) files.push_back(entry.path + "=" + entry.content);
  return files;
}

}  // namespace

TEST(Capture, NothingOfOthersComesAlongFromASharedDirectory) {
  const FixtureRoot machine;
  machine.WriteFile("/etc/shadow", "secret", 0600);
  machine.WriteFile("/traces/log.ravd", "trace");
  machine.MakeLink("/traces/log.link", "/etc/shadow");
  std::filesystem::create_hard_link(machine.HostPath("/etc/shadow"), machine.HostPath("/traces/log.name"));
  ASSERT_EQ(::mkfifo(machine.HostPath("/traces/log.pipe").c_str(), 0666), 0);
  machine.WriteFile("/traces/log.theirs", "bait");
  const bool isTheirs = ::chown(machine.HostPath("/traces/log.theirs").c_str(), 1000, 1000) == 0;
  if (!isTheirs) machine.Remove("/traces/log.theirs");
  machine.Run([isTheirs] {
    Capture capture;
    capture.AddMatching("/traces/log.*", CaptureKind::kOwnContent, 1000);
    EXPECT_THAT(Files(capture), ElementsAre("traces/log.ravd=trace"));
    std::map<std::string, std::string> expected = {
        {"/traces/log.link", "a link"}, {"/traces/log.name", "it has further names"}, {"/traces/log.pipe", "no file"}};
    if (isTheirs) expected["/traces/log.theirs"] = "it is somebody else's";
    EXPECT_EQ(Missing(capture), expected);
  });
}

TEST(Capture, ClosedDirectoriesAreMissing) {
  const FixtureRoot machine;
  machine.WriteFile("/etc/pelrix/registry", "x");
  machine.WriteFile("/sys/a1/open/name", "one");
  machine.WriteFile("/sys/a2/open/name", "two");
  ASSERT_EQ(::chmod(machine.HostPath("/etc/pelrix").c_str(), 0), 0);
  ASSERT_EQ(::chmod(machine.HostPath("/sys/a2").c_str(), 0), 0);
  machine.Run([] {
    if (::geteuid() == 0 && ::setresuid(65534, 65534, 65534) != 0) return;  // alone in its user namespace
    Capture capture;
    for (const char* pattern : {"/etc/pelrix/registry*", "/etc/pelrix/RunLevel", "/etc/pelrix/*.ini", "/none/*",
                                "/sys/a[0-9]/open/name", "/sys/a*/none"})
      capture.AddMatching(pattern, CaptureKind::kContent, 1000);
    EXPECT_THAT(Files(capture), ElementsAre("sys/a1/open/name=one"));
    EXPECT_THAT(Missing(capture),
                ElementsAre(Pair("/etc/pelrix", "Permission denied"), Pair("/etc/pelrix/RunLevel", "Permission denied"),
                            Pair("/sys/a2/none", "Permission denied"), Pair("/sys/a2/open", "Permission denied")));
  });
  for (const char* path : {"/etc/pelrix", "/sys/a2"})
    ::chmod(machine.HostPath(path).c_str(), 0755);
}

TEST(BundleWriter, ABundleIsThereWhenItIsWhole) {
  const FixtureRoot machine;
  machine.MakeDirectory("/out");
  machine.Run([] {
    const auto names = [] {
      std::string all;
      for (const auto& entry : std::filesystem::directory_iterator("/out"))
        all += entry.path().filename().string() + " ";
      return all;
    };
    const pid_t child = ::fork();
    if (child == 0) {
      ravctl::BundleWriter writer("/out/killed.tar.gz");
      writer.Add({.path = "a", .content = "a", .size = 1});
      ::_exit(0);
    }
    int status = 0;
    EXPECT_EQ(::waitpid(child, &status, 0), child);
    EXPECT_FALSE(std::filesystem::exists("/out/killed.tar.gz"));
    EXPECT_THAT(names(), HasSubstr(".killed.tar.gz."));
    std::filesystem::remove_all("/out");
    std::filesystem::create_directory("/out");
    { const ravctl::BundleWriter writer("/out/given-up.tar.gz"); }
    EXPECT_EQ(names(), "");
    ravctl::BundleWriter first("/out/b.tar.gz");
    ravctl::BundleWriter second("/out/b.tar.gz");
    second.Finish();
    EXPECT_THROW(first.Finish(), ravctl::CommandError);
    EXPECT_THROW(ravctl::BundleWriter("/out/b.tar.gz"), ravctl::CommandError);
    struct stat info {};
    EXPECT_EQ(::stat("/out/b.tar.gz", &info), 0);
    EXPECT_EQ(info.st_mode & 07777, 0600U);
  });
  EXPECT_TRUE(machine.Exists("/out/b.tar.gz"));
}
