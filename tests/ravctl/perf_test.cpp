// perf over files of /proc that a test wrote.

#include <poll.h>
#include <sys/inotify.h>

#include "netif/private_network.h"
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

// The tool, after the two readings with which its monitor begins, and a moment more for the traffic.
pid_t StartSampling(const CommandLine& words) {
  const int readings = ::inotify_init1(IN_CLOEXEC);
  EXPECT_GE(::inotify_add_watch(readings, "/proc/stat", IN_CLOSE_NOWRITE), 0);
  const pid_t tool = StartRavctl(words);
  for (int number = 0; number < 2; ++number) {
    pollfd reading{readings, POLLIN, 0};
    inotify_event event;
    EXPECT_EQ(::poll(&reading, 1, 30000), 1);
    EXPECT_EQ(::read(readings, &event, sizeof event), static_cast<ssize_t>(sizeof event));
  }
  ::close(readings);
  ::usleep(400000);
  return tool;
}

void Fill(const ToolRoot& machine) {
  machine.WriteFile("/proc/stat", kStat);
  machine.WriteFile("/proc/meminfo", kMemInfo);
  machine.WriteFile("/proc/net/dev", NetDev(1000, 2000));
}

}  // namespace

TEST(Perf, OnceOverTwoStates) {
  if (!std::filesystem::exists("/usr/sbin/ip")) GTEST_SKIP() << "iproute2 is not installed";
  const ToolRoot machine;
  Fill(machine);
  machine.Run(FixtureRoot::kUsr | FixtureRoot::kNetwork, [] {
    Ip("link add eth0 type veth peer name peer");  // a link of 10 Gbit/s
    const pid_t tool = StartSampling("perf --interval 2 --json");
    WriteWholeFile("/proc/stat", kBusyStat);
    WriteWholeFile("/proc/meminfo", "MemTotal: 8192 kB\nMemFree: 4096 kB\nSwapTotal: 8192 kB\nSwapFree: 8192 kB\n");
    WriteWholeFile("/proc/net/dev", NetDev(1000 + 655360000, 2000 + 262144000));
    const ToolResult result = WaitForRavctl(tool);
    EXPECT_EQ(result.status, 0) << result.err;
  });
  const json answer = json::parse(machine.ReadFile("/tmp/out"));
  ExpectValid(answer);
  const json& data = answer["data"];
  EXPECT_EQ(Members(data["cpu"], "used_percent user_percent kernel_percent idle_percent"), "50, 30, 20, 50");
  EXPECT_EQ(Members(data["memory"], "physical_percent physical_used virtual_percent virtual_total"),
            "50, 4194304, 25, 16777216");
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
  machine.Run(FixtureRoot::kUsr, [] {
    const pid_t tool = StartSampling("perf --count 2 --interval 1.5 --json");
    WriteWholeFile("/proc/stat", kBusyStat);
    EXPECT_EQ(WaitForRavctl(tool).status, 4);  // nothing changed for the second row
  });
  std::istringstream lines(machine.ReadFile("/tmp/out"));
  std::vector<json> rows;
  for (std::string line; std::getline(lines, line);)
    rows.push_back(json::parse(line));
  ASSERT_EQ(rows.size(), 2U);
  for (const json& row : rows)
    ExpectValid(row);
  EXPECT_EQ(Members(rows[0], "data/cpu/used_percent warnings"), "50, []");
  EXPECT_EQ(Members(rows[1], "data/cpu/used_percent warnings/0/where"), "-, /proc/stat");

  const ToolResult text = machine.Ravctl("perf -n 2 --interval 0.1 -o memory,received,eth0.sent,cpu");
  EXPECT_EQ(text.out, "MEMORY      IN eth0-OUT  CPU\n   25%    0B/s     0B/s    -\n   25%    0B/s     0B/s    -\n");
  machine.Remove("/proc/meminfo");
  const ToolResult once = machine.Ravctl("perf");
  EXPECT_EQ(once.status, 4);
  EXPECT_THAT(once.err, HasSubstr("ravctl: warning: the use of the memory cannot be told: /proc/meminfo\n"));
  EXPECT_THAT(once.out, HasSubstr("memory  physical    - -\n"));
  EXPECT_THAT(once.out, HasSubstr("network eth0        - in 0B/s, out 0B/s\n"));
}

TEST(Perf, BadCommandLines) {
  const Fault faults[] = {
      {"-i eth1", 1, "perf: no such interface among those that are sampled: eth1 (did you mean eth0?)"},
      {"-n 1 -o cpus", 2, "perf: no such column: cpus (did you mean cpu?)"},
  };
  const ToolRoot machine;
  Fill(machine);
  ExpectFaults(machine, "perf", faults);
}
