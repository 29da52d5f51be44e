#include "perfmon/perf_mon.h"

#include <linux/ethtool.h>
#include <linux/sockios.h>
#include <net/if.h>

#include <chrono>
#include <fstream>

#include "perfmon/net_dev.h"
#include "perfmon/network_interface_table.h"
#include "support/fake_ioctl.h"
#include "support/trace_capture.h"

namespace {

constexpr auto kNetDev = "Inter-|\n face |bytes\n lo: 1\neth0: 100 2 3 4 5 6 7 8 9 10 11 12 13 14 15 16\n";

// Every interface but en9 exists and runs at 1000 Mb/s.
std::optional<int> AnswerForInterfaces(const std::string&, unsigned long request, void* argument) {
  const auto* question = static_cast<const ifreq*>(argument);
  if (request == SIOCGIFFLAGS) return std::string(question->ifr_name) == "en9" ? -ENODEV : 0;
  if (request != SIOCETHTOOL) return std::nullopt;
  ethtool_cmd_speed_set(reinterpret_cast<ethtool_cmd*>(question->ifr_data), 1000);
  return 0;
}

// What the two queries answer, current/average; '!' for false. "50/25 0!/0! "
std::string Percents(CPerfMon& monitor, const std::vector<std::pair<unsigned int, int>>& valuesAndInstances) {
  std::string text;
  for (const auto& [value, instance] : valuesAndInstances) {
    for (const int mode : {0, 1}) {
      unsigned char percent = 77;
      const bool done = monitor.GetUsagePercent(percent, CPerfMon::PerfMonitorValue{value}, mode, instance);
      text += std::to_string(percent) + (done ? "" : "!") + (mode == 0 ? "/" : " ");
    }
  }
  return text;
}

// What was traced up to the end of the first sample, but for the thread: the texts behind the known names.
std::string LinesOfMonitor(const TraceCapture& trace) {
  std::string lines;
  for (const std::string& line : trace.Lines()) {
    for (const std::string name : {"CPerfMon::Start     : ", "CPerfMon::SnapData  : ", "CPerfMon::Stop      : ",
                                   "CDataHistoryBuffer  : ", "CNetworkInterface", "GetInterface: "}) {
      if (line.starts_with(name)) lines += line.substr(name.size()) + '|';
    }
    if (line.ends_with("finished")) break;
  }
  return lines;
}

}  // namespace

using PerfMon = RootedTest;

TEST_F(PerfMon, TracesAndAnswersFromStartToStop) {
  root.WriteFile("/proc/meminfo", "MemTotal: 8 kB\nMemFree: 6 kB\nSwapTotal: 8 kB\nSwapFree: 8 kB\n");
  root.WriteFile("/proc/stat", "cpu  100 0 100 800 0\ncpu0 1 1 1 1\n");
  root.WriteFile("/proc/net/dev", kNetDev);
  root.Run([] {
    ::alarm(100);
    const FakeIoctl interfaces(AnswerForInterfaces);
    TraceCapture trace(5);
    CPerfMon monitor(2);
    ASSERT_TRUE(monitor.StartMonitoring(0xF80F, 0));
    EXPECT_EQ(LinesOfMonitor(trace),
              "Start performance monitoring, update time = 0 msec.|  - monitor memory usage|"
              "  - create history buffer with 2 elements for 1 instances|  - monitor system utilization|"
              "  - create history buffer with 2 elements for 1 instances|  - monitor CPU usage|"
              "  - monitor network usage|INFO: LAN interface names: isOVM3 = false.|Table: GetNumberInterfaces() = 2|"
              "  - create history buffer with 2 elements for 2 instances|  - monitor processes|"
              "  update snapshot counters...|  - update memory usage|  - memory history: 1 entries|"
              "  - update system usage|  - update CPU usage for 0 instances|  - update network usage for 2 instances|"
              "Statistics::GetStatistikAtIndex: interface for Index=1 not found|  - update processes|"
              "update snapshot data finished|");
    EXPECT_TRUE(trace.Has("CPerfMon::SnapData  :   - system history: 1 entries"));
    WriteWholeFile("/proc/stat", "cpu  120 10 120 850 0\n");
    WriteWholeFile("/proc/net/dev", "eth0: 4000000000 2 3 4 5 6 7 8 9 10 11 12 13 14 15 16\n");
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    monitor.SnapshotData(0xF80F);
    EXPECT_TRUE(trace.Has("GetPerfDataSystem: Total=100, User=30, Kern=20, Idle=50"));
    EXPECT_EQ(Percents(monitor, {{0, 0}, {1, -1}, {2, 0}, {3, 0}, {8, 0}, {9, 0}}),
              "50/25 50/25 30/15 20/10 13/13 25/25 ");
    EXPECT_EQ(trace.Count("CDataHistoryBuffer  : Requested item: Instance 0, Index 1 Max: Instance 1"), 12);
    EXPECT_EQ(Percents(monitor, {{10, 0}, {11, 0}, {12, 0}, {12, 1}}), "100/100 0/0 100/100 0/0 ");
    EXPECT_EQ(Percents(monitor, {{0, 1}, {12, 2}, {9, -2}, {4, 0}, {7, -1}, {13, 0}, {21, 0}}),
              "0!/0! 0!/0! 0!/0! 0!/0! 0!/0! 0!/0! 0!/0! ");
    unsigned char percent = 77;
    EXPECT_FALSE(monitor.GetUsagePercent(percent, CPerfMon::cpuUsed, 2, 0));
    EXPECT_EQ(percent, 77);
    EXPECT_EQ(trace.Count("Start a thread, Prio=63, Suspend=0, StackSize=0x00000000, Waitable=1"), 1);
    trace.Clear();
    monitor.StopMonitoring();
    EXPECT_EQ(LinesOfMonitor(trace),
              "Stop performance monitoring|  monitoring thread terminated|  history data destroyed|");
    // What went on while nothing was monitored is in no sample.
    WriteWholeFile("/proc/stat", "cpu  220 10 120 850 0\n");
    WriteWholeFile("/proc/net/dev", "eth0: 8000000000 2 3 4 5 6 7 8 9 10 11 12 13 14 15 16\n");
    ASSERT_TRUE(monitor.StartMonitoring(CPerfMon::systemCpu | CPerfMon::network, 0));
    EXPECT_EQ(Percents(monitor, {{0, 0}, {12, 0}}), "0/0 0/0 ");
    WriteWholeFile("/proc/net/dev", "eth0: 8000000000 2 3 4 5 6 7 8 4000000009 10 11 12 13 14 15 16\n");
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    monitor.SnapshotData(CPerfMon::network);
    EXPECT_EQ(Percents(monitor, {{10, 0}, {11, 0}, {12, 0}}), "100/100 100/100 0/0 ");
    monitor.StopMonitoring();
    // The thread of a further start goes on from sample to sample and takes up a new interval.
    trace.Clear();
    // Without an interval it ends; with one there is a thread again.
    for (const auto& [interval, text] :
         std::vector<std::pair<unsigned int, std::string>>{{1, "updated, sleeping 1 msec."},
                                                           {2, "updated, sleeping 2 msec."},
                                                           {0, "exited"},
                                                           {3, "sleeping 3 msec."}}) {
      ASSERT_TRUE(monitor.StartMonitoring(CPerfMon::memory, interval));
      while (trace.Count(text) < (interval == 1 ? 3 : 1))
        std::this_thread::yield();
    }
    monitor.StopMonitoring();
    EXPECT_EQ(trace.Count("exited, Return = 0x00000000##"), 2);
  });
}

// Otherwise one interface would be answered for with the counters of another.
TEST_F(PerfMon, AnInterfaceThatIsNewAtItsPlaceBeginsAnew) {
  root.WriteFile("/proc/net/dev", "");
  root.Run([] {
    const FakeIoctl interfaces(AnswerForInterfaces);
    const TraceCapture trace(5);
    CPerfMon monitor(5);
    const auto sample = [&monitor](uint64_t eth0, uint64_t eth1) {
      std::string text = "Inter-|\n face |bytes\n";
      for (const auto& [name, bytes] : {std::pair{"eth0", eth0}, std::pair{"eth1", eth1}}) {
        if (bytes != 0) text += std::string(name) + ": " + std::to_string(bytes) + " 2 3 4 5 6 7 8 9 1 1 1 1 1 1 1\n";
      }
      WriteWholeFile("/proc/net/dev", text);
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
      if (monitor.IsStarted()) monitor.SnapshotData(CPerfMon::network);
      return Percents(monitor, {{12, 0}, {12, 1}});
    };
    sample(100, 4000000000);
    ASSERT_TRUE(monitor.StartMonitoring(CPerfMon::network, 0));
    EXPECT_EQ(sample(100, 4200000000), "0/0 100/100 ");
    EXPECT_EQ(sample(0, 4200000000), "0/0 100/100 ") << "eth0 is gone, and eth1 is the first";
    EXPECT_EQ(sample(0, 4200000000), "0/0 100/100 ");
    EXPECT_TRUE(trace.Has("CPerfMon::SnapData  :   - network history[00]: 1 entries"));
    EXPECT_EQ(sample(5, 200), "0/0 100/100 ") << "both are made anew";
    EXPECT_EQ(sample(5, 200), "0/0 0/100 ");
  });
}

TEST_F(PerfMon, UnreadableFilesAreTracedAndLeaveNoRecord) {
  root.WriteFile("/proc/net/dev", kNetDev);
  root.Run([] {
    const FakeIoctl interfaces(AnswerForInterfaces);
    const TraceCapture trace(3);
    CPerfMon monitor(5);
    EXPECT_FALSE(monitor.StartMonitoring(CPerfMon::perCpu | CPerfMon::processes, 1000));
    EXPECT_TRUE(monitor.StartMonitoring(13, 0));
    EXPECT_TRUE(trace.Has("CPerfData::GetMemoryDataSnapShot: cannot open /proc/meminfo (errno=2)"));
    EXPECT_TRUE(trace.Has("CPerfData::GetSystemLoadSnapShot: cannot open /proc/stat (errno=2)"));
    WriteWholeFile("/proc/meminfo", "MemTotal: 1 kB\n");
    WriteWholeFile("/proc/stat", "cpu  1 2\n");
    WriteWholeFile("/proc/net/dev", "eth0: 1 2 3\n");
    monitor.SnapshotData(13);
    EXPECT_TRUE(trace.Has("CPerfData::GetMemoryDataSnapShot: cannot get all values from /proc/meminfo"));
    EXPECT_TRUE(trace.Has("CPerfData::GetSystemLoadSnapShot: cannot get System Load values from /proc/stat (ret=2)"));
    EXPECT_EQ(trace.Count("GetStatistikAtIndex: cannot get Network Load values from /proc/net/dev (ret=3)"), 1);
    std::filesystem::remove("/proc/net/dev");
    monitor.SnapshotData(4);
    EXPECT_EQ(trace.Count("GetStatistikAtIndex: cannot open /proc/net/dev (errno=2)"), 1);
    // What is wanted stands behind more text than one reading takes, and the last line has no end.
    const std::string junk(100000, 'x');
    WriteWholeFile("/proc/other", junk + "\nMemTotal: 100 kB\nMemFree: 50 kB\nSwapTotal: 0 kB\nSwapFree: 0");
    std::filesystem::rename("/proc/other", "/proc/meminfo");  // as when another file system is mounted there
    monitor.SnapshotData(8);
    EXPECT_EQ(Percents(monitor, {{9, 0}}), "50/50 ");
  });
}

TEST(CNetworkInterfaceTable, CountsLanNamesThatTheKernelKnows) {
  FixtureRoot root;
  root.WriteFile("/proc/net/dev",
                 "eth8: 1\neth9: 1\n lo: 1\neth0:123\n em1: 1\np2p1: 1\nen9: 1\n wlan0: 1 2\nps: 1\nmic0: 1\n");
  root.Run([] {
    const FakeIoctl interfaces(AnswerForInterfaces);
    const TraceCapture trace(4);
    EXPECT_EQ(CNetworkInterfaceTable::GetInterface(0, nullptr, 1), 5);
    EXPECT_EQ(ReadLinkSpeed(0, "eth0"), 131072000U);
    EXPECT_TRUE(trace.Has("GetInterface: Filtering out interface from line:  wlan0: 1 2"));
    CNetworkInterfaceTable::interface entry {};
    EXPECT_EQ(CNetworkInterfaceTable::GetInterface(3, &entry, 0), 1);
    EXPECT_STREQ(entry.name, "p2p1");
    setenv("QN_NICKNAME", "xOVM3y", 1);
    EXPECT_EQ(CNetworkInterfaceTable::GetInterface(0, nullptr, 1), 7);
    std::ofstream many("/proc/net/dev");
    for (int line = 0; line < 300; ++line)
      many << "eth" << line << ": 1" << std::endl;
    EXPECT_EQ(CNetworkInterfaceTable::GetInterface(0, nullptr, 1), 254);
    std::filesystem::remove("/proc/net/dev");
    EXPECT_FALSE(CPerfMon(5).StartMonitoring(4, 1000));
    EXPECT_TRUE(trace.Has("GetInterface: ERROR: cannot open /proc/net/dev"));
  });
}

// The kernel gives a long list in several pieces.
TEST_F(PerfMon, SamplesAHundredRealInterfaces) {
  root.Run(FixtureRoot::kUsr | FixtureRoot::kProc | FixtureRoot::kNetwork, [] {
    const int others = CNetworkInterfaceTable::GetInterface(0, nullptr, 1);
    const char* addPairs = "for i in $(seq 50); do echo link add eth$i type veth peer name en$i; done | ip -batch -";
    if (std::system(addPairs) != 0) return WriteWholeFile("/skipped", "");
    CPerfMon monitor(5);
    const TraceCapture trace(5);
    ASSERT_TRUE(monitor.StartMonitoring(CPerfMon::network, 0));
    EXPECT_EQ(Percents(monitor, {{10, others + 99}, {10, others + 100}}), "0/0 0!/0! ");
    EXPECT_TRUE(trace.Has("CPerfMon::SnapData  :   - network history[99]: 1 entries"));
    EXPECT_EQ(trace.Count("not found"), 2 * others);
  });
  if (root.Exists("/skipped")) GTEST_SKIP() << "no virtual interfaces can be made here";
}

// A stop that waited for the interval would not come back.
TEST_F(PerfMon, StopsAtOnceAndStartsAgainWhileOthersAsk) {
  CPerfMon monitor(5);
  const auto ask = [&monitor](const std::stop_token& stop) {
    for (; !stop.stop_requested(); monitor.SnapshotData(13))
      Percents(monitor, {{0, -1}, {8, 0}, {9, -1}, {10, -1}, {13, 1}});
  };
  const std::jthread others[] = {std::jthread(ask), std::jthread(ask)};
  monitor.StopMonitoring();
  ASSERT_TRUE(monitor.StartMonitoring(CPerfMon::memory, kWaitForever));
  EXPECT_TRUE(monitor.StartMonitoring(CPerfMon::systemCpu, kWaitForever));
  EXPECT_EQ(Percents(monitor, {{0, 0}}), "0!/0! ");
  std::thread other([&monitor] { monitor.StopMonitoring(); });
  monitor.StopMonitoring();
  other.join();
  EXPECT_FALSE(monitor.IsStarted());
  ASSERT_TRUE(monitor.StartMonitoring(CPerfMon::systemCpu | CPerfMon::network, 1));
  EXPECT_EQ(Percents(monitor, {{9, 0}}), "0!/0! ");
}  // destroyed while monitoring
