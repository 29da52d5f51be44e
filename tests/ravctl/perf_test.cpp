// The perf commands over files of /proc that a test wrote, and perf top on a terminal that the test plays.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <pty.h>
#include <sys/ioctl.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>
#include <utmp.h>

#include <array>
#include <fstream>
#include <sstream>

#include "netif/private_network.h"
#include "platform/unique_fd.h"
#include "ravctl/commands/perf/graph.h"
#include "ravctl/ravctl_runner.h"

using nlohmann::json;
using ::testing::HasSubstr;

namespace {

constexpr const char* kStat = "cpu  100 0 100 800 0\n";
constexpr const char* kBusyStat = "cpu  120 10 120 850 0\n";  // 100 ticks later
constexpr const char* kMemInfo = "MemTotal: 8192 kB\nMemFree: 6144 kB\nSwapTotal: 8192 kB\nSwapFree: 8192 kB\n";

std::string NetDev(uint64_t received, uint64_t sent) {
  return "Inter-|\n face |bytes\n lo: 1\n eth0: " + std::to_string(received) + " 0 0 0 0 0 0 0 " +
         std::to_string(sent) + " 0 0 0 0 0 0 0\n";
}

void Rewrite(const char* path, const std::string& text) {
  std::ofstream(path, std::ios::trunc) << text;
}

void Fill(const ToolRoot& machine) {
  machine.WriteFile("/proc/stat", kStat);
  machine.WriteFile("/proc/meminfo", kMemInfo);
  machine.WriteFile("/proc/net/dev", NetDev(1000, 2000));
}

// What a terminal of that size shows from the first erasing of the whole screen on, for the control sequences that the
// tool is expected to send. What comes before was drawn for the size before.
class Picture {
 public:
  Picture(size_t lines, size_t columns) : m_Cells(lines, std::vector<std::string>(columns, " ")) {}

  void Feed(std::string_view text) {
    m_Rest += text;
    size_t at = 0;
    while (at < m_Rest.size()) {
      const size_t length = SequenceLength(at);
      if (length == 0) break;  // the rest of it is on the way
      Apply(m_Rest.substr(at, length));
      at += length;
    }
    m_Rest.erase(0, at);
  }

  std::string Line(size_t number) const {
    std::string line;
    for (const std::string& cell : m_Cells[number])
      line += cell;
    return line;
  }
  bool HasColors() const { return m_HasColors; }

 private:
  size_t SequenceLength(size_t at) const {
    const auto first = static_cast<unsigned char>(m_Rest[at]);
    const std::string_view rest = std::string_view(m_Rest).substr(at);
    if (first != 0x1b) {
      const size_t length = first < 0x80 ? 1 : first >= 0xE0 ? 3 : 2;
      return length <= rest.size() ? length : 0;
    }
    if (rest.size() < 3) return rest.size() == 2 && rest[1] != '[' && rest[1] != '(' ? 2 : 0;
    if (rest[1] != '[') return rest[1] == '(' ? 3 : 2;
    const size_t end = rest.find_first_not_of("0123456789;?>", 2);
    return end == std::string_view::npos ? 0 : end + 1;
  }

  void Apply(const std::string& sequence) {
    if (!m_IsErased && sequence != "\x1b[2J") return;
    if (sequence[0] != '\x1b') return Put(sequence);
    if (sequence[1] != '[' || sequence[2] == '?' || sequence[2] == '>') return;
    const int first = std::atoi(sequence.c_str() + 2);
    const size_t semicolon = sequence.find(';');
    const size_t count = static_cast<size_t>(std::max(first, 1));
    switch (sequence.back()) {
      case 'H':
        m_Line = count - 1;
        m_Column = semicolon == std::string::npos ? 0 : std::stoul(sequence.substr(semicolon + 1)) - 1;
        break;
      case 'd':
        m_Line = count - 1;
        break;
      case 'G':
        m_Column = count - 1;
        break;
      case 'C':
        m_Column += count;
        break;
      case 'A':
        m_Line -= count;
        break;
      case 'B':
        m_Line += count;
        break;
      case 'b':
        for (size_t number = 0; number < count; ++number)
          Put(m_Last);
        break;
      case 'X':
        Blank(m_Line, m_Column, m_Column + count);
        break;
      case 'K':
        if (first == 1) Blank(m_Line, 0, m_Column + 1);
        if (first == 0) Blank(m_Line, m_Column, m_Cells[0].size());
        break;
      case 'J':
        m_IsErased = m_IsErased || first == 2;
        for (size_t line = first == 2 ? 0 : m_Line; line < m_Cells.size(); ++line)
          Blank(line, line == m_Line && first == 0 ? m_Column : 0, m_Cells[0].size());
        break;
      case 'm':
        for (size_t at = sequence.find('3'); at != std::string::npos; at = sequence.find('3', at + 1))
          m_HasColors = m_HasColors || (sequence[at + 1] >= '0' && sequence[at + 1] <= '7');
        break;
      default:
        EXPECT_THAT("hlrt", HasSubstr(std::string(1, sequence.back()))) << sequence.substr(1);
    }
  }

  void Put(const std::string& character) {
    if (character == "\n") {
      ++m_Line;
    } else if (character == "\r") {
      m_Column = 0;
    } else if (character == "\b") {
      --m_Column;
    } else if (static_cast<unsigned char>(character[0]) >= 0x20) {
      if (m_Line >= m_Cells.size() || m_Column >= m_Cells[0].size()) {
        // Drawn for the size before. What is drawn outside for good never gets a picture again.
        m_IsErased = false;
        for (size_t line = 0; line < m_Cells.size(); ++line)
          Blank(line, 0, m_Cells[0].size());
        return;
      }
      m_Cells[m_Line][m_Column++] = character;
      m_Last = character;
    }
  }

  void Blank(size_t line, size_t from, size_t to) {
    for (size_t column = from; line < m_Cells.size() && column < std::min(to, m_Cells[0].size()); ++column)
      m_Cells[line][column] = " ";
  }

  std::vector<std::vector<std::string>> m_Cells;
  size_t m_Line = 0, m_Column = 0;
  std::string m_Rest, m_Last;
  bool m_HasColors = false;
  bool m_IsErased = false;
};

// Opened on the machine outside, because a fixture has none.
struct PseudoTerminal {
  PseudoTerminal() {
    int masterEnd = -1, slaveEnd = -1;
    EXPECT_EQ(::openpty(&masterEnd, &slaveEnd, nullptr, nullptr, nullptr), 0);
    master.Reset(masterEnd);
    slave.Reset(slaveEnd);
  }
  UniqueFd master, slave;
};

// The tool in the foreground of a terminal, below a process that does what a shell does about jobs and reports how the
// job went and whether the terminal was in order then.
class Terminal {
 public:
  Terminal(const PseudoTerminal& pair, unsigned short lines, unsigned short columns, const char* variable,
           const char* type = "TERM=xterm", const char* interface = nullptr)
      : m_Picture(lines, columns), m_Master(pair.master.Get()) {
    const winsize size = {lines, columns, 0, 0};
    ::ioctl(m_Master, TIOCSWINSZ, &size);
    m_Shell = ::fork();
    if (m_Shell != 0) return;
    ::login_tty(pair.slave.Get());
    ActAsShell(variable, type, interface);
  }

  // Reads what the tool sends until the condition holds; false after ten seconds.
  bool Until(const std::function<bool(const Picture&)>& condition) {
    for (int tries = 0; tries < 200; ++tries) {
      if (condition(m_Picture)) return true;
      Read(50);
    }
    return false;
  }
  bool ShowsGraph() {
    return Until([](const Picture& picture) { return picture.Line(1).starts_with("CPU"); });
  }

  void Type(const char* key) const { ASSERT_EQ(::write(m_Master, key, 1), 1); }
  void Resize(unsigned short lines, unsigned short columns) {
    Read(100);
    m_Picture = Picture(lines, columns);
    const winsize size = {lines, columns, 0, 0};
    ASSERT_EQ(::ioctl(m_Master, TIOCSWINSZ, &size), 0);
  }
  pid_t Tool() const {
    pid_t group = 0;
    EXPECT_EQ(::ioctl(m_Master, TIOCGPGRP, &group), 0);
    return group;
  }

  // What the shell reports in the end.
  std::string Report() {
    int status = 0;
    while (::waitpid(m_Shell, &status, WNOHANG) == 0)
      Read(20);
    Read(20);
    return ReadWholeFile("/report");
  }

  const std::string& Sent() const { return m_Sent; }
  const Picture& Shown() const { return m_Picture; }

 private:
  void Read(int timeoutMs) {
    pollfd file = {m_Master, POLLIN, 0};
    std::array<char, 65536> text{};
    if (::poll(&file, 1, timeoutMs) <= 0) return;
    const ssize_t size = ::read(m_Master, text.data(), text.size());
    if (size <= 0) return;
    m_Sent.append(text.data(), static_cast<size_t>(size));
    m_Picture.Feed({text.data(), static_cast<size_t>(size)});
  }

  [[noreturn]] static void ActAsShell(const char* variable, const char* type, const char* interface) {
    ::signal(SIGTTOU, SIG_IGN);
    const pid_t job = ::fork();
    if (job == 0) {
      ::setpgid(0, 0);
      ::tcsetpgrp(0, ::getpid());
      ::signal(SIGTTOU, SIG_DFL);
      const char* argv[] = {"ravctl",  "perf", "top", "--interval", "0.2", interface != nullptr ? "-i" : nullptr,
                            interface, nullptr};
      const char* envp[] = {type, "LANG=C.UTF-8", variable, kNoLeakCheck, nullptr};
      ShowOwnProcess();
      ::execve("/ravctl", const_cast<char**>(argv), const_cast<char**>(envp));
      ::_exit(127);
    }
    std::ofstream report("/report", std::ios::trunc);
    for (int status = 0; ::waitpid(job, &status, WUNTRACED) == job;) {
      ::tcsetpgrp(0, ::getpgrp());
      termios terminal{};
      ::tcgetattr(0, &terminal);
      const bool isInOrder = (terminal.c_lflag & (ECHO | ICANON)) == (ECHO | ICANON);
      report << (WIFSTOPPED(status)  ? "stopped"
                 : WIFEXITED(status) ? std::to_string(WEXITSTATUS(status))
                                     : "killed")
             << (isInOrder ? ' ' : '!') << std::flush;
      ::tcsetpgrp(0, job);
      ::kill(-job, SIGCONT);
    }
    report.close();
    ::_exit(0);
  }

  Picture m_Picture;
  int m_Master;
  pid_t m_Shell;
  std::string m_Sent;
};

constexpr const char* kBackToOldScreen = "\x1b[?1049l";
constexpr const char* kShowCursor = "\x1b[?25h";

}  // namespace

TEST(Graph, BarsAndScales) {
  using ravctl::GraphStyle;
  EXPECT_EQ(ravctl::DrawBars({-1, 0, 5, 10, 99}, 10, 1, GraphStyle::kBlocks), std::vector<std::string>{" ▁▄██"});
  EXPECT_EQ(ravctl::DrawBars({0, 0.1, 5, 7.5}, 10, 2, GraphStyle::kAscii), (std::vector<std::string>{"   :", "..##"}));
  EXPECT_EQ(ravctl::RoundedTop(0), 1024);
  EXPECT_EQ(ravctl::RoundedTop(3000), 5 * 1024);
  EXPECT_EQ(ravctl::RoundedTop(200.5 * 1024 * 1024), 500.0 * 1024 * 1024);
}

TEST(Perf, OnceOverTwoStates) {
  if (!std::filesystem::exists("/usr/sbin/ip")) GTEST_SKIP() << "iproute2 is not installed";
  const ToolRoot machine;
  Fill(machine);
  machine.Run(
      [] {
        Ip("link add eth0 type veth peer name peer");  // a link of 10 Gbit/s
        const pid_t tool = StartRavctl({"perf", "--interval", "2", "--json"}, "/out");
        ::usleep(1200000);  // the first reading takes a quarter of a second
        Rewrite("/proc/stat", kBusyStat);
        Rewrite("/proc/meminfo", "MemTotal: 8192 kB\nMemFree: 4096 kB\nSwapTotal: 8192 kB\nSwapFree: 8192 kB\n");
        Rewrite("/proc/net/dev", NetDev(1000 + 655360000, 2000 + 262144000));
        int status = 0;
        ::waitpid(tool, &status, 0);
        EXPECT_EQ(status, 0) << ReadWholeFile("/out.err");
      },
      FixtureRoot::kUsr | FixtureRoot::kNetwork);
  const json answer = json::parse(machine.ReadFile("/out"));
  ExpectValid(answer);
  const json& data = answer["data"];
  EXPECT_EQ(data["cpu"],
            json({{"used_percent", 50}, {"user_percent", 30}, {"kernel_percent", 20}, {"idle_percent", 50}}));
  EXPECT_EQ(data["memory"]["physical_percent"], 50);
  EXPECT_EQ(data["memory"]["physical_used"], 4096 * 1024);
  EXPECT_EQ(data["memory"]["virtual_percent"], 25);
  EXPECT_EQ(data["memory"]["virtual_total"], 16384 * 1024);
  ASSERT_EQ(data["network"].size(), 1U);
  const json& eth0 = data["network"][0];
  const double seconds = data["interval_ms"].get<double>() / 1000;
  EXPECT_GE(seconds, 1.99);
  EXPECT_NEAR(eth0["received_bytes_per_s"].get<double>(), 655360000 / seconds, 1);
  EXPECT_NEAR(eth0["sent_bytes_per_s"].get<double>(), 262144000 / seconds, 1);
  EXPECT_EQ(eth0["speed_bytes_per_s"], 1310720000);
  EXPECT_NEAR(eth0["received_percent"].get<double>(), 50 / seconds, 2);
  EXPECT_NEAR(eth0["percent"].get<double>(), 70 / seconds, 2);
}

TEST(Perf, RowsAndWhatCannotBeRead) {
  const ToolRoot machine;
  Fill(machine);
  machine.Run(
      [] {
        const pid_t tool = StartRavctl({"perf", "--count", "2", "--interval", "1.5", "--json"}, "/out");
        ::usleep(1000000);
        Rewrite("/proc/stat", kBusyStat);
        int status = 0;
        ::waitpid(tool, &status, 0);
        EXPECT_EQ(WEXITSTATUS(status), 4);  // nothing changed for the second row
      },
      FixtureRoot::kUsr);
  std::istringstream lines(machine.ReadFile("/out"));
  std::vector<json> rows;
  for (std::string line; std::getline(lines, line);)
    rows.push_back(json::parse(line));
  ASSERT_EQ(rows.size(), 2U);
  for (const json& row : rows)
    ExpectValid(row);
  EXPECT_EQ(rows[0]["data"]["cpu"]["used_percent"], 50);
  EXPECT_EQ(rows[0]["warnings"].size(), 0U);
  EXPECT_EQ(rows[1]["data"]["cpu"]["used_percent"], nullptr);
  EXPECT_EQ(rows[1]["warnings"][0]["where"], "/proc/stat");

  const ToolResult text =
      machine.Ravctl({"perf", "-n", "2", "--interval", "0.1", "-o", "memory,received,eth0.sent,cpu"});
  EXPECT_EQ(text.out, "MEMORY      IN eth0-OUT  CPU\n   25%    0B/s     0B/s    -\n   25%    0B/s     0B/s    -\n");
  machine.Remove("/proc/meminfo");
  const ToolResult once = machine.Ravctl({"perf"});
  EXPECT_EQ(once.status, 4);
  EXPECT_THAT(once.err, HasSubstr("ravctl: warning: the use of the memory cannot be told: /proc/meminfo\n"));
  EXPECT_THAT(once.out, HasSubstr("memory  physical    - -\n"));
  EXPECT_THAT(once.out, HasSubstr("network eth0        - in 0B/s, out 0B/s\n"));
}

TEST(Perf, BadCommandLines) {
  struct Row {
    std::vector<std::string> arguments;
    int status;
    const char* line;
  };
  const Row rows[] = {
      {{"perf", "topp"}, 2, "ravctl: unknown command: topp (did you mean top?)\n"},
      {{"perf", "top"},
       2,
       "ravctl: perf top: only a terminal can be drawn on: standard output (use ravctl perf --count 0, with --json for "
       "JSON Lines)\n"},
      {{"perf", "-i", "eth1"},
       1,
       "ravctl: perf: no such interface among those that are sampled: eth1 (did you mean eth0?)\n"},
      {{"perf", "-n", "1", "-o", "cpus"}, 2, "ravctl: perf: no such column: cpus (did you mean cpu?)\n"},
  };
  const ToolRoot machine;
  Fill(machine);
  for (const Row& row : rows) {
    const ToolResult result = machine.Ravctl(row.arguments);
    EXPECT_EQ(result.status, row.status) << row.line;
    EXPECT_THAT(result.err, HasSubstr(row.line));
    EXPECT_EQ(result.out, "") << row.line;
  }
  for (const char* bad : {"--interval=0", "--interval=x", "--count=-1"})
    EXPECT_EQ(machine.Ravctl({"perf", bad}).status, 2) << bad;
}

TEST(PerfTop, FillsTheWindowAndFollowsItsSize) {
  const ToolRoot machine;
  Fill(machine);
  const PseudoTerminal pair;
  machine.Run(
      [&] {
        Terminal terminal(pair, 24, 80, "A=");
        ASSERT_TRUE(terminal.ShowsGraph()) << terminal.Sent();
        EXPECT_TRUE(terminal.Until([](const Picture& picture) { return picture.Line(17).starts_with("eth0"); }));
        EXPECT_THAT(terminal.Shown().Line(0), ::testing::EndsWith("q quits"));
        EXPECT_TRUE(terminal.Until([](const Picture& picture) {
          return picture.Line(23).find("│") != std::string::npos && picture.Line(23).ends_with("▁");
        }));
        Rewrite("/proc/stat", kBusyStat);
        EXPECT_TRUE(terminal.Until(
            [](const Picture& picture) { return picture.Line(1).find("50%   user 30%  kernel 20%") == 9; }));
        EXPECT_TRUE(terminal.Shown().HasColors());
        for (const auto& [lines, columns] : {std::pair<unsigned short, unsigned short>{6, 50}, {3, 12}, {60, 200}}) {
          terminal.Resize(lines, columns);
          ASSERT_TRUE(terminal.ShowsGraph()) << lines;
          const size_t last = lines == 6 ? 3 : lines - 1;
          const char* text = lines == 6 ? "eth0     0B/s 0B/s" : lines == 3 ? "2 more: enla" : "│";
          EXPECT_TRUE(terminal.Until([&](const Picture& picture) {
            return picture.Line(last).find(text) != std::string::npos;
          })) << terminal.Shown().Line(last);
        }
        terminal.Type("q");
        EXPECT_EQ(terminal.Report(), "0 ");
        EXPECT_THAT(terminal.Sent(), HasSubstr(kBackToOldScreen));
      },
      FixtureRoot::kUsr);
}

TEST(PerfTop, GivesTheTerminalBackOnEveryWayOut) {
  const ToolRoot machine;
  Fill(machine);
  const PseudoTerminal pairs[4];
  machine.Run(
      [&] {
        const PseudoTerminal* pair = pairs;
        for (const int signal : {SIGTERM, SIGINT, SIGHUP}) {
          Terminal terminal(*pair++, 24, 80, "NO_COLOR=1");
          ASSERT_TRUE(terminal.ShowsGraph()) << terminal.Sent();
          ::kill(terminal.Tool(), signal);
          EXPECT_EQ(terminal.Report(), "0 ") << signal;
          const std::string& sent = terminal.Sent();
          EXPECT_GT(sent.rfind(kBackToOldScreen) + 1, sent.rfind("CPU") + 1) << signal;
          EXPECT_GT(sent.rfind(kShowCursor) + 1, sent.rfind("CPU") + 1) << signal;
          EXPECT_FALSE(terminal.Shown().HasColors());
        }
        Terminal terminal(*pair, 24, 80, "A=");
        ASSERT_TRUE(terminal.ShowsGraph());
        terminal.Type("\x1a");  // the stop key; the shell lets it go on at once
        const std::string firstWay = kBackToOldScreen;
        ASSERT_TRUE(terminal.Until([&](const Picture&) {
          const size_t left = terminal.Sent().find(firstWay);
          return left != std::string::npos && terminal.Sent().find("CPU", left) != std::string::npos;
        }));
        terminal.Type("q");
        EXPECT_EQ(terminal.Report(), "stopped 0 ");
      },
      FixtureRoot::kUsr);
}

TEST(PerfTop, RefusesWhatItCannotDraw) {
  const ToolRoot machine;
  Fill(machine);
  const PseudoTerminal pairs[4];
  machine.Run(
      [&] {
        const PseudoTerminal* pair = pairs;
        for (const char* type : {"TERM=dumb", "TERM=unheard-of", "A="}) {
          Terminal terminal(*pair++, 24, 200, "B=", type);
          EXPECT_EQ(terminal.Report(), "2 ") << type;
          EXPECT_THAT(terminal.Sent(), HasSubstr("perf top: the terminal cannot be drawn on: TERM=")) << type;
        }
        Terminal terminal(*pair, 24, 80, "A=", "TERM=xterm", "eth9");
        EXPECT_EQ(terminal.Report(), "1 ");
        EXPECT_THAT(terminal.Sent(), HasSubstr("no such interface among those that are sampled: eth9"));
      },
      FixtureRoot::kUsr);
}
