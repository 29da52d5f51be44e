// The page: what stands on it, what odd values do to it, and that the parsers behind it take what the kernel writes.

#include "metrics/page.h"

#include "metrics/system_figures.h"
#include "support/fixture_root.h"

using ::testing::HasSubstr, ::testing::Not;

namespace {

MachineRecord Record(const char* kind, const char* key, std::vector<std::pair<std::string, std::string>> fields) {
  return {kind, key, std::move(fields)};
}

// A usual server: 20 slots and adapters, 24 memory modules, 24 drives, 20 volumes, 6 interfaces.
Figures UsualMachine() {
  Figures figures;
  figures.version = "3.12.5";
  figures.cpu = CpuSeconds{1, 2, 3, 4, 5, 6, 7, 8};
  figures.cpuBusy = 0.25;
  figures.memory = {1024, 512, 0, 0};
  figures.process = {1.5, 1e9, 9000, 90000, 12, 1024, 5};
  figures.modules = {{"metrics", "3.12.5", "ab12", true}, {"watch", "", "", false}};
  figures.changes[{"drive", "removed"}] = 2;
  figures.lastChange = 1'700'000'000;
  figures.isTracing = true;
  figures.traceLevel = 2;
  figures.machine.push_back(Record("machine", "machine", {{"vendor", "Maker"}, {"product", "Model"}}));
  const auto add = [&](int count, const std::function<void(const std::string&)>& one) {
    for (int i = 0; i < count; ++i)
      one(std::to_string(i));
  };
  add(8, [&](const std::string& i) {
    figures.machine.push_back(
        Record("slot", ("s" + i).c_str(),
               {{"slot", i}, {"designation", "PCIe " + i}, {"width", "x8"}, {"occupied", "1"}, {"conflict", "0"}}));
  });
  add(20, [&](const std::string& i) {
    figures.machine.push_back(
        Record("adapter", ("0000:" + i + ":00.0").c_str(),
               {{"address", "0000:" + i + ":00.0"}, {"slot", i}, {"driver", "d"}, {"lanes", "8"}}));
  });
  add(16, [&](const std::string& i) {
    figures.machine.push_back(Record("dimm", ("d" + i).c_str(), {{"locator", "DIMM " + i}, {"size", "17179869184"}}));
  });
  add(12, [&](const std::string& i) {
    figures.machine.push_back(
        Record("drive", i.c_str(), {{"device", "sd" + i}, {"model", "X"}, {"size", "4000787030016"}}));
  });
  add(8, [&](const std::string& i) {
    figures.volumes.push_back(
        Record("volume", i.c_str(), {{"mountpoint", "/v" + i}, {"size", "1"}, {"available", "0"}, {"answering", "1"}}));
  });
  add(6, [&](const std::string& i) {
    figures.interfaces.push_back({"eth" + i, "0000:0" + i + ":00.0", "02:00", true, 1'250'000'000, 1, UINT64_MAX});
  });
  return figures;
}

size_t SeriesOf(const std::string& page) {
  size_t series = 0;
  std::istringstream lines(page);
  for (std::string line; std::getline(lines, line);)
    series += line[0] != '#';
  return series;
}

}  // namespace

TEST(Page, UsualMachineFitsAndPassesPromtool) {
  const FixtureRoot root;
  const std::string page = WritePage(UsualMachine(), PageFor::kScrape);
  EXPECT_LE(SeriesOf(page), 300U);
  for (const char* line :
       {"ravd_slot_info{slot=\"3\",designation=\"PCIe 3\",width=\"x8\"} 1\n", "ravd_cpu_busy_ratio 0.25\n",
        "ravd_interface_transmit_bytes_total{device=\"eth5\"} 18446744073709551615\n",
        "ravd_drive_size_bytes{device=\"sd3\"} 4000787030016\n", "ravd_module_up{module=\"watch\"} 0\n",
        "ravd_changes_total{kind=\"drive\",change=\"removed\"} 2\n", "process_open_fds 12\n"})
    EXPECT_THAT(page, HasSubstr(line));
  EXPECT_THAT(WritePage(UsualMachine(), PageFor::kTextFile), Not(HasSubstr("process_")));
  // Units that the tool lets pass.
  for (const char* unit : {"_mhz", "_percent", "_kb", "_ms "})
    EXPECT_THAT(page, Not(HasSubstr(unit)));
  if (::access("/usr/bin/promtool", X_OK) != 0)
    GTEST_SKIP() << "promtool is not installed: the page was not shown to it";
  root.WriteFile("/page", page);
  EXPECT_EQ(std::system(("promtool check metrics <" + root.HostPath("/page").string()).c_str()), 0);
}

TEST(Page, OddValuesCostOnlyThemselves) {
  Figures figures;
  figures.version = "1";
  figures.cpuBusy = std::nan("");
  figures.machine = {Record("drive", "1",
                            {{"device", "s\"d\\a\n"},
                             {"model", "caf\xC3\xA9 \xFF\x80\x01 \xE0\x80\x80 \xF0\x9F\x92\xBE"},
                             {"size", "-1"}}),
                     Record("drive", "2", {{"device", "sdb"}, {"size", "12"}}),
                     Record("drive", "3", {{"device", "sdb"}, {"size", "13"}}),
                     Record("adapter", "x", {{"lanes", "0x10"}}), Record("nothing", "", {})};
  figures.volumes = {Record("volume", "/v", {{"mountpoint", "/v"}, {"address", "x"}, {"answering", "0"}})};
  figures.interfaces = {{"eth0", "", "", std::nullopt, std::nullopt, std::nullopt, std::nullopt}};
  const std::string page = WritePage(figures, PageFor::kScrape);
  constexpr const char* kBad = "\xEF\xBF\xBD";
  EXPECT_THAT(page, HasSubstr("ravd_drive_info{device=\"s\\\"d\\\\a\\n\",model=\"caf\xC3\xA9 " + std::string(kBad) +
                              kBad + "  " + kBad + kBad + kBad + " \xF0\x9F\x92\xBE\"} 1\n"));
  EXPECT_THAT(page, HasSubstr("ravd_drive_size_bytes{device=\"sdb\"} 12\n"));
  EXPECT_THAT(page, HasSubstr("ravd_volume_answering{mountpoint=\"/v\"} 0\n"));
  for (const char* part : {"-1", "} 13", "busy", "lanes", "speed", "nan", "slot=", "ravd_interface_up"})
    EXPECT_THAT(page, Not(HasSubstr(part)));
}

TEST(Page, HugeMachineIsCutAndSaysSo) {
  Figures figures;
  for (size_t i = 0; i < kMaxSeries + 10; ++i)
    figures.machine.push_back(Record("dimm", "", {{"locator", std::to_string(i)}}));
  const std::string page = WritePage(figures, PageFor::kScrape);
  EXPECT_THAT(page, HasSubstr("\nravd_series_left_out 11\n"));  // that of the version comes first
  EXPECT_EQ(SeriesOf(page), kMaxSeries + 1);
}

TEST(SystemFigures, KernelTextsAndDamagedOnes) {
  CpuSeconds cpu{};
  ASSERT_TRUE(ParseCpu("cpu  100 200 300 400 500 600 700 800 900 0\ncpu0 1 2\n", 100, cpu));
  EXPECT_EQ(cpu, (CpuSeconds{1, 2, 3, 4, 5, 6, 7, 8}));
  for (const char* text : {"", "cpu0 1 2 3 4 5 6 7 8\n", "cpu 1 2 3\n4 5 6 7 8 9", "cpu 1 2 3 x 5 6 7 8"})
    EXPECT_FALSE(ParseCpu(text, 100, cpu)) << text;
  EXPECT_EQ(BusyBetween({}, {1, 0, 0, 3}), 0.25);
  EXPECT_EQ(BusyBetween(cpu, cpu), std::nullopt);
  const MemoryFigures memory = ParseMemory("MemTotal:  16 kB\nMemAvailable: x kB\nSwapTotal:\nSwapFree: 0 kB");
  EXPECT_EQ(memory.total, 16384U);
  EXPECT_EQ(memory.available, std::nullopt);
  EXPECT_EQ(memory.swapTotal, std::nullopt);
  EXPECT_EQ(memory.swapFree, 0U);
  const auto interfaces = ParseInterfaces(
      "Inter-|   Receive   |  Transmit\n face |bytes packets|bytes\n  eth0:1234 1 0 0 0 0 0 0 18446744073709551615 9 0 0 0 0 0 0\n"
      "a:b: 5\n:7\n");
  ASSERT_EQ(interfaces.size(), 2U);
  EXPECT_EQ(interfaces[0].device, "eth0");
  EXPECT_EQ(interfaces[0].received, 1234U);
  EXPECT_EQ(interfaces[0].sent, UINT64_MAX);
  EXPECT_EQ(interfaces[1].device, "a:b");
  EXPECT_EQ(interfaces[1].sent, std::nullopt);
}

TEST(SystemFigures, SpeedIsAbsentWhereTheDriverDoesNotKnowIt) {
  const FixtureRoot root;
  root.WriteFile("/proc/net/dev", "  a: 1 0 0 0 0 0 0 0 2\n  b: 1\n  c: 1\n  lo: 1\n");
  for (const auto& [name, speed, state] :
       {std::tuple("a", "10000", "up"), {"b", "-1", "down"}, {"c", "4294967295", "up"}}) {
    const std::string directory = std::string("/sys/class/net/") + name;
    root.WriteFile(directory + "/speed", std::string(speed) + "\n");
    root.WriteFile(directory + "/operstate", std::string(state) + "\n");
    root.WriteFile(directory + "/address", "02:00:00:00:00:01\n");
  }
  root.MakeDirectory("/sys/devices/pci0000:00/0000:02:00.0");
  root.MakeLink("/sys/class/net/c/device", "../../../devices/pci0000:00/0000:02:00.0");
  root.Run([] {
    Figures figures;
    SampleSystem(figures);
    ASSERT_EQ(figures.interfaces.size(), 4U);
    EXPECT_EQ(figures.interfaces[0].device, "c");  // hardware first
    EXPECT_EQ(figures.interfaces[0].address, "0000:02:00.0");
    EXPECT_EQ(figures.interfaces[0].speed, std::nullopt);
    EXPECT_EQ(figures.interfaces[1].speed, 1'250'000'000U);
    EXPECT_EQ(figures.interfaces[1].mac, "02:00:00:00:00:01");
    EXPECT_EQ(figures.interfaces[2].speed, std::nullopt);
    EXPECT_EQ(figures.interfaces[2].isUp, false);
    EXPECT_EQ(figures.interfaces[3].isUp, std::nullopt);
    EXPECT_EQ(figures.cpu, std::nullopt);
    EXPECT_EQ(figures.process.cpuSeconds, std::nullopt);
  });
}
