// The rules that every command keeps.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "ravctl/base/text.h"
#include "ravctl/ravctl_runner.h"

using ::testing::HasSubstr;

TEST(Text, BytesFromOutsideAreShown) {
  EXPECT_EQ(ravctl::Printable("a\tb\x1b[0m\x7f"), "a\\x09b\\x1b[0m\\x7f");
  EXPECT_EQ(ravctl::Printable("gr\xc3\xb6\xc3\x9f"), "gr\xc3\xb6\xc3\x9f");
  EXPECT_EQ(ravctl::Printable("\xc2\x9b"
                              "31m"),
            "\\xc2\\x9b"
            "31m");  // an 8-bit control sequence
  for (const char* bad : {"\xff", "\xc3", "\xc0\x80", "\xed\xa0\x80", "\xf4\x90\x80\x80", "\xe2\x82"}) {
    EXPECT_TRUE(ravctl::IsPrintable(ravctl::Printable(bad))) << ravctl::Printable(bad);
    EXPECT_TRUE(ravctl::IsPrintable(ravctl::ValidUtf8(bad))) << ravctl::ValidUtf8(bad);
  }
  std::string json;
  ravctl::AppendJsonString(json, "\"\\\n\xff");
  EXPECT_EQ(json, "\"\\\"\\\\\\u000a\\\\xff\"");
}

TEST(CommandLine, FaultsAreOneLineWithTheirStatus) {
  struct Row {
    std::vector<std::string> arguments;
    int status;
    const char* line;
  };
  const Row rows[] = {
      {{"docter"}, 2, "ravctl: unknown command: docter (did you mean doctor?)\n"},
      {{"daemon", "sttus"}, 2, "ravctl: unknown command: sttus (did you mean status?)\n"},
      {{"daemon"}, 2, "ravctl: a command is missing: ravctl daemon (one of status; see ravctl daemon --help)\n"},
      {{"doctor", "--jsn"}, 2, "ravctl: unknown option: --jsn (did you mean --json?)\n"},
      {{"doctor", "more"}, 2, "ravctl: unexpected word: more (see ravctl doctor --help)\n"},
      {{"doctor", "-o", "chek"}, 2, "ravctl: doctor: no such column: chek (did you mean check?)\n"},
      {{"daemon", "status", "--color=no"},
       2,
       "ravctl: --color: no not in {auto,always,never}: daemon status (see ravctl daemon status --help)\n"},
  };
  const ToolRoot machine;
  for (const Row& row : rows) {
    const ToolResult result = machine.Ravctl(row.arguments);
    EXPECT_EQ(result.status, row.status) << row.line;
    EXPECT_EQ(result.err, row.line);
    EXPECT_EQ(result.out, "") << row.line;
  }
}

TEST(CommandLine, ColumnsHeadingsAndColors) {
  const ToolRoot machine;
  const ToolResult plain = machine.Ravctl({"doctor", "-o", "check,severity", "--no-headings"});
  EXPECT_THAT(plain.out, HasSubstr("daemon   warning\n"));
  EXPECT_THAT(machine.Ravctl({"doctor", "--color=always"}).out, HasSubstr("\x1b[33mwarning"));
  EXPECT_THAT(machine.Ravctl({"daemon", "status", "--help"}).out, HasSubstr("Examples:\n  ravctl daemon status\n"));
}

TEST(DaemonStatus, TellsThatItDoesNotRun) {
  const ToolRoot machine;
  EXPECT_EQ(machine.Json({"daemon", "status"}, 6)["data"]["running"], false);
  // What is left of a daemon names a process that is none.
  machine.WriteFile("/var/run/ravd.pid", "1\n");
  EXPECT_EQ(machine.Json({"daemon", "status"}, 6, {}, FixtureRoot::kProc)["data"]["pid"], nullptr);
}

TEST(Doctor, OneLineAFinding) {
  const ToolRoot machine;
  const nlohmann::json answer = machine.Json({"doctor"}, 1);
  EXPECT_EQ(answer["data"][0]["place"], "/var/run/ravd.pid");
  EXPECT_EQ(answer["data"][0]["severity"], "warning");
}
