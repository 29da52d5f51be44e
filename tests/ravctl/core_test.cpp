// The rules that every command keeps.

#include <poll.h>
#include <sys/mount.h>

#include "ravctl/answer/json.h"
#include "ravctl/base/child.h"
#include "ravctl/base/gzip.h"
#include "ravctl/base/text.h"
#include "ravctl/commands/all_commands.h"
#include "ravctl/daemon/service_check.h"
#include "ravctl/json_schema.h"
#include "ravctl/ravctl_runner.h"
#include "ravctl/trace/last_crash.h"

using ::testing::AllOf, ::testing::HasSubstr, ::testing::StartsWith;

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

// Of every command that needs nothing on the machine to fail.
TEST(CommandLine, FaultsAreOneLineWithTheirStatus) {
  const Fault faults[] = {
      {"docter", 2, "unknown command: docter (did you mean doctor?)"},
      {"daemon sttus", 2, "unknown command: sttus (did you mean status?)"},
      {"daemon", 2, "a command is missing: ravctl daemon (one of status; see ravctl daemon --help)"},
      {"doctor --jsn", 2, "unknown option: --jsn (did you mean --json?)"},
      {"doctor more", 2, "unexpected word: more (see ravctl doctor --help)"},
      {"doctor -o chek", 2, "doctor: no such column: chek (did you mean check?)"},
      {"daemon status --color=no", 2,
       "--color: no not in {auto,always,never}: daemon status (see ravctl daemon status --help)"},
      {"net lst", 2, "unknown command: lst (did you mean list?)"},
      {"net list -o adresses", 2, "net list: no such column: adresses (did you mean addresses?)"},
      {"net host-ip -4 -6", 2, "--ipv4 excludes --ipv6: net host-ip (see ravctl net host-ip --help)"},
      {"net list --rates=0", 2, "--rates..."},
      {"net list --rates=-1", 2, "--rates..."},
      {"net list --rates=x", 2, "--rates..."},
      {"perf --interval=0", 2, "--interval..."},
      {"perf --interval=x", 2, "--interval..."},
      {"perf --count=-1", 2, "--count..."},
      {"bundle", 2, "OUT is required: bundle (see ravctl bundle --help)"},
      {"bundle /old.tgz", 2, "bundle: the file exists and is not overwritten: /old.tgz (choose another name)"},
      {"bundle /x.zip", 2, "bundle: the name does not tell the packing: /x.zip (end it in .tar.gz or .tar.zst)"},
      {"bundle /no/x.tgz", 4,
       "bundle: cannot create the bundle: /no/x.tgz: No such file or directory (check the path)"},
      {"report", 2, "--out is required: report (see ravctl report --help)"},
      {"report -o /old.tgz", 2, "report: the file exists and is not overwritten: /old.tgz (choose another name)"},
      {"report /no -o /x.html", 4, "report: cannot open the tree: /no: No such file or directory (check the path)"},
      {"doctor --sysroot", 2, "--sysroot: 1 required TREE missing: doctor (see ravctl doctor --help)"},
      {"doctor --sysroot /no", 4, "doctor: cannot open the tree: /no: No such file or directory (check the path)"},
      {"doctor --sysroot /dev/null", 4,
       "doctor: neither a directory nor a bundle: /dev/null (see ravctl bundle --help)"},
      {"--sysroot /tmp trace level 3", 2,
       "trace level: it does more than read a captured tree: --sysroot /tmp (leave the option out)"},
      {"--sysroot /tmp bundle /x.tgz", 2,
       "bundle: it does more than read a captured tree: --sysroot /tmp (leave the option out)"},
      {"slots", 1, "...no table of the firmware describes a slot..."},
      {"smbios list", 4,
       "smbios list: this machine has no SMBIOS data: /sys/firmware/dmi/tables/DMI (virtual machines may have none)"},
  };
  const ToolRoot machine;
  machine.WriteFile("/old.tgz", "old");
  ExpectFaults(machine, "", faults);
  EXPECT_EQ(machine.ReadFile("/old.tgz"), "old");
  EXPECT_FALSE(machine.Exists("/x.html"));
}

TEST(CommandLine, ColumnsHeadingsAndColors) {
  const ToolRoot machine;
  EXPECT_THAT(machine.Ravctl("doctor -o check,severity --no-headings").out, HasSubstr("daemon    warning\n"));
  EXPECT_THAT(machine.Ravctl("doctor --color=always").out, HasSubstr("\x1b[33mwarning"));
  EXPECT_THAT(machine.Ravctl("daemon status --help").out, HasSubstr("Examples:\n  ravctl daemon status\n"));
  // As wide as it may be, but for the command lines of examples.
  const std::string names = "\n  --redact                    Replace serial numbers,";
  EXPECT_THAT(machine.Ravctl("bundle --help").out, HasSubstr(names + " MAC and IP addresses, WWNs, UUIDs and host\n"));
  EXPECT_THAT(machine.Ravctl("bundle --help", {"COLUMNS=56"}).out,
              ::testing::AllOf(
                  HasSubstr(names + "\n                              MAC and IP addresses,\n"),
                  HasSubstr("\n      as root: everything but the traces; as another\n      user what is readable\n")));
  EXPECT_THAT(machine.Ravctl("doctor --help", {"COLUMNS=1"}).out, HasSubstr("\n  ravctl doctor --json | jq "));
}

TEST(CommandLine, CsvHoldsTheValuesAsTheyStand) {
  const ToolRoot machine;
  machine.WriteFile("/a.ini", "[a]\nk = one, \"two\"\n");
  EXPECT_EQ(machine.Ravctl("ini sections /a.ini --keys --csv -o key,value,line").out,
            "key,value,line\r\nk,\"one, \"\"two\"\"\",2\r\n");
  const ToolResult none = machine.Ravctl("registry export --csv");
  EXPECT_EQ(none.status, 2);
  EXPECT_EQ(none.err, "ravctl: registry export: the answer is no table: --csv (leave the option out)\n");
}

// A key that is described twice, or a command whose answers are not, would go unnoticed.
TEST(Schemas, EveryCommandDescribesItsAnswers) {
  const ToolRoot machine;
  ravctl::Command root({"ravctl", ""}, "");
  ravctl::AddAllCommands(root);
  const std::function<void(ravctl::Fields)> check = [&check](ravctl::Fields fields) {
    std::set<std::string_view> keys;
    for (const ravctl::Field& field : fields) {
      EXPECT_TRUE(keys.insert(field.key).second && !field.meaning.empty()) << field.key;
      check(field.type.fields);
    }
  };
  const std::function<void(const ravctl::Command&)> walk = [&](const ravctl::Command& command) {
    EXPECT_EQ(command.Answers().empty(), command.IsGroup()) << command.FullName();
    for (const ravctl::Schema* schema : command.Answers())
      check(schema->data.fields), check(schema->Columns());
    for (const ravctl::Command& below : command.Below())
      walk(below);
  };
  walk(root);
  const auto schema = nlohmann::json::parse(machine.Ravctl("schema trace-list").out);
  EXPECT_EQ(Members(schema, "properties/schema/const properties/data/items/required/0 title"),
            "ravctl/trace-list, run, ravctl trace list");
  EXPECT_EQ(SchemaFault(nlohmann::json::parse(R"({"schema": "ravctl/trace-list", "version": 1})"), schema),
            ": lacks \"warnings\"");
  EXPECT_EQ(machine.Json("schema pci")["data"]["title"], "ravctl pci");
  EXPECT_THAT(machine.Ravctl("ini sections --list-columns").out, HasSubstr("\nline    yes   where it begins\n"));
}

TEST(DaemonStatus, TellsThatItDoesNotRun) {
  const ToolRoot machine;
  EXPECT_EQ(machine.Json("daemon status", 6)["data"]["running"], false);
  // What is left of a daemon names a process that is none.
  machine.WriteFile("/var/run/ravd.pid", "1\n");
  EXPECT_EQ(machine.Json("daemon status", 6, {}, FixtureRoot::kProc)["data"]["pid"], nullptr);

  // One that was killed and that nobody has reaped is none either; memory is in units of 1024 bytes.
  const std::string times = " 1 1 1 0 -1 4194560 1 0 0 0 1 1 0 0 20 0 1 0 900 1 1 1\n";
  machine.WriteFile("/proc/stat", "cpu 1\nbtime 1700000000\n");
  machine.WriteFile("/proc/1/comm", "ravd\n");
  machine.WriteFile("/proc/1/status", "Name:\travd\nVmRSS:\t    5120 kB\nThreads:\t3\n");
  machine.WriteFile("/proc/1/stat", "1 (ravd) S" + times);
  EXPECT_EQ(Members(machine.Json("daemon status")["data"], "pid resident_kb threads"), "1, 5120, 3");
  machine.WriteFile("/proc/1/stat", "1 (ravd) Z" + times);
  EXPECT_EQ(machine.Json("daemon status", 6)["data"]["pid"], nullptr);
}

// What the work starts is in a session of its own; a pipe that all inherit ends when none of them is left.
TEST(KeptChild, LeavesNothingThatItStarted) {
  enum class End { kByItself, kTimeout, kCommandKilled };
  for (const End end : {End::kByItself, End::kTimeout, End::kCommandKilled}) {
    int ends[2] = {-1, -1};
    ASSERT_EQ(::pipe(ends), 0);
    const auto tell = [&ends](char byte) { EXPECT_EQ(::write(ends[1], &byte, 1), 1); };
    const auto work = [&](int) {
      const pid_t stray = ::fork();
      if (stray == 0 && ::setsid() > 0) ::pause();
      while (::getsid(stray) != stray)
        ::usleep(1000);
      tell('s');
      if (end != End::kByItself) ::pause();
      return 7;
    };
    const pid_t command = ::fork();
    if (command == 0) {
      const ravctl::ChildResult result =
          ravctl::KeptChild(work, [&tell] { tell('i'); }).Wait(end == End::kTimeout ? 1 : 3600);
      ::_exit(result.isTimeout ? result.signal : result.status);
    }
    ::close(ends[1]);
    char byte = 0;
    EXPECT_TRUE(::read(ends[0], &byte, 1) == 1 && byte == 's');
    if (end == End::kCommandKilled) ::kill(command, SIGKILL);
    int status = 0;
    ::waitpid(command, &status, 0);
    EXPECT_EQ(WEXITSTATUS(status), end == End::kByItself ? 7 : end == End::kTimeout ? SIGKILL : 0);
    std::string told;
    pollfd all{ends[0], POLLIN, 0};
    while (::poll(&all, 1, 20000) == 1 && ::read(ends[0], &byte, 1) == 1)
      told += byte;
    EXPECT_NE(all.revents, 0);
    EXPECT_EQ(told, end == End::kCommandKilled ? "i" : "");
    ::close(ends[0]);
  }
}

TEST(Doctor, OneLineAFinding) {
  const ToolRoot machine;
  const nlohmann::json answer = machine.Json("doctor");
  EXPECT_EQ(answer["data"][0]["place"], "/var/run/ravd.pid");
  EXPECT_EQ(answer["data"][0]["severity"], "warning");

  // Damage behind as many notes as a check lists.
  std::string registry;
  for (int note = 0; note < 1000; ++note)
    registry += "N" + std::to_string(note) + "=d=+1\n";
  machine.WriteFile("/etc/pelrix/registry", registry + "nothing\n\n");
  const std::string text = machine.Ravctl("doctor").out;
  EXPECT_THAT(text, HasSubstr("more: 1 further findings"));
}

// By the kernel's line, whatever stands around it.
TEST(LastCrash, LineOfTheKernel) {
  const std::string fault = "ravd[4711]: segfault at 0 ip 00007f0000001139 sp 00007ffe00000000 error 4 in ";
  const std::pair<std::string, const char*> rows[] = {
      {"Nov 25 02:45:22 host kernel: [  12.5] " + fault +
           "libx.so[7f0000001000+1000] likely on CPU 1 (core 0, socket 0)",
       "libx.so at 0x139 of its mapping"},
      {fault + "lib x.so[2139,7f0000001000+1000]", "lib x.so at 0x2139"},
      {"traps: ravd[4711] general protection fault ip:7f0000001139 sp:7ffe00000000 error:0 in libx.so[7f0000001000+1000]",
       "libx.so at 0x139 of its mapping"},
      {"x" + fault + "libx.so[7f0000001000+1000]", ""},
      {fault + "libx.so[7f0000001000+139]", ""},  // the instruction is not in it
      {fault + "libx.so[7f0000002000+1000]", ""},
      {fault + "libx.so[g,7f0000001000+1000]", ""},
      {fault + "libx.so[7f0000001000+10000000000000000]", ""},
      {fault + std::string(256, 'x') + "[7f0000001000+1000]", ""},
      {fault + std::string(2000, 'x') + "[7f0000001000+1000]", ""},
      {"ravd[4711]: segfault at 0 ip 0000000000000000 sp 00007ffe00000000 error 14", ""},
      {"ravd[99999999999]: segfault at 0 ip 7f0000001139 sp 0 error 4 in libx.so[7f0000001000+1000]", ""},
  };
  for (const auto& [line, place] : rows) {
    const auto crash = ravctl::ParseCrashLine(line);
    EXPECT_EQ(crash ? crash->place : "", place) << line;
    EXPECT_EQ(crash ? crash->thread : 4711, 4711U) << line;
    for (size_t length = 0; length < line.size(); ++length)
      ravctl::ParseCrashLine(std::string_view(line).substr(0, length));
  }
}

TEST(LastCrash, StatusAndDoctorTellOfIt) {
  const ToolRoot machine;
  EXPECT_EQ(machine.Json("daemon status", 6)["data"]["last_crash"], nullptr);
  const std::string kept = "/var/log/pelrix/crash-20261125T024523Z";
  const std::string line = ": segfault at 0 ip 1139 sp 0 error 4 in ";
  machine.WriteFile("/var/log/pelrix/crash-20261124T024523Z/exit", "result=timeout\nsignal=ABRT\n");
  machine.WriteFile(kept + "/exit", "result=core-dump\nstatus=\nsignal=SEGV\npid=4711\n");
  // The library is that of the process, not of another one.
  machine.WriteFile("/var/log/kern.log",
                    "ravd[4711]" + line + "libx.so[1000+1000]\nravd[4712]" + line + "y[1000+1000]\n");
  const std::string text = "crashed 2026-11-25 02:45:23 by SEGV (core-dump)";
  EXPECT_EQ(Members(machine.Json("daemon status", 6)["data"], "last_crash last_crash_trace"),
            text + ", in libx.so at 0x139 of its mapping, " + kept);
  const nlohmann::json doctor = machine.Json("doctor")["data"];
  const auto finding = std::ranges::find_if(doctor, [](const auto& row) { return row["check"] == "crash"; });
  ASSERT_NE(finding, doctor.end());
  EXPECT_THAT(Members(*finding, "severity place finding"),
              AllOf(StartsWith("warning, " + kept + ", "), HasSubstr(text + ", in libx.so at 0x139")));
  // A bundle has the lines of the kernel and the state of the unit with it.
  machine.WriteFile("/tree" + kept + "/exit", "result=core-dump\nsignal=SEGV\npid=4711\n");
  machine.WriteFile("/tree/ravctl/kernel.txt", "ravd[4713]" + line + "libx.so[1000+1000]\n");
  machine.WriteFile("/tree/ravctl/unit.txt", "LoadState=loaded\nActiveState=failed\nResult=core-dump\n");
  EXPECT_EQ(machine.Json("daemon status --sysroot /tree", 6)["data"]["last_crash"],
            text + ", in libx.so at 0x139 of its mapping");
  EXPECT_THAT(machine.Json("doctor --sysroot /tree", 1)["data"].dump(), HasSubstr("failed: core-dump"));
  // Nothing tells where.
  machine.WriteFile("/var/log/kern.log", "ravd[471]" + line + "libx.so[1000+1000]\n");
  EXPECT_EQ(machine.Json("daemon status", 6)["data"]["last_crash"], text);
  machine.WriteFile(kept + "/exit", "result=exit-code\nstatus=1\nsignal=\npid=471\n");
  EXPECT_EQ(machine.Json("daemon status", 6)["data"]["last_crash"],
            "ended 2026-11-25 02:45:23 with status 1 (exit-code)");
}

// What draws the tables never ended on a character that the locale does not have.
TEST(Tables, CharactersInAnyLocale) {
  const ToolRoot machine;
  machine.WriteFile("/a.ini", "[Gr\xc3\xb6\xc3\x9f]\na=1\n");
  for (const char* locale : {"LC_ALL=C", "LC_ALL=none"})
    EXPECT_THAT(machine.Ravctl("ini sections /a.ini", {locale}).out, HasSubstr("\nGr\xc3\xb6\xc3\x9f ")) << locale;
  machine.Run(FixtureRoot::kUsr, [] {
    ASSERT_EQ(::mount("none", "/usr/lib/locale", "tmpfs", 0, nullptr), 0);
    EXPECT_THAT(RunRavctl("ini sections /a.ini").out, HasSubstr("\nGr???? "));
  });
}

// A cut answer must not look like a whole one; a reader that went away is no fault.
TEST(Output, EndsWithAStatusOfItsOwnWhenItIsNotWritten) {
  if (kSanitized) GTEST_SKIP() << "the sanitizer catches signals and adds to the errors";
  const ToolRoot machine;
  machine.MakeDirectory("/full");
  machine.WriteFile("/log.x", "2026-01-02 03:04:05.000 [0000ABCD] ravd          text\n");
  machine.Run(FixtureRoot::kUsr, [] {
    ASSERT_EQ(::mount("none", "/full", "tmpfs", 0, "size=4k"), 0);
    WriteWholeFile("/full/filler", std::string(4096, 'f'));
    const std::tuple<const char*, int, const char*> rows[] = {
        {"--help >/full/out", 7, "No space left on device\n"},
        {"--version >&-", 7, "Bad file descriptor\n"},
        {"man --json >/full/out", 7, "No space left on device\n"},
        {"trace show /log.x >&-", 7, "Bad file descriptor\n"},
        {"doctor >/full/out", 7, "No space left on device\n"},
        {"man | true", 0, ""},
        {"man >&- <&-", 7, "Bad file descriptor\n"},
    };
    for (const auto& [words, status, said] : rows) {
      const std::string command = "set -o pipefail; { /ravctl " + std::string(words) + "; } 2>/err";
      const int ended = std::system(("bash -c '" + command + "'").c_str());
      EXPECT_EQ(WEXITSTATUS(ended), status) << words;
      EXPECT_EQ(ReadWholeFile("/err"), *said ? std::string("ravctl: cannot write the answer: ") + said : "") << words;
    }
  });
}

namespace {

// "severity: finding" of each line of a check.
std::string Told(const nlohmann::json& findings, const std::string& check) {
  std::string told;
  for (const nlohmann::json& row : findings)
    if (row["check"] == check) told += Members(row, "severity") + ": " + Members(row, "finding") + "\n";
  return told;
}

}  // namespace

TEST(Doctor, AFreshInstallationIsHealthy) {
  const ToolRoot machine;
  const std::filesystem::path shipped = std::filesystem::path(RAVCTL_SOURCE) / "../../packaging";
  const std::string settings = "/etc/norrow/QuennetSuite/TraceConfig/ravd.ini";
  machine.WriteFile(settings, ReadWholeFile(shipped / "ravd.ini"));
  machine.WriteFile("/etc/default/ravd", ReadWholeFile(shipped / "ravd.default"));
  machine.MakeDirectory("/var/log/pelrix");
  EXPECT_EQ(machine.Ravctl("ini check " + settings).status, 0);
  const nlohmann::json findings = machine.Json("doctor")["data"];
  EXPECT_THAT(Told(findings, "switch"), StartsWith("warning: there is none"));
  EXPECT_EQ(Told(findings, "defaults") + Told(findings, "ini"),
            "ok: every line reaches the service\nok: every line reaches a reader\n");
}

TEST(Doctor, WhatTheDaemonNeedsFirst) {
  const ToolRoot machine;
  const auto told = [&machine](const std::string& check, int status) {
    return Told(machine.Json("doctor", status)["data"], check);
  };
  machine.WriteFile("/etc/default/ravd", "# it\nexport A=1\nB=2\nRAVD_OPTIONS=\"-rescan -tesel\"\n");
  EXPECT_EQ(told("defaults", 1),
            "bad: the service manager drops this line: export A=1\n"
            "warning: the daemon passes over the option -tesel\n");
  machine.Remove("/etc/default/ravd");

  // Of a daemon that was killed, of one that hangs in its start, and of one that runs.
  machine.WriteFile("/var/run/ravd.pid", "1\n");
  machine.WriteFile("/var/lock/ravd.lock", "ravd#1");
  machine.WriteFile("/proc/locks", "1: FLOCK  ADVISORY  WRITE 77 08:01:1 0 EOF\n");
  EXPECT_EQ(told("leftovers", 0),
            "warning: names no process of the daemon: it did not end by itself\n"
            "note: left over: the daemon did not end by itself\n");
  struct stat lock {};
  ASSERT_EQ(::stat(machine.HostPath("/var/lock/ravd.lock").c_str(), &lock), 0);
  machine.WriteFile("/proc/locks", "1: FLOCK  ADVISORY  WRITE 77 08:01:" + std::to_string(lock.st_ino) + " 0 EOF\n");
  EXPECT_THAT(told("leftovers", 0), HasSubstr("warning: held by process 77, though no daemon"));
  machine.WriteFile("/proc/1/comm", "ravd\n");
  EXPECT_EQ(told("leftovers", 0), "ok: held by the daemon\n");
  machine.WriteFile("/proc/locks", "");
  EXPECT_THAT(told("leftovers", 0), StartsWith("warning: the running daemon does not hold it"));

  // By what the daemon has mapped: its switch and its ring buffers.
  const std::string range = "7f0000000000-7f0000100000 rw-s 00000000 08:01 1   ";
  machine.WriteFile("/var/log/pelrix/log.ravd_a", std::string(20000, '_'));
  machine.WriteFile("/opt/libswitch.so", "text");
  machine.WriteFile("/proc/1/maps", range + "/opt/libswitch.so\n" + range + "/var/log/pelrix/log.ravd_a\n" + range +
                                        "/var/log/pelrix/log.ravd_i (deleted)\n");
  EXPECT_EQ(told("ring", 1),
            "bad: cut short under the running daemon, to 20000 bytes\nbad: removed under the running daemon\n");
  EXPECT_THAT(told("switch", 1), StartsWith("bad: not a shared library"));
  machine.WriteFile("/opt/libswitch.so", ReadWholeFile(EXAMPLE_SWITCH_LIBRARY), 0666);
  EXPECT_THAT(told("switch", 1), HasSubstr("bad: writable: /opt/libswitch.so by everybody"));
  machine.WriteFile("/opt/libswitch.so", ReadWholeFile(EXAMPLE_SWITCH_LIBRARY));
  machine.WriteFile("/var/log/pelrix/log.ravd_a", "");
  machine.WriteFile("/proc/1/maps", range + "/opt/libswitch.so\n");
  EXPECT_EQ(told("switch", 0), "ok: can be loaded, and root alone can change it\n");
}

TEST(Doctor, StateOfTheUnit) {
  struct Row {
    const char* properties;
    const char* told;
  };
  const Row rows[] = {
      {"LoadState=loaded\nActiveState=active\nSubState=running\nNRestarts=0\nUnitFileState=enabled\n",
       "ok: active (running)\n"},
      {"LoadState=loaded\nActiveState=active\nSubState=running\nNRestarts=2\nUnitFileState=disabled\n",
       "warning: active (running), started again 2 times\nnote: does not start with the machine\n"},
      {"LoadState=loaded\nActiveState=failed\nSubState=failed\nResult=core-dump\nNRestarts=9\n",
       "bad: failed: core-dump, started again 9 times\n"},
      {"LoadState=loaded\nActiveState=activating\nSubState=auto-restart\nResult=signal\nNRestarts=3\n",
       "bad: ends again and again: signal, started again 3 times\n"},
      {"LoadState=loaded\nActiveState=inactive\nSubState=dead\n", "warning: inactive (dead)\n"},
      {"LoadState=not-found\n", "note: there is no such unit\n"},
      {"LoadState=bad-setting\n", "bad: cannot be loaded: bad-setting\n"},
      {"", "bad: cannot be loaded: \n"},
  };
  for (const Row& row : rows) {
    std::string told;
    const nlohmann::json findings = ravctl::FindingTable(ravctl::UnitFindings(row.properties)).ToJson();
    for (const nlohmann::json& finding : findings)
      told += Members(finding, "severity") + ": " + Members(finding, "finding") + "\n";
    EXPECT_EQ(told, row.told);
  }
}

TEST(Gzip, JoinedFilesAreOneAndACutOneKeepsItsFront) {
  const std::string packed = ravctl::PackGzip("front ") + ravctl::PackGzip(std::string(3000000, 'x') + "end");
  for (const size_t piece : {size_t{1}, packed.size()}) {
    for (const size_t length : {packed.size(), packed.size() - 1, packed.size() - 12, size_t{1}}) {
      std::string text;
      std::string_view rest = std::string_view(packed).substr(0, length);
      const char* fault = ravctl::UnpackGzip(
          [&] {
            const std::string_view taken = rest.substr(0, piece);
            rest.remove_prefix(taken.size());
            return taken;
          },
          [&text](std::string_view more) {
            text += more;
            return true;
          });
      EXPECT_EQ(fault == nullptr, length == packed.size()) << length;
      EXPECT_EQ(text.starts_with("front "), length > 1) << length;
      EXPECT_EQ(text.ends_with("end"), length > packed.size() - 9) << length;
    }
  }
}
