#include "perfmon/perf_mon.h"

#include <gtest/gtest.h>
#include <linux/ethtool.h>
#include <linux/sockios.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "support/fake_ioctl.h"
#include "support/fixture_root.h"
#include "support/trace_capture.h"

namespace {

constexpr unsigned int kAllKinds = 0xF80F;
constexpr const char* kHeadings = "Inter-|   Receive    |  Transmit\n face |bytes    packets|bytes    packets\n";
constexpr const char* kMemInfo =
    "MemTotal: 8388608 kB\nMemFree: 6291456 kB\nSwapTotal: 8388608 kB\nSwapFree: 8388608 kB\n";

std::string NetDevText(const std::string& name, unsigned long received) {
  return "  " + name + ": " + std::to_string(received) + " 2 3 4 5 6 7 8 9 10 11 12 13 14 15 16\n";
}

void WriteFile(const char* path, const std::string& text) {
  std::ofstream(path, std::ios::trunc) << text;
}

// Every interface but en9 exists; eth* run at 1000 Mb/s, the others do not tell.
std::optional<int> AnswerForInterfaces(const std::string&, unsigned long request, void* argument) {
  const auto* question = static_cast<const ifreq*>(argument);
  if (request == SIOCGIFFLAGS) return std::strcmp(question->ifr_name, "en9") == 0 ? -ENODEV : 0;
  if (request != SIOCETHTOOL) return std::nullopt;
  if (std::strncmp(question->ifr_name, "eth", 3) != 0) return -EOPNOTSUPP;
  ethtool_cmd_speed_set(reinterpret_cast<ethtool_cmd*>(question->ifr_data), 1000);
  return 0;
}

// Percentage and result of both queries: "current 25, average 25". '!' marks a false result.
std::string Percents(CPerfMon& monitor, unsigned int value, int instance) {
  const char* const names[] = {"current ", ", average "};
  std::string text;
  for (int mode = 0; mode < 2; ++mode) {
    unsigned char percent = 77;
    const bool done = monitor.GetUsagePercent(percent, CPerfMon::PerfMonitorValue{value}, mode, instance);
    text += names[mode] + std::to_string(percent) + (done ? "" : "!");
  }
  return text;
}

std::vector<std::string> LinesOfMonitor(const TraceCapture& trace) {
  std::vector<std::string> lines;
  for (const std::string& line : trace.Lines()) {
    const bool ofThread = line.find("::Thread") != std::string::npos || line.starts_with("CThread");
    if (!ofThread && (line[0] == 'C' || line.starts_with("Get"))) lines.push_back(line);
  }
  return lines;
}

class ThreadGroup {
 public:
  template <typename Body>
  void Add(Body body) {
    m_Threads.emplace_back([this, body] {
      while (!m_Stop)
        body();
    });
  }
  ~ThreadGroup() {
    m_Stop = true;
    for (std::thread& thread : m_Threads)
      thread.join();
  }

 private:
  std::atomic<bool> m_Stop = false;
  std::vector<std::thread> m_Threads;
};

}  // namespace

TEST(CPerfMon, TracesAndAnswersFromStartToStop) {
  FixtureRoot root;
  root.WriteFile("/proc/meminfo", kMemInfo);
  root.WriteFile("/proc/stat", "cpu  100 0 100 800 0\ncpu0 1 1 1 1\n");
  root.WriteFile("/proc/net/dev", kHeadings + NetDevText("lo", 1) + NetDevText("eth0", 0));
  root.Run([] {
    const FakeIoctl interfaces(AnswerForInterfaces);
    TraceCapture trace(5);
    CPerfMon monitor(2);
    ASSERT_TRUE(monitor.StartMonitoring(kAllKinds, 0));
    const std::vector<std::string> expected = {
        "CPerfMon::Start     : Start performance monitoring, update time = 0 msec.",
        "CPerfMon::Start     :   - monitor memory usage",
        "CDataHistoryBuffer  :   - create history buffer with 2 elements for 1 instances",
        "CPerfMon::Start     :   - monitor system utilization",
        "CDataHistoryBuffer  :   - create history buffer with 2 elements for 1 instances",
        "CPerfMon::Start     :   - monitor CPU usage",
        "CPerfMon::Start     :   - monitor network usage",
        "GetInterface: INFO: LAN interface names: isOVM3 = false.",
        "CNetworkInterfaceTable: GetNumberInterfaces() = 2",
        "CDataHistoryBuffer  :   - create history buffer with 2 elements for 2 instances",
        "CPerfMon::Start     :   - monitor processes",
        "CPerfMon::SnapData  :   update snapshot counters...",
        "CPerfMon::SnapData  :   - update memory usage",
        "CPerfMon::SnapData  :   - memory history: 1 entries",
        "CPerfMon::SnapData  :   - update system usage",
        "CPerfMon::SnapData  :   - update CPU usage for 0 instances",
        "CPerfMon::SnapData  :   - update network usage for 2 instances",
        "CNetworkInterfaceStatistics::GetStatistikAtIndex: interface for Index=1 not found",
        "CPerfMon::SnapData  :   - update processes",
        "CPerfMon::SnapData  : update snapshot data finished",
        "CPerfMon::SnapData  :   update snapshot counters...",
        "CPerfMon::SnapData  :   - update memory usage",
        "CPerfMon::SnapData  :   - memory history: 2 entries",
        "CPerfMon::SnapData  :   - update system usage",
        "GetPerfDataSystem: Total=0, User=0, Kern=0, Idle=0",
        "CPerfMon::SnapData  :   - system history: 1 entries",
        "CPerfMon::SnapData  :   - update CPU usage for 0 instances",
        "CPerfMon::SnapData  :   - update network usage for 2 instances",
        "CPerfMon::SnapData  :   - network history[00]: 1 entries",
        "CNetworkInterfaceStatistics::GetStatistikAtIndex: interface for Index=1 not found",
        "CPerfMon::SnapData  :   - update processes",
        "CPerfMon::SnapData  : update snapshot data finished",
        "CPerfMon::Start     :   start monitoring thread",
    };
    EXPECT_EQ(LinesOfMonitor(trace), expected);

    WriteFile("/proc/stat", "cpu  120 10 120 850 0\n");
    WriteFile("/proc/net/dev", kHeadings + NetDevText("eth0", 4000000000));
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    monitor.SnapshotData(kAllKinds);
    EXPECT_TRUE(trace.Has("GetPerfDataSystem: Total=100, User=30, Kern=20, Idle=50"));
    trace.Clear();
    EXPECT_EQ(Percents(monitor, 0, 0), "current 50, average 25");
    EXPECT_EQ(trace.Count("CDataHistoryBuffer  : Requested item: Instance 0, Index 1 Max: Instance 1"), 2);
    EXPECT_EQ(Percents(monitor, 1, -1), "current 50, average 25");
    EXPECT_EQ(Percents(monitor, 2, 0), "current 30, average 15");
    EXPECT_EQ(Percents(monitor, 3, 0), "current 20, average 10");
    EXPECT_EQ(Percents(monitor, 8, 0), "current 13, average 13");
    EXPECT_EQ(Percents(monitor, 9, 0), "current 25, average 25");
    EXPECT_EQ(Percents(monitor, 12, 0), "current 100, average 100");
    EXPECT_EQ(Percents(monitor, 11, 0), "current 0, average 0");
    EXPECT_EQ(Percents(monitor, 12, 1), "current 0, average 0");
    for (const auto& [value, instance] : std::vector<std::pair<unsigned int, int>>{
             {0, 1}, {8, 1}, {12, 2}, {9, -2}, {4, 0}, {7, -1}, {13, 0}, {20, getpid()}, {21, 0}}) {
      EXPECT_EQ(Percents(monitor, value, instance), "current 0!, average 0!") << value << ' ' << instance;
    }
    unsigned char percent = 77;
    EXPECT_FALSE(monitor.GetUsagePercent(percent, CPerfMon::cpuUsed, 2, 0));
    EXPECT_EQ(percent, 77);

    trace.Clear();
    monitor.StopMonitoring();
    EXPECT_EQ(LinesOfMonitor(trace), (std::vector<std::string>{"CPerfMon::Stop      : Stop performance monitoring",
                                                               "CPerfMon::Stop      :   monitoring thread terminated",
                                                               "CPerfMon::Stop      :   history data destroyed"}));
    EXPECT_EQ(Percents(monitor, 0, -1), "current 0!, average 0!");
  });
}

TEST(CPerfMon, UnreadableFilesAreTracedAndLeaveNoRecord) {
  FixtureRoot root;
  root.WriteFile("/proc/net/dev", kHeadings + NetDevText("eth0", 1));
  root.Run([] {
    const FakeIoctl interfaces(AnswerForInterfaces);
    const TraceCapture trace(3);
    CPerfMon monitor(5);
    ASSERT_TRUE(monitor.StartMonitoring(13, 0));
    EXPECT_TRUE(trace.Has("CPerfData::GetMemoryDataSnapShot: cannot open /proc/meminfo (errno=2)"));
    EXPECT_TRUE(trace.Has("CPerfData::GetSystemLoadSnapShot: cannot open /proc/stat (errno=2)"));
    WriteFile("/proc/meminfo", "MemTotal: 1 kB\n");
    WriteFile("/proc/stat", "cpu  1 2\n");
    WriteFile("/proc/net/dev", kHeadings + std::string("eth0: 1 2 3\n"));
    monitor.SnapshotData(13);
    EXPECT_TRUE(trace.Has("CPerfData::GetMemoryDataSnapShot: cannot get all values from /proc/meminfo"));
    EXPECT_TRUE(trace.Has("CPerfData::GetSystemLoadSnapShot: cannot get System Load values from /proc/stat (ret=2)"));
    EXPECT_TRUE(
        trace.Has("CNetworkInterfaceStatistics::GetStatistikAtIndex: cannot get Network Load values from "
                  "/proc/net/dev (ret=3)"));
    EXPECT_EQ(Percents(monitor, 9, 0), "current 0, average 0");
    // An empty file is looked for anew: it may have been replaced, or its owner may have gone.
    WriteFile("/proc/net/dev", "");
    unlink("/proc/net/dev");
    monitor.SnapshotData(4);
    EXPECT_TRUE(trace.Has("CNetworkInterfaceStatistics::GetStatistikAtIndex: cannot open /proc/net/dev (errno=2)"));
    // What is wanted stands behind more text than one reading takes, in a line without an end.
    std::string memInfo;
    for (int line = 0; line < 20000; ++line)
      memInfo += "Junk" + std::string(static_cast<size_t>(line % 300), 'x') + ": 1 kB\n";
    WriteFile("/proc/meminfo", memInfo + "MemTotal: 100 kB\nMemFree: 50 kB\nSwapTotal: 0 kB\nSwapFree: 0");
    monitor.SnapshotData(8);
    EXPECT_EQ(Percents(monitor, 9, 0), "current 50, average 50");
  });
}

TEST(CPerfMon, StartsOnlyWithAKindThatIsSampled) {
  FixtureRoot root;
  root.Run([] {
    const TraceCapture trace(3);
    CPerfMon monitor(5);
    for (const int mask : {0, 2, 4, 16})
      EXPECT_FALSE(monitor.StartMonitoring(mask, 1000)) << mask;
    EXPECT_TRUE(trace.Has("CNetworkInterfaceTable: GetNumberInterfaces() = 255"));
    EXPECT_FALSE(monitor.IsStarted());
    EXPECT_TRUE(monitor.StartMonitoring(0x1000, 1000));
    monitor.StopMonitoring();
    EXPECT_FALSE(monitor.StartMonitoring(2, 1000));
  });
}

TEST(CNetworkInterfaceTable, CountsLanNamesThatTheKernelKnows) {
  FixtureRoot root;
  root.WriteFile("/proc/net/dev",
                 "eth8: 1\neth9: 1\n  lo: 1\neth0:123\n em1: 1\np2p1: 1\nen9: 1\n  wlan0: 1 2\nps: 1\n eth1:1: 1\n");
  root.Run([] {
    const FakeIoctl interfaces(AnswerForInterfaces);
    const TraceCapture trace(4);
    EXPECT_EQ(CNetworkInterfaceTable::GetInterface(0, nullptr, 1), 5);
    EXPECT_TRUE(trace.Has("GetInterface: INFO: LAN interface names: isOVM3 = false."));
    EXPECT_TRUE(trace.Has("GetInterface: Filtering out interface from line:   wlan0: 1 2"));
    EXPECT_EQ(trace.Count("Filtering out"), 2);
    CNetworkInterfaceTable::interface entry {};
    EXPECT_EQ(CNetworkInterfaceTable::GetInterface(4, &entry, 0), 1);
    EXPECT_STREQ(entry.name, "eth1:1");
    EXPECT_EQ(CNetworkInterfaceTable::GetInterface(5, &entry, 0), 0);
    setenv("QN_NICKNAME", "xOVM3y", 1);
    EXPECT_EQ(CNetworkInterfaceTable::GetInterface(0, nullptr, 1), 7);
    EXPECT_TRUE(trace.Has("GetInterface: INFO: LAN interface names: isOVM3 = true."));
    std::string many = kHeadings;
    for (int number = 0; number < 300; ++number)
      many += NetDevText("eth" + std::to_string(number), 1);
    WriteFile("/proc/net/dev", many);
    EXPECT_EQ(CNetworkInterfaceTable::GetInterface(0, nullptr, 1), 254);
    unlink("/proc/net/dev");
    EXPECT_EQ(CNetworkInterfaceTable::GetInterface(0, nullptr, 1), 255);
    EXPECT_TRUE(trace.Has("GetInterface: ERROR: cannot open /proc/net/dev"));
  });
}

// The kernel gives a long list in several pieces.
TEST(CPerfMon, SamplesAHundredRealInterfaces) {
  const FixtureRoot root;
  root.Run(
      [] {
        const int before = CNetworkInterfaceTable::GetInterface(0, nullptr, 1);
        const char* addPairs =
            "for i in $(seq 50); do echo link add eth$i type veth peer name en$i; done | ip -batch - 2>/dev/null";
        if (std::system(addPairs) != 0) return WriteFile("/skipped", "");
        CPerfMon monitor(5);
        ASSERT_TRUE(monitor.StartMonitoring(CPerfMon::network, 0));
        EXPECT_EQ(Percents(monitor, 10, before + 99), "current 0, average 0");
        EXPECT_EQ(Percents(monitor, 10, before + 100), "current 0!, average 0!");
        const TraceCapture trace(5);
        monitor.SnapshotData(CPerfMon::network);
        EXPECT_TRUE(trace.Has("CPerfMon::SnapData  :   - network history[99]: 2 entries"));
        EXPECT_EQ(trace.Count("not found"), before);
      },
      FixtureRoot::kUsr | FixtureRoot::kProc | FixtureRoot::kNetwork);
  if (root.Exists("/skipped")) GTEST_SKIP() << "no virtual interfaces can be made here";
}

TEST(CProcFile, AForkedProcessReadsItsOwnFile) {
  CProcFile file("/proc/self/stat", 16);
  const auto isOwn = [&file] {
    if (!file.Start()) return false;
    while (file.More()) {
    }
    return file.Text().starts_with(std::to_string(getpid()) + " ");
  };
  EXPECT_TRUE(isOwn());
  const pid_t child = fork();
  if (child == 0) _exit(isOwn() ? 0 : 1);
  int status = -1;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  EXPECT_EQ(status, 0);
  EXPECT_TRUE(isOwn());
}

TEST(CPerfMon, CpuLoadAgreesWithTheKernelsOwnCount) {
  const auto readTicks = [] {
    std::ifstream stat("/proc/stat");
    std::string cpu;
    std::array<double, 4> ticks{};
    stat >> cpu >> ticks[0] >> ticks[1] >> ticks[2] >> ticks[3];
    return ticks;
  };
  CPerfMon monitor(5);
  ASSERT_TRUE(monitor.StartMonitoring(CPerfMon::systemCpu, 0));
  ThreadGroup load;
  load.Add([] {});
  monitor.SnapshotData(CPerfMon::systemCpu);
  const auto before = readTicks();
  std::this_thread::sleep_for(std::chrono::milliseconds(1000));
  monitor.SnapshotData(CPerfMon::systemCpu);
  const auto after = readTicks();
  const double idle = after[3] - before[3];
  const double busy = after[0] + after[1] + after[2] - before[0] - before[1] - before[2];
  unsigned char percent = 0;
  ASSERT_TRUE(monitor.GetCurrentPercent(CPerfMon::cpuUsed, percent, 0));
  EXPECT_NEAR(percent, 100 * busy / (busy + idle), 6);
  EXPECT_GT(percent, 0);
}

TEST(CPerfMon, StopsAtOnceAndStartsAgainWithOtherKinds) {
  for (int round = 0; round < 2; ++round) {
    CPerfMon monitor(5);
    monitor.StopMonitoring();
    ASSERT_TRUE(monitor.StartMonitoring(CPerfMon::memory, kWaitForever));
    EXPECT_TRUE(monitor.StartMonitoring(CPerfMon::systemCpu, kWaitForever));
    EXPECT_TRUE(monitor.IsStarted());
    EXPECT_EQ(Percents(monitor, 0, 0), "current 0!, average 0!");
    monitor.StopMonitoring();
    monitor.StopMonitoring();
    EXPECT_FALSE(monitor.IsStarted());
    ASSERT_TRUE(monitor.StartMonitoring(CPerfMon::systemCpu, kWaitForever));
    EXPECT_EQ(Percents(monitor, 9, 0), "current 0!, average 0!");
    unsigned char percent = 0;
    EXPECT_TRUE(monitor.GetCurrentPercent(CPerfMon::cpuIdle, percent, 0));
  }  // destroyed while monitoring
}

TEST(CPerfMon, QueriesStartsAndStopsMayMeet) {
  CPerfMon monitor(8);
  ThreadGroup threads;
  for (int thread = 0; thread < 2; ++thread) {
    threads.Add([&monitor] {
      for (unsigned int value = 0; value < 14; ++value)
        Percents(monitor, value, -1);
    });
  }
  threads.Add([&monitor] {
    monitor.StartMonitoring(13, 2);
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  });
  for (int round = 0; round < 3; ++round) {
    EXPECT_TRUE(monitor.StartMonitoring(13, 1));
    monitor.SnapshotData(13);
    monitor.StopMonitoring();
  }
}
