// The trace commands on files that the trace object wrote, and on what crashes and cuts leave of them.

#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <tuple>

#include "ravctl/ravctl_runner.h"
#include "ravctl/trace/log_follower.h"
#include "ravctl/trace/trace_entry.h"
#include "ravctl/trace/trace_layout.h"
#include "trace/debug.h"

using ::testing::ElementsAre;
using ::testing::HasSubstr;

namespace {

constexpr const char* kDirectory = "/var/log/pelrix";
constexpr const char* kRing = "/var/log/pelrix/log.ravd_a";
constexpr size_t kRingSize = 1 << 20;

void SetTraceVariables(bool hasRing) {
  ::setenv("QN_LOG_RINGBUF_DIR", kDirectory, 1);
  ::setenv("QN_LOG_DEBUG_LEVEL", hasRing ? "5" : "0", 1);
  ::setenv("TraceFileLimit", "1", 1);
  ::setenv("QN_LOG_RINGBUF_WEIGHT", "1", 1);
}

// A machine on which an application "ravd" traced that many numbered entries after its start-up.
class TraceRoot : public ToolRoot {
 public:
  explicit TraceRoot(int entries, bool hasRing = true) {
    MakeDirectory(kDirectory);
    Run(
        [=] {
          SetTraceVariables(hasRing);
          CDebug debug("ravd");
          debug.PrintAlways("\nExample : starting");
          debug.SetApplInitDone();
          for (int number = 0; number < entries; ++number) {
            debug.PrintAlways("\nExample : number %d %s", number,
                              std::string(static_cast<size_t>(number % 7), 'x').c_str());
            // A log file tells its newest entry by the times alone.
            if (!hasRing && number % 100 == 0) ::usleep(1500);
          }
        },
        kUsr);
  }
};

// The entries that the layout of the content finds, in its order.
std::vector<std::string_view> Entries(std::string_view content) {
  std::vector<std::string_view> entries;
  for (const std::string_view part : ravctl::FindLayout(content).parts) {
    ravctl::ForEachEntry(part, [&entries](std::string_view whole) {
      entries.push_back(whole);
      return true;
    });
  }
  return entries;
}

void AddNumber(std::vector<int>& numbers, std::string_view entry) {
  const size_t at = entry.find("number ");
  if (at != std::string_view::npos) numbers.push_back(std::atoi(entry.data() + at + 7));
}

std::vector<int> Numbers(std::string_view content) {
  std::vector<int> numbers;
  for (const std::string_view entry : Entries(content))
    AddNumber(numbers, entry);
  return numbers;
}

// That many runs after each other, each counting from its first number; a single one may begin anywhere.
void ExpectCounts(const std::vector<int>& numbers, int end, size_t runs = 1) {
  ASSERT_FALSE(numbers.empty());
  EXPECT_EQ(numbers.back(), end - 1);
  const size_t all = runs * static_cast<size_t>(end);
  ASSERT_TRUE(runs == 1 ? numbers.size() <= all : numbers.size() == all) << numbers.size();
  for (size_t index = 1; index < numbers.size(); ++index)
    ASSERT_EQ(numbers[index], (numbers[index - 1] + 1) % end) << index;
}

std::string Line(const char* second, const std::string& text) {
  return std::string("2026-01-02 03:04:") + second + ".000 [0000ABCD] ravd          " + text + "\n";
}

}  // namespace

TEST(TraceEntry, IsTakenApart) {
  const std::string time = "2024-05-06 10:11:12.345 [1A2B3C40] ";
  const std::tuple<std::string, std::optional<uint64_t>, const char*, const char*> rows[] = {
      {"   10244 KB !ravd          RAVD-MAIN: Load\n", 10244, "ravd", "RAVD-MAIN: Load"},
      {"a-rather-long-tag 5 KB !x\nmore\n", std::nullopt, "a-rather-long-tag", "5 KB !x\nmore"},
      {"ravd\n", std::nullopt, "ravd", ""},
      {"4711          KB\n", std::nullopt, "4711", "KB"},
  };
  for (const auto& [line, memoryKb, tag, text] : rows) {
    const std::string whole = time + line;
    const ravctl::TraceEntry entry = ravctl::ParseEntry(whole);
    EXPECT_EQ(std::tuple(entry.thread, entry.memoryKb, entry.tag, entry.text),
              std::tuple("1A2B3C40", memoryKb, tag, text));
  }
}

TEST(TraceLayout, OrderOverWraps) {
  // No wrap, one, and several; the last entry exactly at the end of the buffer among them.
  for (const int entries : {0, 1, 4000, 9000, 25000}) {
    const TraceRoot machine(entries);
    const std::string ring = machine.ReadFile(kRing);
    const ravctl::TraceLayout layout = ravctl::FindLayout(ring);
    EXPECT_TRUE(layout.hasHeaderEnd);
    EXPECT_EQ(layout.hasWrapped, entries > 10000) << entries;
    ASSERT_TRUE(layout.marker.has_value());
    if (entries > 0) ExpectCounts(Numbers(ring), entries);
    if (entries == 4000) {
      EXPECT_EQ(Numbers(ring).size(), 4000U);
    }
  }
}

TEST(TraceLayout, CutAnywhereKeepsEveryCompleteEntry) {
  for (const int entries : {3000, 25000}) {
    const TraceRoot machine(entries);
    const std::string ring = machine.ReadFile(kRing);
    const size_t begin = ravctl::FindLayout(ring).wrapOffset;
    for (size_t length = 0; length <= kRingSize; length += 9973) {
      const std::string_view cut = std::string_view(ring).substr(0, length);
      // What stands completely in the piece, found another way.
      size_t expected = 0;
      for (size_t at = cut.find(" number ", begin); at != std::string_view::npos; at = cut.find(" number ", at + 1)) {
        const size_t start = cut.rfind('\n', at);
        const bool isEntry = start != std::string_view::npos && ravctl::StartsEntry(cut.substr(start + 1));
        if (isEntry && cut.find('\n', at) != std::string_view::npos) ++expected;
      }
      ASSERT_EQ(Numbers(cut).size(), expected) << entries << " entries, cut to " << length;
      // Without its front too: what is left is found, in order within each cycle.
      Numbers(std::string_view(ring).substr(length));
    }
  }
}

// Searches that go back or ahead for each place would take minutes.
TEST(TraceLayout, HostileTextTakesLinearTime) {
  const std::string entry = Line("01", "x");
  const std::string later = Line("02", "y");
  const std::string marker(ravctl::kEndMarker);
  const std::string rows[][2] = {{"", "x"},
                                 {entry, marker},
                                 {"", marker + entry + later},
                                 {"", "------ WRAP ----- Cycle=1, CntInitEnd=9"},
                                 {"", "### Begin of RingBuffer. ###\n"},
                                 {"", marker + std::string(99999, '\0')}};
  for (const auto& [first, unit] : rows) {
    std::string content = first;
    while (content.size() < size_t{16} << 20)
      content += unit;
    Numbers(content + later);
  }
  // A megabyte that unpacks to more than is read.
  const ToolRoot machine;
  machine.Run([] { ASSERT_EQ(std::system("truncate -s 300M /zeros && gzip -1 -c /zeros >/log.x"), 0); },
              FixtureRoot::kUsr);
  EXPECT_THAT(machine.Ravctl("trace show /log.x").err, HasSubstr("larger than 256M"));
}

TEST(TraceLayout, CrashWithinAnEntry) {
  const TraceRoot machine(25000);
  std::string ring = machine.ReadFile(kRing);
  const size_t marker = *ravctl::FindLayout(ring).marker;
  const std::vector<int> whole = Numbers(ring);
  // Killed between an entry and its marker: the entry overwrites the marker and tears an older one.
  const std::string entry = ring.substr(ring.rfind('\n', marker - 2) + 1, marker - ring.rfind('\n', marker - 2) - 1);
  ring.replace(marker, entry.size(), entry.substr(0, entry.find("number ")) + "number 25000 \n");
  const std::vector<int> after = Numbers(ring);
  EXPECT_EQ(after.back(), 25000);
  EXPECT_NEAR(static_cast<double>(after.size()), static_cast<double>(whole.size()), 2.0);
}

TEST(TraceLayout, TextThatLooksLikeTheMarker) {
  std::string ring = Line("01", "### Begin of RingBuffer. ###") + Line("02", "a\n## TRACE-END ##") + Line("03", "b");
  ring += "## TRACE-END ##\nremains\n" + Line("00", "old") + "....";
  std::vector<std::string> texts;
  for (const std::string_view entry : Entries(ring))
    texts.emplace_back(ravctl::ParseEntry(entry).text);
  EXPECT_THAT(texts, ElementsAre("old", "a\n## TRACE-END ##", "b"));
}

TEST(TraceLayout, LogFileOverItsWraps) {
  for (const int entries : {100, 1500, 4000}) {
    const TraceRoot machine(entries, false);
    const std::string log = machine.ReadFile("/var/log/pelrix/log.ravd");
    ExpectCounts(Numbers(log), entries);
    EXPECT_THAT(machine.Ravctl("trace show -d /var/log/pelrix").out, HasSubstr("Example : starting\n"));
  }
}

TEST(TraceShow, FiltersAndTheirNegations) {
  const ToolRoot machine;
  const std::string file = Line("01", "one ERROR") + Line("02", "two\x1b[2J") +
                           "2026-01-02 03:04:03.500 [00001234] other         Three\nfour\n" + Line("59", "five");
  machine.WriteFile("/t/log.x", file);
  struct Row {
    const char* words;
    const char* texts;  // of the entries, each with a bar behind it
  };
  const Row rows[] = {
      {"", "one ERROR|two\x1b[2J|Three\nfour|five|"},
      {"-n 2", "Three\nfour|five|"},
      {"-g ERROR -g five", "one ERROR|five|"},
      {"-g '^(one|fi.e)\\b'", "one ERROR|five|"},
      {"-F -g 'fi.e'", ""},
      {"-g five -C 1", "Three\nfour|five|"},
      {"--not-text ERROR", "two\x1b[2J|Three\nfour|five|"},
      {"-i -g three", "Three\nfour|"},
      {"--tag other", "Three\nfour|"},
      {"--not-tag other -n 1", "five|"},
      {"-t abcd --until 03:04:02", "one ERROR|two\x1b[2J|"},
      {"--not-thread 0x0000ABCD", "Three\nfour|"},
      {"--since '2026-01-02 03:04:02' --until 2026-01-02T03:04:03", "two\x1b[2J|Three\nfour|"},
      {"--not-time 03:04:02..03:04:10", "one ERROR|five|"},
  };
  for (const Row& row : rows) {
    const nlohmann::json answer = machine.Json(CommandLine("trace show /t/log.x") + row.words, *row.texts ? 0 : 1);
    std::string texts;
    for (const nlohmann::json& entry : answer["data"])
      texts += entry["text"].get<std::string>() + "|";
    EXPECT_EQ(texts, row.texts) << row.words;
  }
  EXPECT_EQ(machine.Ravctl("trace show /t/log.x -o tag,text -n 3").out,
            "TAG           TEXT\nravd          two\\x1b[2J\nother         Three\\x0afour\nravd          five\n");
  EXPECT_THAT(machine.Ravctl("trace show /t/log.x").out, HasSubstr("two\\x1b[2J\n"));
  EXPECT_EQ(machine.Ravctl("trace show -g five -o text --no-headings /t/log.x").out, "five\n");
  EXPECT_EQ(machine.Ravctl("trace show -o text --no-headings -g five /t/log.x").out, "five\n");
  EXPECT_EQ(machine.Json("trace show /t/log.x -g nothing", 1)["data"].size(), 0U);
}

TEST(TraceShow, PackedStartUpAndDamage) {
  const TraceRoot machine(10);
  const char* packed = "/var/log/pelrix/log.ravd_i.gz";
  const nlohmann::json all = machine.Json("trace show -d /var/log/pelrix");
  ASSERT_GT(all["data"].size(), 13U);  // both rings
  EXPECT_EQ(all["data"][0]["text"], "### Start of initialization. ###");
  EXPECT_EQ(machine.Json({"trace", "show", packed})["data"][1]["text"], "Example : starting");
  EXPECT_EQ(machine.Json("trace verify -d /var/log/pelrix")["data"][0]["severity"], "ok");
  EXPECT_EQ(machine.Json("trace stats -d /var/log/pelrix -p run")["data"][0]["entries"], 11);
  EXPECT_TRUE(std::ranges::any_of(machine.Json("trace header -d /var/log/pelrix")["data"], [](const auto& row) {
    return Members(row, "name value") == "Ring Buffer Directory, /var/log/pelrix";
  }));

  machine.WriteFile(packed, machine.ReadFile(packed).substr(0, machine.ReadFile(packed).size() / 2));
  const nlohmann::json cut = machine.Json({"trace", "show", packed}, 5);
  ASSERT_GT(cut["data"].size(), 1U);
  EXPECT_EQ(cut["data"][1]["text"], "Example : starting");
  EXPECT_EQ(cut["warnings"].size(), 1U);
  machine.WriteFile(kRing, machine.ReadFile(kRing).substr(0, 20000));
  machine.Json({"trace", "verify", kRing}, 5);
}

// What others could have put into the directory is neither followed nor believed.
TEST(TraceRuns, AreListedAndShownByTheirNumber) {
  const ToolRoot machine;
  const std::string directory = std::string(kDirectory) + "/";
  const std::string older = directory + "crash-20261124T235959Z";
  const std::string newer = directory + "crash-20261125T024523Z";
  machine.WriteFile(directory + "log.ravd", Line("03", "now"));
  machine.WriteFile(newer + "/log.ravd", Line("02", "last words"));
  machine.WriteFile(newer + "/exit", "time=x\nresult=core-dump\nstatus=\nsignal=SEGV\nnoise\n=\npid=4711\n");
  machine.WriteFile(older + "/log.ravd_a", Line("01", "older"));
  machine.WriteFile(older + "/exit", "result=\x1b[2J" + std::string(5000, 'x') + "\nsignal=late\n");
  machine.WriteFile("/secret/exit", "result=secret\n");
  machine.WriteFile("/secret/log.ravd", Line("09", "secret"));
  machine.MakeLink(directory + "crash-20261126T000000Z", "/secret");
  machine.MakeLink(older + "/log.ravd_i", "/secret/log.ravd");
  for (const char* name : {"crash-20261399T000000Z", "crash-2026 1 1T000000Z", "crash-20261126T000000Zz"})
    machine.MakeDirectory(directory + name);

  const nlohmann::json runs = machine.Json("trace list")["data"];
  ASSERT_EQ(runs.size(), 3U) << runs;
  EXPECT_EQ(Members(runs, "0/path 0/result"), std::string(kDirectory) + ", -");
  EXPECT_EQ(Members(runs[1], "run time result status signal pid size path"),
            "1, 2026-11-25 02:45:23, core-dump, -, SEGV, 4711, " + std::to_string(Line("02", "last words").size()) +
                ", " + newer);
  EXPECT_EQ(Members(runs[2], "result signal size"),
            "\x1b[2J" + std::string(60, 'x') + ", -, " + std::to_string(Line("01", "older").size()));
  EXPECT_THAT(machine.Ravctl("trace list -o result").out, HasSubstr("\\x1b[2Jxxx"));
  EXPECT_EQ(machine.Json("trace list -d /none", 1)["data"].size(), 0U);

  for (const auto& [words, text] : {std::pair{"0 -p log", "now"}, {"1 -p log", "last words"}, {"2 -p run", "older"}}) {
    const nlohmann::json entries = machine.Json(std::string("trace show --run ") + words)["data"];
    ASSERT_EQ(entries.size(), 1U);
    EXPECT_EQ(entries[0]["text"], text);
  }
  EXPECT_EQ(machine.Json("trace stats --previous")["data"][0]["file"], newer + "/log.ravd");
  EXPECT_THAT(machine.Ravctl("trace show --run 2").err, HasSubstr("cannot open the trace: " + older));
  const Fault faults[] = {
      {"verify --run 3", 4, "trace verify: no run 3 is kept: /var/log/pelrix (ravctl trace list shows those that are)"},
      {"header /var/log/pelrix/log.ravd --run 1", 2, "..."},
  };
  ExpectFaults(machine, "trace", faults);
}

TEST(TraceCommands, FaultsAreOneLineWithTheirStatus) {
  const Fault faults[] = {
      {"show /none", 4, "trace show: cannot open the trace: /none: No such file or directory (check the path)"},
      {"show /tmp", 4, "trace show: not a regular file: /tmp (name a trace file or an application)"},
      {"show mytool", 4, "trace show: cannot look into: /var/log/pelrix: No such file or directory (check the path)"},
      {"show /t -t xyz", 2, "trace show: not a thread: xyz (give its up to eight hexadecimal digits: 1A2B3C40)"},
      {"show /t --since noon", 2,
       "trace show: not a time: noon (give 2024-05-06 10:11:12, 10:11, yesterday, or 5m for 5 minutes ago)"},
      {"show /t --since 2026-13-45", 2, "trace show: not a time: 2026-13-45..."},
      {"show /t --since 2025-02-29", 2, "trace show: not a time: 2025-02-29..."},
      {"show /t --until 24:00", 2, "trace show: not a time: 24:00..."},
      {"show /t --until 2026-1", 2, "trace show: not a time: 2026-1..."},
      {"show /t -g '(a'", 2, "trace show: not a regular expression: (a: missing ): (a (with -F a text..."},
      {"show /t --previous --run 2", 2, "--run excludes --previous..."},
      {"show /garbage", 5, "warning: not a trace: no line of it begins an entry: /garbage..."},
      {"stats /t -o nosuch", 2, "trace stats: no such column: nosuch..."},
      {"show /t -o txt", 2, "trace show: no such column: txt (did you mean text?)"},
      {"toggle", 6, "trace toggle: the daemon does not run: /var/run/ravd.pid (start it first)"},
      {"level 9", 2, "LEVEL: Value 9 not in range 0 to 6: trace level (see ravctl trace level --help)"},
      {"shw", 2, "unknown command: shw (did you mean show?)"},
  };
  const ToolRoot machine;
  machine.WriteFile("/t", Line("01", "one"));
  machine.WriteFile("/garbage", std::string(5000, '\x7f'));
  ExpectFaults(machine, "trace", faults);
  EXPECT_EQ(Members(machine.Json("trace verify /garbage", 5)["data"], "0/severity 0/check"), "bad, kind");
  for (const char* day : {"yesterday", "'yesterday 10:11'", "today"})
    EXPECT_EQ(machine.Ravctl(std::string("trace show /t --since ") + day).status, 1) << day;
}

TEST(TraceFollow, LivingRingOverWrapsAndRestarts) {
  const ToolRoot machine;
  machine.MakeDirectory(kDirectory);
  machine.Run(
      [] {
        const pid_t follower = StartRavctl("trace follow -n 100000 -d /var/log/pelrix");
        if (kSanitized) ::sleep(3);  // what is overwritten when it begins to look is not shown
        for (int run = 0; run < 2; ++run) {
          const pid_t writer = ::fork();
          if (writer == 0) {
            SetTraceVariables(true);
            CDebug debug("ravd");
            debug.SetApplInitDone();
            // Two wraps and more, in bursts.
            for (int number = 0; number < 24000; ++number) {
              debug.Print(1, "number %d", number);
              if (number % 500 == 0) ::usleep(kSanitized ? 200000 : 40000);
            }
            ::usleep(700000);
            ::_exit(0);
          }
          ::waitpid(writer, nullptr, 0);
        }
        ::kill(follower, SIGTERM);
        ::waitpid(follower, nullptr, 0);
      },
      FixtureRoot::kUsr);
  std::vector<int> numbers;
  std::ifstream lines(machine.HostPath("/tmp/out"));
  for (std::string line; std::getline(lines, line);)
    AddNumber(numbers, line);
  ExpectCounts(numbers, 24000, 2);
}

TEST(TraceFollow, LogFileOverWrapsAndRestarts) {
  const ToolRoot machine;
  machine.MakeDirectory(kDirectory);
  machine.Run([] {
    SetTraceVariables(false);
    ::setenv("QN_LOG_FILE_MAX_SIZE", "9000", 1);
    ravctl::LogFollower follower(std::string(kDirectory) + "/log.ravd");
    std::vector<int> numbers;
    const auto look = [&] {
      follower.Read([&numbers](std::string_view whole) { AddNumber(numbers, whole); });
      ::usleep(1500);  // a cycle in less than a millisecond cannot be told from the one before
    };
    for (int run = 0; run < 2; ++run) {
      CDebug debug("ravd");
      look();
      debug.SetApplInitDone();
      // Bursts of growing length, some over a wrap.
      for (int number = 0; number < 1500; ++number) {
        debug.PrintAlways("\nnumber %d%s", number, number % 11 == 0 ? "\nof two lines" : "");
        if (number % (7 + number / 100) == 0) look();
      }
      look();
    }
    EXPECT_EQ(follower.Losses(), 0U);
    ExpectCounts(numbers, 1500, 2);
  });
}

TEST(TraceFollow, EndsWithTheProcessAndItsLastWords) {
  const ToolRoot machine;
  machine.MakeDirectory(kDirectory);
  machine.Run(
      [] {
        int gate[2];
        ASSERT_EQ(::pipe(gate), 0);
        const pid_t writer = ::fork();
        if (writer == 0) {
          SetTraceVariables(false);
          CDebug debug("ravd");
          char go = 0;
          if (::read(gate[0], &go, 1) != 1) ::_exit(1);
          debug.PrintAlways("last words");
          ::_exit(0);
        }
        const pid_t follower =
            StartRavctl("trace follow -d /var/log/pelrix -p log --json --pid " + std::to_string(writer));
        ::usleep(200000);
        ASSERT_EQ(::write(gate[1], "x", 1), 1);
        ::waitpid(writer, nullptr, 0);
        EXPECT_EQ(WaitForRavctl(follower).status, 0);
      },
      FixtureRoot::kUsr);
  const nlohmann::json line = nlohmann::json::parse(machine.ReadFile("/tmp/out"), nullptr, false);
  ASSERT_FALSE(line.is_discarded()) << machine.ReadFile("/tmp/out");
  ExpectValid(line);
  EXPECT_EQ(line["data"]["text"], "last words");
}

TEST(TraceEntry, SourceIsTheNameAtTheFront) {
  const std::tuple<const char*, const char*, const char*> rows[] = {
      {"Heartbeat           : beat 1: 2", "Heartbeat", "beat 1: 2"},
      {"CFileLock::Lock     : Trying", "CFileLock::Lock", "Trying"},
      {"ANameThatIsLongerThanTheColumn: text", "ANameThatIsLongerThanTheColumn", "text"},
      {"RAVD-MAIN: Load", "RAVD-MAIN", "Load"},
      {"RAVD-MAIN::ParseCommandLine   : x", "RAVD-MAIN::ParseCommandLine", "x"},
      {"ERROR: none", "", "ERROR: none"},
      {"two words           : none", "", "two words           : none"},
      {"Heartbeat           :", "Heartbeat", ""},
      {"                    : none", "", "                    : none"},
      {"", "", ""},
  };
  for (const auto& [text, source, message] : rows) {
    const std::string whole = Line("01", text);
    const ravctl::TraceEntry entry = ravctl::ParseEntry(whole);
    EXPECT_EQ(std::tuple(entry.source, entry.message), std::tuple(source, message));
  }
  const ToolRoot machine;
  std::string trace;
  for (const char* text :
       {"RAVD-MAIN: Load", "Heartbeat           : ERROR 1", "Heartbeat           : beat", "Other               : x"})
    trace += Line("01", text);
  machine.WriteFile("/log.x", trace);
  EXPECT_EQ(machine.Ravctl("trace show /log.x --not-source 'RAVD-MAIN*' --not-source other -o source,message").out,
            "SOURCE               MESSAGE\nHeartbeat            ERROR 1\nHeartbeat            beat\n");
  EXPECT_EQ(
      machine.Ravctl("trace show /log.x --source Heartbeat -n 1 -o +source --no-headings").out,
      "2026-01-02 03:04:01.000 0000ABCD -          ravd          Heartbeat            Heartbeat           : beat\n");
  EXPECT_EQ(machine.Ravctl("trace show /log.x -g 'Load|x$' -C 0 -o message").out, "MESSAGE\nLoad\nx\n");
  EXPECT_EQ(Members(machine.Json("trace stats /log.x")["data"], "2/group 2/name 2/entries 2/errors"),
            "source, Heartbeat, 2, 1");
}

// Of a bundle they count from its capture, in the zone of the machine.
TEST(TraceShow, RelativeTimesOfABundle) {
  const ToolRoot machine;
  machine.MakeLink("/etc/localtime", "/usr/share/zoneinfo/Asia/Tokyo");
  machine.Run(
      [] {
        ASSERT_EQ(std::system("mkdir -p /var/log/pelrix && "
                              "date '+%F %T.000 [0000ABCD] ravd          now' >/var/log/pelrix/log.ravd"),
                  0);
        EXPECT_EQ(RunRavctl("bundle --trace /b.tar.gz").status, 0);
        ASSERT_EQ(std::system("mkdir /tree && tar -xf /b.tar.gz -C /tree && touch -d '2 days ago' /tree/manifest.json"),
                  0);
      },
      FixtureRoot::kUsr);
  EXPECT_EQ(machine.Ravctl("trace show --since 2m --sysroot /b.tar.gz", {"TZ=UTC"}).status, 0);
  EXPECT_EQ(machine.Ravctl("trace show --until 1d --sysroot /tree").status, 1);
  EXPECT_EQ(machine.Ravctl("trace show --since 1d --sysroot /tree").status, 0);
  EXPECT_EQ(Members(nlohmann::json::parse(machine.ReadFile("/tree/manifest.json")), "time_zone"), "JST +0900");
}
