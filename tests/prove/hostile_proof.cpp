// What somebody may have put in the place of the daemon's files.

#include "daemon/file_lock.h"
#include "daemon/pid_file.h"
#include "daemon/run_level.h"
#include "platform/ini_file.h"
#include "prove/prove.h"
#include "registry/registry.h"
#include "trace/trace_root.h"

namespace {

constexpr const char* kVictim = "/victim";
constexpr const char* kIni = "/etc/pelrix/Adapter.ini";
constexpr const char* kControlRegistry = "[HKEY_LOCAL_MACHINE]\nControl=s=loaded\n\n\n";
constexpr const char* kVictimText = "[HKEY_LOCAL_MACHINE]\nVictim=s=precious\n\n\n";

bool IsOwnFile(const char* path) {
  struct stat info {};
  return ::lstat(path, &info) == 0 && S_ISREG(info.st_mode) && info.st_nlink == 1 && info.st_size > 0;
}

bool SaveRegistry() {
  CRegistry registry("", CRegistry::HKEY_LOCAL_MACHINE, 0);
  registry.CreateKey(nullptr, "HKEY_LOCAL_MACHINE");
  registry.SetValue("V", 2U);
  CRegistry::SaveTree();
  return IsOwnFile("/etc/pelrix/registry") && CountIn(TextOf("/etc/pelrix/registry"), "V=") == 1;
}

bool LoadAndSaveRegistry() {
  CRegistry registry("", CRegistry::HKEY_LOCAL_MACHINE, 0);
  std::string value;
  const bool isLoaded = registry.QueryValue(value, "Control") == CRegistry::kSuccess && value == "loaded";
  SaveRegistry();
  return isLoaded;
}

bool EditAndReadIni() {
  char text[16];
  CIniFile::WritePrivateProfileString("A", "b", "c", kIni);
  CIniFile::GetPrivateProfileString("A", "d", "", text, sizeof text, kIni);
  return std::string(text) == "e" && CountIn(TextOf(kIni), "b=c") == 1;
}

// Each file with the operation of the product that opens it, which tells whether it did with the file what it is for.
struct Place {
  const char* path;
  bool (*use)();
  const char* content;      // of a file that is only read, when it is what it should be
  bool isReplaced = false;  // what stands there is removed first, but for a directory
};
const Place kPlaces[] = {
    {kPidFile, [] { return WritePidFile(), IsOwnFile(kPidFile); }, nullptr},
    {kLockFile, [] { return CFileLock().Lock("/var/lock/ravd", "ravd", 0) && IsOwnFile(kLockFile); }, nullptr},
    {kLog, [] { return Debug.Init("ravd"), Debug.PrintAlways(0, "entry"), IsOwnFile(kLog); }, nullptr},
    {kStartUpRing, [] { return Debug.Init("ravd") && IsOwnFile(kStartUpRing); }, nullptr},
    {kRing, [] { return Debug.Init("ravd"), Debug.SetApplInitDone(), IsOwnFile(kRing); }, nullptr},
    {"/etc/pelrix/registry.new", SaveRegistry, nullptr, true},
    {"/etc/pelrix/registry", LoadAndSaveRegistry, kControlRegistry},
    {"/etc/pelrix/registry.old", LoadAndSaveRegistry, kControlRegistry},
    {"/etc/pelrix/RunLevel", [] { return DetermineRunLevel() == 6; }, "6"},
    {"/etc/norrow/QuennetSuite/TraceConfig/ravd.ini", [] { return Debug.Init("ravd") && Debug.m_TraceActive; },
     "[ravd]\nFileDebugLevel=1\nRingBufferSizeFactor=1\nRingBufferSizeWeight=1\n[EndOfFile]\n"},
    {kIni, EditAndReadIni, "[A]\nd=e\n"},
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

enum Outcome : int { kDidNothing = 0, kWasUsed = 1, kUnderStandardNumber = 2 };

// In a process of its own, whose standard descriptors are closed: no file may take their numbers.
int Use(const Place& place) {
  const pid_t child = ::fork();
  if (child == 0) {
    for (int fd = STDIN_FILENO; fd <= STDERR_FILENO; ++fd)
      ::close(fd);
    const bool wasUsed = place.use();
    struct stat info {};
    for (int fd = STDIN_FILENO; fd <= STDERR_FILENO; ++fd)
      if (::fstat(fd, &info) == 0 && S_ISREG(info.st_mode)) ::_exit(kUnderStandardNumber);
    ::_exit(wasUsed ? kWasUsed : kDidNothing);
  }
  const int status = WaitFor(child, 8);
  return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
}

// All that tells of a change, but for the number of names.
auto StateOf(const struct stat& info) {
  return std::tuple(info.st_ino, info.st_mode, info.st_uid, info.st_gid, info.st_size, info.st_mtim.tv_sec,
                    info.st_mtim.tv_nsec);
}

struct stat StatOfVictim() {
  struct stat info {};
  EXPECT_EQ(::stat(kVictim, &info), 0);
  return info;
}

// kind null: the control, in which the file is what it should be.
void TryPlace(const Place& place, const Kind* kind) {
  TraceRoot root;
  root.ConfigureRing("3");
  for (const char* directory : {"/etc/pelrix", "/var/run", "/var/lock"})
    root.MakeDirectory(directory);
  root.WriteFile(kVictim, kVictimText, 0640);
  if (kind == nullptr && place.content != nullptr) root.WriteFile(place.path, place.content);
  root.Run([&] {
    ::setenv("QN_NICKNAME", "SLES12", 1);
    RememberRelease();
    if (kind == nullptr) {
      EXPECT_EQ(Use(place), kWasUsed) << "the use does not reach the file";
      return;
    }
    ::unlink(place.path);
    const struct stat alone = StatOfVictim();
    ASSERT_EQ(kind->make(place.path), 0);
    const struct stat before = StatOfVictim();
    const bool isReplaced = place.isReplaced && std::string(kind->name) != "directory";
    EXPECT_EQ(Use(place), isReplaced ? kWasUsed : kDidNothing);
    const struct stat after = StatOfVictim();
    EXPECT_EQ(StateOf(before), StateOf(after)) << "the victim has changed";
    EXPECT_EQ(after.st_nlink, isReplaced ? alone.st_nlink : before.st_nlink);
    EXPECT_NE(::access("/made", F_OK), 0) << "made where a link pointed to";
  });
  EXPECT_EQ(root.ReadFile(kVictim), kVictimText);
}

}  // namespace

TEST(Prove, HostileFiles) {
  int cases = 0;
  for (const Place& place : kPlaces) {
    {
      SCOPED_TRACE(std::string(place.path) + " is as it should be");
      TryPlace(place, nullptr);
    }
    for (const Kind& kind : kKinds) {
      if (place.content != nullptr && !kind.isForReaders) continue;
      SCOPED_TRACE(std::string(place.path) + " is a " + kind.name);
      TryPlace(place, &kind);
      ++cases;
    }
  }
  Figure(
      "%d links, pipes and directories in the place of a file: the victim unchanged in all that stat tells, no hang; "
      "%zu controls: the file was used",
      cases, std::size(kPlaces));
}
