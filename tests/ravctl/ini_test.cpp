// The ini commands of the built tool.

#include <sys/mount.h>

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

// The exit status of the tool for the user, inside a root, and what it said.
int RunAs(uid_t user, const CommandLine& words) {
  const pid_t child = ::fork();
  if (child == 0) {
    if (user != 0 && (::setgid(user) != 0 || ::setuid(user) != 0)) ::_exit(99);
    ::_exit(RunRavctl(words).status);
  }
  return WaitForRavctl(child).status;
}

}  // namespace

TEST(Ini, GetAndSections) {
  const ToolRoot machine;
  machine.WriteFile(kFile, std::string(kPlain) + "e=\x1b[31m\xff\n[One]\na=2\n");
  for (const auto& [words, out] : std::map<std::string, std::string>{
           {"/etc/a.ini One b", "two words"},
           {"/etc/a.ini One a --default 9", "1"},
           {"/etc/a.ini One empty", ""},
           {"/etc/a.ini One empty --default 9", "9"},
           {"/etc/a.ini Two e", "\\x1b[31m\\xff"},
           {"/etc/a.ini Two e --raw", "\x1b[31m\xff"},
           {"/no One a --default 9", "9"},
       }) {
    const ToolResult result = machine.Ravctl("ini get " + words);
    EXPECT_EQ(std::to_string(result.status) + result.out + result.err, "0" + out + "\n") << words;
  }
  const Fault faults[] = {
      {"/etc/a.ini One aa", 1, "warning: no such key: /etc/a.ini: [One] aa (did you mean a?)"},
      {"/etc/a.ini Ohne a", 1, "warning: no such section: /etc/a.ini: [Ohne] (did you mean [One]?)"},
      {"/no One a", 4, "ini get: cannot read: /no: No such file or directory (check the path)"},
      {"/dev/null One a", 4, "ini get: cannot read: /dev/null: Operation not supported"},
      {"/etc/a.ini One", 2, "KEY is required: ini get (see ravctl ini get --help)"},
  };
  ExpectFaults(machine, "ini get", faults);
  EXPECT_EQ(machine.Json("ini get /etc/a.ini One nix", 1)["data"]["source"], "none");
  const nlohmann::json sections = machine.Json("ini sections /etc/a.ini")["data"];
  EXPECT_EQ(sections[0], nlohmann::json({{"section", "One"}, {"line", 2}, {"keys", 3}, {"read", true}}));
  EXPECT_EQ(sections[2], nlohmann::json({{"section", "One"}, {"line", 12}, {"keys", 1}, {"read", false}}));
  EXPECT_EQ(machine.Json("ini sections /etc/a.ini --keys")["data"].size(), 6U);
}

// What is said to be read is what the library reads.
TEST(Ini, SectionsAgreeWithTheLibrary) {
  const ToolRoot machine;
  machine.WriteFile(kFile, Zeros("x=0\n [A] ; c\nk=1\n\tk = 2\n[B\nl=1\n[A]\nm=1\n[a]b]\nn=@1\n[C]\r\no=1;2\r\n" +
                                 std::string(1023, 'z') + "[D]\np=1\n\xff=\xfe"));
  const nlohmann::json keys = machine.Json("ini sections /etc/a.ini --keys")["data"];
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
  // Status; place in the file, severity and kind of each finding.
  const std::tuple<std::string, int, const char*> rows[] = {
      {kPlain, 0, ""},
      {"", 0, ""},
      {"Words to the reader; and more\n[A]\nk=1\n", 1, ":1, note, stray\n"},
      {"k=1\n[A]\nlost\n[B\nk=2\n", 5, ":1, bad, orphan\n:3, bad, stray\n:4, bad, header\n:5, bad, orphan\n"},
      {"[A]\nk=" + std::string(1021, 'x') + "\n", 0, ""},
      {"[A]\nk=" + std::string(1022, 'x') + "\n", 5, ":2, bad, long\n"},
      {Zeros("[A]\n@\nk=1@2\n"), 5, ":2, bad, nul\n:3, bad, nul\n"},
      {"[A]\nk=1\nk=2\n[A]\nk=3\n", 1, ":3, note, key\n:4, note, section\n"},
      {"[A] ; c\n k=1", 1, ":1, note, writer\n:2, note, writer\n:2, note, end\n"},
      {"[A]\r\n; c\r\nk=1\n", 1, ":1, note, crlf\n"},
  };
  const ToolRoot machine;
  for (const auto& [content, status, expected] : rows) {
    machine.WriteFile(kFile, content);
    std::string findings;
    const nlohmann::json answer = machine.Json("ini check /etc/a.ini", status);
    for (const nlohmann::json& finding : answer["data"])
      findings += Members(finding, "place severity check").substr(std::string_view(kFile).size()) + '\n';
    EXPECT_EQ(findings, expected) << content;
  }
  machine.WriteFile(kFile, "[A]\nk=1\n\x1b[2Jk=2\nk=3\n");
  EXPECT_THAT(machine.Ravctl("ini check /etc/a.ini").out, HasSubstr("k again: that of line 2 is read"));
  machine.WriteFile(kFile, "[A]\n\x1b[2J\n");
  EXPECT_THAT(machine.Ravctl("ini check /etc/a.ini").out, HasSubstr("neither section, key nor comment: \\x1b[2J"));
  EXPECT_EQ(machine.Ravctl("ini check /no").status, 4);
}

// The file stays as it is with --dry-run, and the diff makes of it what the run without writes.
TEST(Ini, DryRunShowsWhatTheRunWrites) {
  struct Row {
    std::string content;
    CommandLine words;
    bool isChange = true;
  };
  const std::string crlf = Zeros("[A]\r\nk=\xff@\x1b\r\n[B]\n\tx\n\n; of k\nk=1\n; of C\n[C]\nz=1");
  const Row rows[] = {
      {kPlain, "set /etc/a.ini One a one"},
      {kPlain, "set /etc/a.ini One b x=y"},
      {kPlain, "set /etc/a.ini One new 1"},
      {kPlain, "set /etc/a.ini Three new ''"},
      {kPlain, "set /etc/a.ini Two c 3", false},
      {kPlain, "del /etc/a.ini One b"},
      {kPlain, "del /etc/a.ini One"},
      {kPlain, "del /etc/a.ini Two"},
      {"", "set /etc/a.ini A k 1"},
      {"[A]\nk=1\n", "del /etc/a.ini A"},
      {crlf, "set /etc/a.ini B k \xf0"},
      {crlf, "set /etc/a.ini C y \x1b"},
      {crlf, "set /etc/a.ini D y 2"},
      {crlf, "del /etc/a.ini C z"},
  };
  const ToolRoot machine;
  for (const Row& row : rows) {
    machine.WriteFile(kFile, row.content, 0640);
    const CommandLine real = CommandLine("ini") + row.words;
    const CommandLine dry = real + "--dry-run --raw";
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
  EXPECT_EQ(machine.Ravctl("ini set /etc/a.ini A k 1 --dry-run").status, 0);
  machine.WriteFile(kFile, "[A]\n\nk=\x1b\nl=2");
  EXPECT_EQ(machine.Ravctl("ini set /etc/a.ini B m 3 --dry-run").out,
            "--- /etc/a.ini\n+++ /etc/a.ini\n@@ -1,4 +1,8 @@\n [A]\n \n k=\\x1b\n-l=2\n\\ No newline at end of file\n"
            "+l=2\n+\n+[B]\n+\n+m=3\n");
  EXPECT_EQ(machine.Ravctl("ini set /etc/new.ini B m 3 --dry-run").out,
            "--- /dev/null\n+++ /etc/new.ini\n@@ -0,0 +1,4 @@\n+\n+[B]\n+\n+m=3\n");
  EXPECT_FALSE(machine.Exists("/etc/new.ini"));
  EXPECT_EQ(machine.Json("ini set /etc/new.ini B m 3")["data"]["created"], true);
  EXPECT_EQ(machine.ReadFile("/etc/new.ini"), "\n[B]\n\nm=3\n");
  EXPECT_EQ(machine.Ravctl("ini set -- /etc/new.ini B m -5").out, "set: /etc/new.ini: [B] m\n");
  EXPECT_EQ(machine.Ravctl("ini del /etc/new.ini B x --dry-run").out, "nothing would change\n");
}

TEST(Ini, RefusesWhatAReaderWouldNotGet) {
  const std::string content = "[A]\nk=1\n i=1\nk=2\n [I]\nk=3\n[D]\nk=4\n[D]\nk=5\n";
  const Fault faults[] = {
      {"set /etc/a.ini A k 1;2", 2, "ini set: a reader would not get this back: /etc/a.ini: [A] k=1;2 (..."},
      {"set /etc/a.ini A k '1\n[X]'", 2, "...[A] k=1\\x0a[X] (..."},
      {"set /etc/a.ini A k ' 1'", 2, "...no blanks at the ends..."},
      {"set /etc/a.ini A k=l 1", 2, "...no = or leading [ in a key..."},
      {"set /etc/a.ini A ;k 1", 2, "...reader would not get..."},
      {"set /etc/a.ini A; k 1", 2, "...reader would not get..."},
      {"set /etc/a.ini A k " + std::string(1022, 'x'), 2, "...at most 1023 characters..."},
      {"set /etc/a.ini A i 2", 5, "ini set: a reader finds it, but a writer does not: /etc/a.ini: [A] i (..."},
      {"set /etc/a.ini I k 4", 5, "...a writer does not: /etc/a.ini: [I] k (..."},
      {"del /etc/a.ini A i", 5, "ini del: a reader finds it, but a writer does not..."},
      {"del /etc/a.ini I", 5, "...a writer does not: /etc/a.ini: [I] (..."},
      {"del /etc/no.ini A", 4, "ini del: cannot read: /etc/no.ini: No such file or directory (check the path)"},
      {"set /no/a.ini A k 1", 4, "ini set: cannot make a file in: /no: No such file or directory (..."},
      {"set /etc A k 1", 4, "ini set: cannot read: /etc: Is a directory..."},
      {"set /etc/a.ini A k 9 --sysroot /", 2, "...--sysroot /..."},
  };
  const ToolRoot machine;
  machine.WriteFile(kFile, content);
  ExpectFaults(machine, "ini", faults);
  EXPECT_EQ(machine.Ravctl("ini del /etc/a.ini A nix").status, 1);
  EXPECT_EQ(machine.ReadFile(kFile), content);
  EXPECT_EQ(machine.Ravctl("ini del /etc/a.ini A k").err,
            "ravctl: warning: a further key of that name is read now: /etc/a.ini: [A] k=2 (delete it as well)\n");
  EXPECT_THAT(machine.Ravctl("ini del /etc/a.ini D").err, HasSubstr("a further section of that name is read now"));
}

TEST(Ini, AnOrdinaryUserIsToldWhatNeedsRoot) {
  if (::geteuid() != 0) GTEST_SKIP() << "only root can become another user";
  if (kSanitized) GTEST_SKIP() << "another user's instrumented program does not find its own process";
  constexpr uid_t kNobody = 65534;
  const ToolRoot machine;
  machine.WriteFile(kFile, kPlain);
  machine.WriteFile("/etc/secret.ini", kPlain, 0600);
  machine.Run(FixtureRoot::kUsr, [&] {
    EXPECT_EQ(RunAs(kNobody, "ini get /etc/a.ini One a"), 0);
    EXPECT_EQ(RunAs(kNobody, "ini get /etc/secret.ini One a --default 1"), 3);
    EXPECT_EQ(RunAs(kNobody, "ini set /etc/a.ini One a 2 --dry-run"), 0);
    EXPECT_THAT(ReadWholeFile("/tmp/out.err"), HasSubstr("the real run would fail: /etc/a.ini: Permission denied"));
    EXPECT_EQ(RunAs(kNobody, "ini set /etc/a.ini One a 2"), 3);
    EXPECT_EQ(ReadWholeFile("/tmp/out.err"),
              "ravctl: ini set: cannot write: /etc/a.ini: Permission denied (needs root)\n");
    EXPECT_EQ(RunAs(kNobody, "ini set /etc/new.ini One a 2"), 3);
    EXPECT_EQ(RunAs(kNobody, "ini set /tmp/own.ini One a 2"), 0);
  });
  EXPECT_EQ(machine.ReadFile(kFile), kPlain);
  EXPECT_FALSE(machine.Exists("/etc/new.ini"));
}

TEST(Ini, TheOldFileOutlivesAFullOrReadOnlyDisk) {
  const ToolRoot machine;
  machine.MakeDirectory("/full");
  machine.Run(FixtureRoot::kUsr, [&] {
    ASSERT_EQ(::mount("none", "/full", "tmpfs", 0, "size=8k"), 0);
    const std::string content = "[A]\nk=" + std::string(600, 'x') + "\n; " + std::string(3400, 'c') + "\n[B]\nl=1\n";
    for (const auto& [path, text] : {std::pair{"/full/a.ini", content}, {"/full/filler", std::string(4000, 'f')}}) {
      std::FILE* file = std::fopen(path, "we");
      ASSERT_EQ(std::fwrite(text.data(), 1, text.size(), file), text.size());
      ASSERT_EQ(std::fclose(file), 0);
    }
    const std::string longer(900, 'y');
    EXPECT_EQ(RunAs(0, "ini set /full/a.ini A k " + longer), 4);
    EXPECT_EQ(ReadWholeFile("/tmp/out.err"),
              "ravctl: ini set: cannot write: /full/a.ini: no space is left (the file is as it was)\n");
    EXPECT_EQ(ReadWholeFile("/full/a.ini"), content);
    EXPECT_EQ(RunAs(0, "ini set /full/new.ini A k 1"), 4);
    EXPECT_NE(::access("/full/new.ini", F_OK), 0);
    // Not even what needs no more room: only a whole new file replaces the old one.
    EXPECT_EQ(RunAs(0, "ini set /full/a.ini B l 2"), 4);
    EXPECT_EQ(ReadWholeFile("/full/a.ini"), content);

    ASSERT_EQ(::mount("none", "/full", nullptr, MS_REMOUNT | MS_RDONLY, nullptr), 0);
    EXPECT_EQ(RunAs(0, "ini set /full/a.ini B l 3"), 4);
    EXPECT_THAT(ReadWholeFile("/tmp/out.err"), HasSubstr("cannot write: /full/a.ini: Read-only file system"));
  });
  // No place for the private copy: nothing is written.
  machine.WriteFile(kFile, kPlain);
  EXPECT_EQ(machine.Ravctl("ini set /etc/a.ini One a 2", {"TMPDIR=/no"}).status, 4);
  EXPECT_EQ(machine.ReadFile(kFile), kPlain);
}
