// What somebody may have put in the place of the daemon's files.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "daemon/file_lock.h"
#include "daemon/pid_file.h"
#include "daemon/run_level.h"
#include "platform/ini_file.h"
#include "prove/prove.h"
#include "registry/registry.h"
#include "trace/trace_root.h"

namespace {

constexpr const char* kVictim = "/victim";
constexpr const char* kVictimText = "[HKEY_LOCAL_MACHINE]\nVictim=s=precious\n\n\n";

void SaveRegistry() {
  CRegistry registry("", CRegistry::HKEY_LOCAL_MACHINE, 0);
  registry.CreateKey(nullptr, "HKEY_LOCAL_MACHINE");
  registry.SetValue("V", 2U);
  CRegistry::SaveTree();
}

// Each file with the operation of the product that opens it.
struct Place {
  const char* path;
  void (*use)();
  bool isOnlyRead;
};
const Place kPlaces[] = {
    {"/var/run/ravd.pid", WritePidFile, false},
    {"/var/lock/ravd.lock",
     [] {
       CFileLock lock;
       lock.Lock("/var/lock/ravd", "ravd", 0);
     },
     false},
    {TraceRoot::kLog,
     [] {
       Debug.Init("ravd");
       Debug.PrintAlways(0, "entry");
     },
     false},
    {TraceRoot::kStartUpRing, [] { Debug.Init("ravd"); }, false},
    {TraceRoot::kRunTimeRing,
     [] {
       Debug.Init("ravd");
       Debug.SetApplInitDone();
     },
     false},
    {"/etc/pelrix/registry.new", SaveRegistry, false},
    {"/etc/pelrix/registry", SaveRegistry, true},
    {"/etc/pelrix/registry.old", SaveRegistry, true},
    {"/etc/pelrix/RunLevel", [] { DetermineRunLevel(); }, true},
    {"/etc/norrow/QuennetSuite/TraceConfig/ravd.ini", [] { Debug.Init("ravd"); }, true},
    {"/etc/pelrix/Adapter.ini",
     [] {
       char text[16];
       CIniFile::GetPrivateProfileString("A", "b", "", text, sizeof text, "/etc/pelrix/Adapter.ini");
       CIniFile::WritePrivateProfileString("A", "b", "c", "/etc/pelrix/Adapter.ini");
     },
     true},
};

struct Kind {
  const char* name;
  int (*make)(const char* path);
  bool isForReaders;
};
const Kind kKinds[] = {
    {"symbolic link", [](const char* path) { return ::symlink(kVictim, path); }, false},
    {"dangling link", [](const char* path) { return ::symlink("/made", path); }, false},
    {"hard link", [](const char* path) { return ::link(kVictim, path); }, false},
    {"pipe", [](const char* path) { return ::mkfifo(path, 0666); }, true},
    {"directory", [](const char* path) { return ::mkdir(path, 0755); }, true},
};

void TryPlace(const Place& place, const Kind& kind) {
  TraceRoot root;
  root.ConfigureRing("3");
  for (const char* directory : {"/etc/pelrix", "/var/run", "/var/lock"})
    root.MakeDirectory(directory);
  root.WriteFile(kVictim, kVictimText);
  root.Run([&] {
    ::setenv("QN_NICKNAME", "SLES12", 1);
    ::unlink(place.path);
    ASSERT_EQ(kind.make(place.path), 0);
    const pid_t child = ::fork();
    if (child == 0) {
      place.use();
      ::_exit(0);
    }
    EXPECT_EQ(WaitFor(child, 8), 0);
    EXPECT_NE(::access("/made", F_OK), 0) << "made where a link pointed to";
  });
  EXPECT_EQ(root.ReadFile(kVictim), kVictimText);
}

}  // namespace

TEST(Prove, HostileFiles) {
  int cases = 0;
  for (const Place& place : kPlaces) {
    for (const Kind& kind : kKinds) {
      if (place.isOnlyRead && !kind.isForReaders) continue;
      SCOPED_TRACE(std::string(place.path) + " is a " + kind.name);
      TryPlace(place, kind);
      ++cases;
    }
  }
  Figure("%d links, pipes and directories in the place of a file: the victim untouched, no hang", cases);
}
