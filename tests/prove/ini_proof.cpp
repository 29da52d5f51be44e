// Edits of INI files that fail or that are killed.

#include "platform/ini_file.h"
#include "prove/faults.h"

namespace {

constexpr const char* kDirectory = "/etc/ini";
constexpr const char* kIni = "/etc/ini/test.ini";
constexpr const char* kSecondName = "/etc/ini/second";
const std::string kLongValue(500, 'v');
const std::string kBefore =
    "[A]\n\nfirst=1\n\n[B]\n\nkey=old value\nother=2\n\n[C]\n\nlast=" + std::string(300, 'l') + "\n";

struct Change {
  const char* what;
  const char* section;
  const char* key;
  const char* value;
  bool isMade = false;
  bool isInPlace = false;  // the file has a second name, so that a rename cannot be
};
const Change kChanges[] = {
    {"replace by a longer value", "B", "key", kLongValue.c_str()},
    {"delete a section", "B", nullptr, nullptr},
    {"make the file", "D", "new", kLongValue.c_str(), true},
    {"replace in place", "B", "key", kLongValue.c_str(), false, true},
    {"delete in place", "B", nullptr, nullptr, false, true},
};

bool Edit(const Change& change) {
  return CIniFile::WritePrivateProfileString(change.section, change.key, change.value, kIni) == 1;
}

// One kind of change to one file, with what the file is to hold afterwards.
struct Case {
  explicit Case(const Change& made) : change(made), before(made.isMade ? "" : kBefore) {
    Prepare();
    EXPECT_TRUE(Edit(change));
    after = TextOf(kIni);
    EXPECT_NE(before, after);
  }

  void Prepare() const {
    for (const char* path : {kIni, kSecondName})
      ::unlink(path);
    if (!before.empty()) WriteWholeFile(kIni, before);
    EXPECT_TRUE(!change.isInPlace || ::link(kIni, kSecondName) == 0);
  }

  bool IsWhole(bool isDone) const { return TextOf(kIni) == (isDone ? after : before); }

  const Change& change;
  std::string before;  // empty: there is no file
  std::string after;
};

}  // namespace

// "ini<change>"
int RunIniWorker(const std::string& name) {
  if (!name.starts_with("ini")) return 2;
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
    for (size_t number = 0; number < std::size(kChanges); ++number) {
      const Case edit(kChanges[number]);
      const std::string worker = "ini" + std::to_string(number);
      const auto put = [&edit] { edit.Prepare(); };
      faults += ForEachFault({worker, Errors(), put, [&edit](int status, const std::string& what) {
                                ASSERT_TRUE(edit.IsWhole(status == 0)) << edit.change.what << " " << what;
                              }});
      if (edit.change.isInPlace) continue;  // a kill may tear it
      kills += ForEachFault({worker, {"signal=SIGKILL"}, put, [&edit](int, const std::string& what) {
                               ASSERT_TRUE(edit.IsWhole(false) || edit.IsWhole(true))
                                   << edit.change.what << " " << what;
                               ASSERT_TRUE(Edit(edit.change) || edit.IsWhole(true)) << "left over by " << what;
                               ASSERT_TRUE(edit.IsWhole(true)) << "left over by " << what;
                             }});
    }
    EXPECT_GT(faults, 100);
    EXPECT_GT(kills, 100);
    Figure(
        "%d failing calls of %zu kinds of edits leave the file as it was; %d kills leave the old file or the new one",
        faults, std::size(kChanges), kills);
  });
}
