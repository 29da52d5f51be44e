// Edits of INI files that fail, that have no room or that are killed.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <random>

#include "platform/ini_file.h"
#include "prove/faults.h"

namespace {

constexpr const char* kDirectory = "/etc/ini";
constexpr const char* kIni = "/etc/ini/test.ini";
constexpr const char* kFiller = "/etc/ini/filler";
const std::string kLongValue(500, 'v');
const std::string kNoFile = "(no file)";
const std::string kBefore =
    "[A]\n\nfirst=1\n\n[B]\n\nkey=old value\nother=2\n\n[C]\n\nlast=" + std::string(300, 'l') + "\n";

struct Change {
  const char* what;
  const char* section;
  const char* key;
  const char* value;
  int windows;  // calls before which a kill leaves neither the old file nor the new one
  bool isMade = false;
};
const Change kChanges[] = {{"replace by a longer value", "B", "key", kLongValue.c_str(), 1},
                           {"replace by a shorter value", "B", "key", "v", 1},
                           {"replace at the end", "C", "last", "short", 1},
                           {"insert", "B", "more", "x", 1},
                           {"append a key", "C", "more", kLongValue.c_str(), 0},
                           {"append a section", "D", "new", kLongValue.c_str(), 0},
                           {"delete a key", "B", "other", nullptr, 1},
                           {"delete a section", "B", nullptr, nullptr, 1},
                           {"make the file", "D", "new", kLongValue.c_str(), 3, true}};  // empty until it is written

void Put(const std::string& text) {
  ::unlink(kIni);
  if (text == kNoFile) return;
  FILE* file = std::fopen(kIni, "we");
  ASSERT_NE(file, nullptr);
  std::fwrite(text.data(), 1, text.size(), file);
  std::fclose(file);
}

std::string Found() {
  return ::access(kIni, F_OK) == 0 ? ReadWholeFile(kIni) : kNoFile;
}

bool Edit(const Change& change) {
  return CIniFile::WritePrivateProfileString(change.section, change.key, change.value, kIni) == 1;
}

void LimitFileSize(rlim_t limit) {
  const rlimit limits{limit, RLIM_INFINITY};
  ::setrlimit(RLIMIT_FSIZE, &limits);
}

size_t Step(int whole, int brief) {
  return static_cast<size_t>(Rounds(whole, brief));
}

// One kind of change to one file, with what the file is to hold afterwards.
struct Case {
  Case(const Change& made, const std::string& text) : change(made), before(made.isMade ? kNoFile : text) {
    Put(before);
    EXPECT_TRUE(Edit(change));
    after = Found();
    EXPECT_NE(before, after);
  }

  bool IsWhole(bool isDone) const { return Found() == (isDone ? after : before); }

  // With no file longer than that. Also the number of edits that were refused.
  int SweepLimits() const {
    int refused = 0;
    for (rlim_t limit = 0; limit <= after.size() + 1; ++limit) {
      Put(before);
      LimitFileSize(limit);
      const bool isDone = Edit(change);
      LimitFileSize(RLIM_INFINITY);
      EXPECT_TRUE(IsWhole(isDone)) << change.what << " limit " << limit << " done " << isDone;
      refused += isDone ? 0 : 1;
    }
    return refused;
  }

  // With not a page left on the disk.
  bool EditOnFullDisk() const {
    Put(before);
    const int filler = ::open(kFiller, O_CREAT | O_WRONLY | O_CLOEXEC, 0600);
    const std::string page(4096, 'f');
    while (::write(filler, page.data(), page.size()) > 0) {
    }
    ::close(filler);
    const bool isDone = Edit(change);
    EXPECT_TRUE(IsWhole(isDone)) << change.what << " of " << before.size() << " bytes, done " << isDone;
    ::unlink(kFiller);
    return isDone;
  }

  const Change& change;
  std::string before;
  std::string after;
};

// How many of so many kills of a program that does nothing but edit leave the file torn.
int CountTornByKills(int rounds) {
  std::mt19937 random(1);
  int torn = 0;
  for (int round = 0; round < rounds; ++round) {
    Put(kBefore);
    const pid_t editor = ::fork();
    if (editor == 0) {
      while (true)
        for (const char* value : {"long value of a key that moves all the rest", "short"})
          CIniFile::WritePrivateProfileString("B", "key", value, kIni);
    }
    ::usleep(static_cast<useconds_t>(500 + random() % 2000));
    ::kill(editor, SIGKILL);
    ::waitpid(editor, nullptr, 0);
    const std::string found = Found();
    const bool isWhole =
        found == kBefore ||
        (found.ends_with(kBefore.substr(kBefore.find("other="))) &&
         (found.find("key=short\nother") != std::string::npos || found.find("the rest\nother") != std::string::npos));
    torn += isWhole ? 0 : 1;
  }
  return torn;
}

}  // namespace

// "ini<change>", "ini<change> <limit of the file's size>"
int RunIniWorker(const std::string& name) {
  if (!name.starts_with("ini")) return 2;
  const size_t blank = name.find(' ');
  ::signal(SIGXFSZ, SIG_IGN);
  if (blank != std::string::npos) LimitFileSize(std::stoul(name.substr(blank)));
  ::getppid();
  const bool isDone = Edit(kChanges[std::stoul(name.substr(3))]);
  ::getppid();
  ::_exit(isDone ? 0 : 1);
}

TEST(Prove, IniFaults) {
  const FaultRoot root;
  root.MakeDirectory(kDirectory);
  root.Run([] {
    int faults = 0;
    int kills = 0;
    int windows = 0;
    for (size_t number = 0; number < std::size(kChanges); ++number) {
      const Case edit(kChanges[number], kBefore);
      const auto put = [&edit] { Put(edit.before); };
      faults +=
          ForEachFault({"ini" + std::to_string(number), Errors(), put, [&edit](int status, const std::string& what) {
                          ASSERT_TRUE(edit.IsWhole(status == 0)) << edit.change.what << " " << what;
                        }});
      int torn = 0;
      kills += ForEachFault({"ini" + std::to_string(number), {"signal=SIGKILL"}, put, [&](int, const std::string&) {
                               torn += edit.IsWhole(false) || edit.IsWhole(true) ? 0 : 1;
                             }});
      EXPECT_LE(torn, edit.change.windows) << edit.change.what;
      windows += torn;
    }
    const int rounds = Rounds(2000, 100);
    const int torn = CountTornByKills(rounds);
    EXPECT_GT(faults, 100);
    Figure(
        "%d failing calls of %zu kinds of edits leave the file as it was; window of a kill: %d of %d calls, %d of "
        "%d kills of a program that does nothing but edit",
        faults, std::size(kChanges), windows, kills, torn, rounds);
  });
}

TEST(Prove, IniRoom) {
  const FaultRoot root;
  root.MakeDirectory(kDirectory);
  root.Run([] {
    ::signal(SIGXFSZ, SIG_IGN);
    int refused = 0;
    for (const Change& change : kChanges)
      refused += Case(change, kBefore).SweepLimits();
    EXPECT_GT(refused, 2000);

    // The new end does not fit and cannot be cut off again: what was there still is.
    const Case longer(kChanges[0], kBefore);
    for (size_t limit = kBefore.size() + 1; limit < longer.after.size(); limit += Step(7, 97)) {
      Put(kBefore);
      EXPECT_EQ(RunCommand(Strace("inject=ftruncate:error=EIO", "ini0 " + std::to_string(limit))), 1);
      EXPECT_EQ(Found(), kBefore + longer.after.substr(kBefore.size(), limit - kBefore.size())) << limit;
    }

    ASSERT_EQ(::mount("tmpfs", kDirectory, "tmpfs", 0, "size=16k"), 0);
    int full = 0;
    for (size_t size = 3400; size <= 4200; size += Step(1, 41))
      for (const Change& change : kChanges)
        full +=
            Case(change, kBefore + ";" + std::string(size - kBefore.size() - 2, 'c') + "\n").EditOnFullDisk() ? 0 : 1;
    EXPECT_GT(full, 20);
    Figure("%d edits refused by a limit at each byte and %d by a full tmpfs: the file is as it was", refused, full);
  });
}
