// The ini commands of the built tool.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>

#include "platform/ini_file.h"
#include "ravctl/ravctl_runner.h"

using ::testing::HasSubstr;

namespace {

constexpr const char* kFile = "/etc/a.ini";
constexpr const char* kPlain = "; head\n[One]\n\na=1\nb = two words ; note\nempty=\n\n[Two]\n\nc=3\n";

std::string Zeros(std::string text) {
  std::ranges::replace(text, '@', '\0');
  return text;
}

// Applies a unified diff of one hunk, strictly.
std::string Patched(const std::string& old, const std::string& diff) {
  if (diff.empty()) return old;
  size_t at = diff.find("@@ -");
  size_t line = std::stoul(diff.substr(at + 4));
  const bool isInsertion = diff.substr(at, diff.find(" +", at) - at).ends_with(",0");
  size_t position = 0;
  for (line += isInsertion ? 1 : 0; line > 1; --line)
    position = old.find('\n', position) + 1;
  std::string text = old.substr(0, position);
  for (at = diff.find('\n', at) + 1; at < diff.size();) {
    const size_t end = diff.find('\n', at) + 1;
    std::string content = diff.substr(at + 1, end - at - 1);
    const char mark = diff[at];
    at = end;
    if (diff.compare(at, 2, "\\ ") == 0) {
      content.pop_back();
      at = diff.find('\n', at) + 1;
    }
    if (mark != '+') {
      EXPECT_EQ(old.substr(position, content.size()), content);
      position += content.size();
    }
    if (mark != '-') text += content;
  }
  return text + old.substr(position);
}

// The exit status of the tool for the user, inside a root. The output goes to /tmp/out and /tmp/out.err.
int RunAs(uid_t user, const std::vector<std::string>& arguments) {
  const pid_t child = ::fork();
  if (child == 0) {
    if (user != 0 && (::setgid(user) != 0 || ::setuid(user) != 0)) ::_exit(99);
    int status = 0;
    ::waitpid(StartRavctl(arguments, "/tmp/out"), &status, 0);
    ::_exit(WEXITSTATUS(status));
  }
  int status = 0;
  ::waitpid(child, &status, 0);
  return WEXITSTATUS(status);
}

}  // namespace

TEST(Ini, GetAndSections) {
  const ToolRoot machine;
  machine.WriteFile(kFile, std::string(kPlain) + "e=\x1b[31m\xff\n[One]\na=2\n");
  struct Row {
    std::vector<std::string> arguments;
    int status;
    const char* out;
    const char* err;
  };
  const Row rows[] = {
      {{kFile, "One", "b"}, 0, "two words\n", ""},
      {{kFile, "One", "a", "--default", "9"}, 0, "1\n", ""},
      {{kFile, "One", "empty"}, 0, "\n", ""},
      {{kFile, "One", "empty", "--default", "9"}, 0, "9\n", ""},
      {{kFile, "Two", "e"}, 0, "\\x1b[31m\\xff\n", ""},
      {{kFile, "Two", "e", "--raw"}, 0, "\x1b[31m\xff\n", ""},
      {{kFile, "One", "aa"}, 1, "", "ravctl: warning: no such key: /etc/a.ini: [One] aa (did you mean a?)\n"},
      {{kFile, "Ohne", "a"}, 1, "", "ravctl: warning: no such section: /etc/a.ini: [Ohne] (did you mean [One]?)\n"},
      {{"/no", "One", "a"}, 4, "", "ravctl: ini get: cannot read: /no: No such file or directory (check the path)\n"},
      {{"/no", "One", "a", "--default", "9"}, 0, "9\n", ""},
      {{"/dev/null", "One", "a"}, 4, "", "ravctl: ini get: cannot read: /dev/null: Operation not supported\n"},
      {{kFile, "One"}, 2, "", "ravctl: KEY is required: ini get (see ravctl ini get --help)\n"},
  };
  for (const Row& row : rows) {
    std::vector<std::string> arguments{"ini", "get"};
    arguments.insert(arguments.end(), row.arguments.begin(), row.arguments.end());
    const ToolResult result = machine.Ravctl(arguments);
    EXPECT_EQ(result.status, row.status) << row.out << row.err;
    EXPECT_EQ(result.out, row.out);
    EXPECT_EQ(result.err, row.err);
  }
  EXPECT_EQ(machine.Json({"ini", "get", kFile, "One", "nix"}, 1)["data"]["source"], "none");
  const nlohmann::json sections = machine.Json({"ini", "sections", kFile})["data"];
  EXPECT_EQ(sections[0], nlohmann::json({{"section", "One"}, {"line", 2}, {"keys", 3}, {"read", true}}));
  EXPECT_EQ(sections[2], nlohmann::json({{"section", "One"}, {"line", 12}, {"keys", 1}, {"read", false}}));
  EXPECT_EQ(machine.Json({"ini", "sections", kFile, "--keys"})["data"].size(), 6U);
}

// What is said to be read is what the library reads.
TEST(Ini, SectionsAgreeWithTheLibrary) {
  const ToolRoot machine;
  machine.WriteFile(kFile, Zeros("x=0\n [A] ; c\nk=1\n\tk = 2\n[B\nl=1\n[A]\nm=1\n[a]b]\nn=@1\n[C]\r\no=1;2\r\n" +
                                 std::string(1023, 'z') + "[D]\np=1\n\xff=\xfe"));
  const nlohmann::json keys = machine.Json({"ini", "sections", kFile, "--keys"})["data"];
  size_t read = 0;
  CIniFile ini;
  ini.Open(machine.HostPath(kFile).c_str());
  for (const nlohmann::json& row : keys) {
    if (row["key"] == "\\xff") continue;  // shown, not as it is in the file
    std::string value;
    ini.GetString(value, row["section"].get<std::string>().c_str(), row["key"].get<std::string>().c_str(), "");
    EXPECT_EQ(row["read"], row["value"] == value && row["line"] != 8) << row;
    read += row["read"] ? 1U : 0U;
  }
  EXPECT_EQ(read, 4U) << keys;
}

TEST(Ini, CheckTellsDamageFromOddities) {
  struct Row {
    std::string content;
    int status;
    const char* findings;  // line, severity and kind of each
  };
  const Row rows[] = {
      {kPlain, 0, ""},
      {"", 0, ""},
      {"Words to the reader; and more\n[A]\nk=1\n", 1, "1 note stray\n"},
      {"k=1\n[A]\nlost\n[B\nk=2\n", 5, "1 bad orphan\n3 bad stray\n4 bad header\n5 bad orphan\n"},
      {"[A]\nk=" + std::string(1021, 'x') + "\n", 0, ""},
      {"[A]\nk=" + std::string(1022, 'x') + "\n", 5, "2 bad long\n"},
      {Zeros("[A]\n@\nk=1@2\n"), 5, "2 bad nul\n3 bad nul\n"},
      {"[A]\nk=1\nk=2\n[A]\nk=3\n", 1, "3 note key\n4 note section\n"},
      {"[A] ; c\n k=1", 1, "1 note writer\n2 note writer\n2 note end\n"},
      {"[A]\r\n; c\r\nk=1\n", 1, "1 note crlf\n"},
  };
  const ToolRoot machine;
  for (const Row& row : rows) {
    machine.WriteFile(kFile, row.content);
    std::string findings;
    const nlohmann::json answer = machine.Json({"ini", "check", kFile}, row.status);
    for (const nlohmann::json& finding : answer["data"]) {
      findings += finding["place"].get<std::string>().substr(std::string(kFile).size() + 1) + ' ' +
                  finding["severity"].get<std::string>() + ' ' + finding["check"].get<std::string>() + '\n';
    }
    EXPECT_EQ(findings, row.findings) << row.content;
  }
  machine.WriteFile(kFile, "[A]\nk=1\n\x1b[2Jk=2\nk=3\n");
  EXPECT_THAT(machine.Ravctl({"ini", "check", kFile}).out, HasSubstr("k again: that of line 2 is read"));
  machine.WriteFile(kFile, "[A]\n\x1b[2J\n");
  EXPECT_THAT(machine.Ravctl({"ini", "check", kFile}).out, HasSubstr("neither section, key nor comment: \\x1b[2J"));
  EXPECT_EQ(machine.Ravctl({"ini", "check", "/no"}).status, 4);
}

// The file stays as it is with --dry-run, and the diff makes of it what the run without writes.
TEST(Ini, DryRunShowsWhatTheRunWrites) {
  struct Row {
    std::string content;
    std::vector<std::string> arguments;
    bool isChange = true;
  };
  const std::string crlf = Zeros("[A]\r\nk=\xff@\x1b\r\n[B]\n\tx\n\n; of k\nk=1\n; of C\n[C]\nz=1");
  const Row rows[] = {
      {kPlain, {"set", kFile, "One", "a", "one"}},
      {kPlain, {"set", kFile, "One", "b", "x=y"}},
      {kPlain, {"set", kFile, "One", "new", "1"}},
      {kPlain, {"set", kFile, "Three", "new", ""}},
      {kPlain, {"set", kFile, "Two", "c", "3"}, false},
      {kPlain, {"del", kFile, "One", "b"}},
      {kPlain, {"del", kFile, "One"}},
      {kPlain, {"del", kFile, "Two"}},
      {"", {"set", kFile, "A", "k", "1"}},
      {"[A]\nk=1\n", {"del", kFile, "A"}},
      {crlf, {"set", kFile, "B", "k", "\xf0"}},
      {crlf, {"set", kFile, "C", "y", "\x1b"}},
      {crlf, {"set", kFile, "D", "y", "2"}},
      {crlf, {"del", kFile, "C", "z"}},
  };
  const ToolRoot machine;
  for (const Row& row : rows) {
    machine.WriteFile(kFile, row.content, 0640);
    std::vector<std::string> dry{"ini"};
    dry.insert(dry.end(), row.arguments.begin(), row.arguments.end());
    std::vector<std::string> real = dry;
    dry.insert(dry.end(), {"--dry-run", "--raw"});
    const ToolResult shown = machine.Ravctl(dry);
    EXPECT_EQ(shown.status, 0) << shown.err;
    EXPECT_EQ(machine.ReadFile(kFile), row.content);
    EXPECT_EQ(machine.Json(dry)["data"]["changed"], row.isChange);
    const ToolResult done = machine.Ravctl(real);
    EXPECT_EQ(done.status, 0) << done.err;
    EXPECT_EQ(machine.ReadFile(kFile) != row.content, row.isChange);
    EXPECT_EQ(machine.ReadFile(kFile), Patched(row.content, row.isChange ? shown.out : "")) << shown.out;
    EXPECT_EQ(machine.Mode(kFile) & 07777, 0640U);
  }
  EXPECT_TRUE(std::filesystem::is_empty(machine.HostPath("/tmp")));
}

TEST(Ini, DiffsToTheCharacter) {
  const ToolRoot machine;
  EXPECT_EQ(machine.Ravctl({"ini", "set", kFile, "A", "k", "1", "--dry-run"}).status, 0);
  machine.WriteFile(kFile, "[A]\n\nk=\x1b\nl=2");
  EXPECT_EQ(machine.Ravctl({"ini", "set", kFile, "B", "m", "3", "--dry-run"}).out,
            "--- /etc/a.ini\n+++ /etc/a.ini\n@@ -1,4 +1,8 @@\n [A]\n \n k=\\x1b\n-l=2\n\\ No newline at end of file\n"
            "+l=2\n+\n+[B]\n+\n+m=3\n");
  EXPECT_EQ(machine.Ravctl({"ini", "set", "/etc/new.ini", "B", "m", "3", "--dry-run"}).out,
            "--- /dev/null\n+++ /etc/new.ini\n@@ -0,0 +1,4 @@\n+\n+[B]\n+\n+m=3\n");
  EXPECT_FALSE(machine.Exists("/etc/new.ini"));
  EXPECT_EQ(machine.Json({"ini", "set", "/etc/new.ini", "B", "m", "3"})["data"]["created"], true);
  EXPECT_EQ(machine.ReadFile("/etc/new.ini"), "\n[B]\n\nm=3\n");
  EXPECT_EQ(machine.Ravctl({"ini", "set", "--", "/etc/new.ini", "B", "m", "-5"}).out, "set: /etc/new.ini: [B] m\n");
  EXPECT_EQ(machine.Ravctl({"ini", "del", "/etc/new.ini", "B", "x", "--dry-run"}).out, "nothing would change\n");
}

TEST(Ini, RefusesWhatAReaderWouldNotGet) {
  struct Row {
    std::vector<std::string> arguments;
    int status;
    const char* err;
  };
  const std::string content = "[A]\nk=1\n i=1\nk=2\n [I]\nk=3\n[D]\nk=4\n[D]\nk=5\n";
  const Row rows[] = {
      {{"set", kFile, "A", "k", "1;2"}, 2, "ini set: a reader would not get this back: /etc/a.ini: [A] k=1;2 ("},
      {{"set", kFile, "A", "k", "1\n[X]"}, 2, "[A] k=1\\x0a[X] ("},
      {{"set", kFile, "A", "k", " 1"}, 2, "no blanks at the ends"},
      {{"set", kFile, "A", "k=l", "1"}, 2, "no = or leading [ in a key"},
      {{"set", kFile, "A", ";k", "1"}, 2, "reader would not get"},
      {{"set", kFile, "A;", "k", "1"}, 2, "reader would not get"},
      {{"set", kFile, "A", "k", std::string(1022, 'x')}, 2, "at most 1023 characters"},
      {{"set", kFile, "A", "i", "2"}, 5, "ini set: a reader finds it, but a writer does not: /etc/a.ini: [A] i ("},
      {{"set", kFile, "I", "k", "4"}, 5, "a writer does not: /etc/a.ini: [I] k ("},
      {{"del", kFile, "A", "i"}, 5, "ini del: a reader finds it, but a writer does not"},
      {{"del", kFile, "I"}, 5, "a writer does not: /etc/a.ini: [I] ("},
      {{"del", kFile, "A", "nix"}, 1, ""},
      {{"del", "/etc/no.ini", "A"}, 4, "ini del: cannot read: /etc/no.ini: No such file or directory (check the path)"},
      {{"set", "/no/a.ini", "A", "k", "1"}, 4, "ini set: cannot make a file in: /no: No such file or directory ("},
      {{"set", "/etc", "A", "k", "1"}, 4, "ini set: cannot read: /etc: Is a directory"},
      {{"set", kFile, "A", "k", "9", "--sysroot", "/"}, 2, "--sysroot /"},
  };
  const ToolRoot machine;
  machine.WriteFile(kFile, content);
  for (const Row& row : rows) {
    std::vector<std::string> arguments{"ini"};
    arguments.insert(arguments.end(), row.arguments.begin(), row.arguments.end());
    const ToolResult result = machine.Ravctl(arguments);
    EXPECT_EQ(result.status, row.status) << row.err << result.err;
    EXPECT_THAT(result.err, HasSubstr(row.err));
    EXPECT_EQ(machine.ReadFile(kFile), content) << row.err;
  }
  EXPECT_EQ(machine.Ravctl({"ini", "del", kFile, "A", "k"}).err,
            "ravctl: warning: a further key of that name is read now: /etc/a.ini: [A] k=2 (delete it as well)\n");
  EXPECT_THAT(machine.Ravctl({"ini", "del", kFile, "D"}).err, HasSubstr("a further section of that name is read now"));
}

TEST(Ini, AnOrdinaryUserIsToldWhatNeedsRoot) {
  if (::geteuid() != 0) GTEST_SKIP() << "only root can become another user";
  if (kSanitized) GTEST_SKIP() << "another user's instrumented program does not find its own process";
  constexpr uid_t kNobody = 65534;
  const ToolRoot machine;
  machine.WriteFile(kFile, kPlain);
  machine.WriteFile("/etc/secret.ini", kPlain, 0600);
  machine.Run(
      [&] {
        EXPECT_EQ(RunAs(kNobody, {"ini", "get", kFile, "One", "a"}), 0);
        EXPECT_EQ(RunAs(kNobody, {"ini", "get", "/etc/secret.ini", "One", "a", "--default", "1"}), 3);
        EXPECT_EQ(RunAs(kNobody, {"ini", "set", kFile, "One", "a", "2", "--dry-run"}), 0);
        EXPECT_THAT(ReadWholeFile("/tmp/out.err"), HasSubstr("the real run would fail: /etc/a.ini: Permission denied"));
        EXPECT_EQ(RunAs(kNobody, {"ini", "set", kFile, "One", "a", "2"}), 3);
        EXPECT_EQ(ReadWholeFile("/tmp/out.err"),
                  "ravctl: ini set: cannot write: /etc/a.ini: Permission denied (needs root)\n");
        EXPECT_EQ(RunAs(kNobody, {"ini", "set", "/etc/new.ini", "One", "a", "2"}), 3);
        EXPECT_EQ(RunAs(kNobody, {"ini", "set", "/tmp/own.ini", "One", "a", "2"}), 0);
      },
      FixtureRoot::kUsr);
  EXPECT_EQ(machine.ReadFile(kFile), kPlain);
  EXPECT_FALSE(machine.Exists("/etc/new.ini"));
}

TEST(Ini, TheOldFileOutlivesAFullOrReadOnlyDisk) {
  const ToolRoot machine;
  machine.MakeDirectory("/full");
  machine.Run(
      [&] {
        ASSERT_EQ(::mount("none", "/full", "tmpfs", 0, "size=8k"), 0);
        const std::string content =
            "[A]\nk=" + std::string(600, 'x') + "\n; " + std::string(3400, 'c') + "\n[B]\nl=1\n";
        for (const auto& [path, text] : {std::pair{"/full/a.ini", content}, {"/full/filler", std::string(4000, 'f')}}) {
          std::FILE* file = std::fopen(path, "we");
          ASSERT_EQ(std::fwrite(text.data(), 1, text.size(), file), text.size());
          ASSERT_EQ(std::fclose(file), 0);
        }
        const std::string longer(900, 'y');
        EXPECT_EQ(RunAs(0, {"ini", "set", "/full/a.ini", "A", "k", longer}), 4);
        EXPECT_EQ(ReadWholeFile("/tmp/out.err"),
                  "ravctl: ini set: cannot write: /full/a.ini: no space is left (the file is as it was)\n");
        EXPECT_EQ(ReadWholeFile("/full/a.ini"), content);
        EXPECT_EQ(RunAs(0, {"ini", "set", "/full/new.ini", "A", "k", "1"}), 4);
        EXPECT_NE(::access("/full/new.ini", F_OK), 0);
        // Not even what needs no more room: only a whole new file replaces the old one.
        EXPECT_EQ(RunAs(0, {"ini", "set", "/full/a.ini", "B", "l", "2"}), 4);
        EXPECT_EQ(ReadWholeFile("/full/a.ini"), content);

        ASSERT_EQ(::mount("none", "/full", nullptr, MS_REMOUNT | MS_RDONLY, nullptr), 0);
        EXPECT_EQ(RunAs(0, {"ini", "set", "/full/a.ini", "B", "l", "3"}), 4);
        EXPECT_THAT(ReadWholeFile("/tmp/out.err"), HasSubstr("cannot write: /full/a.ini: Read-only file system"));
      },
      FixtureRoot::kUsr);
  // No place for the private copy: nothing is written.
  machine.WriteFile(kFile, kPlain);
  EXPECT_EQ(machine.Ravctl({"ini", "set", kFile, "One", "a", "2"}, {"TMPDIR=/no"}).status, 4);
  EXPECT_EQ(machine.ReadFile(kFile), kPlain);
}
