#include "perfmon/sample_text.h"

#include <bit>

#include "perfmon/net_dev.h"
#include "perfmon/percent_sum.h"
#include "perfmon/perf_mon.h"
#include "support/fixture_root.h"

static constexpr uint64_t kMax = UINT64_MAX;
using Fields = std::array<uint64_t, 4>;  // of any record

TEST(SampleText, MemInfoOfSeveralKernels) {
  const std::vector<std::pair<std::string, Fields>> rows = {
      {" total: used: free:\nMem:  1 2 3\nMemTotal:  100 kB\nMemFree:\t40 kB\nSwapTotal: 50 kB\nSwapFree: 20 kB\n",
       {153600, 92160, 102400, 61440}},
      {"SwapFree: 0\nSwapTotal: 0\nMemFree: 11\nMemAvailable: 9\nMemTotal: 10", {10240, 0, 10240, 0}},
      {"MemTotal: 99999999999999999999 kB\nMemFree: 0\nSwapTotal: 1 kB\nSwapFree: 0\n", {kMax, kMax, kMax, kMax}},
  };
  for (const auto& [text, expected] : rows) {
    MemInfo info{};
    ASSERT_TRUE(ParseMemInfo(text, info)) << text;
    EXPECT_EQ(std::bit_cast<Fields>(MakeMemoryRecord(info)), expected) << text;
  }
  for (const char* text : {"", "MemTotal: 1\nMemFree: 1\nSwapTotal: 1\nSwapFree: kB\n", "MemFree: 1\nSwapTotal: 1\n",
                           "MemTotal:\n1\nMemFree: 1\nSwapTotal: 1\nSwapFree: 1\n"}) {
    MemInfo info{};
    EXPECT_FALSE(ParseMemInfo(text, info)) << text;
  }
}

TEST(SampleText, CpuLineGivesTicksOrHowManyNumbersThereWere) {
  const std::vector<std::tuple<std::string, int, Fields>> rows = {
      {"cpu  10 2 3 100 7 0 1", 4, {115, 12, 3, 100}},
      {"cpu 18446744073709551615 1 2 99999999999999999999", 4, {kMax, kMax, 2, kMax}},
      {"cpu 1 2 x 4", 2, {}},
      {"cpu0 1 2 3 4", 0, {}},
  };
  for (const auto& [line, found, expected] : rows) {
    _PerfDataSystem ticks{};
    EXPECT_EQ(ParseCpuLine(line, ticks), found) << line;
    EXPECT_EQ(std::bit_cast<Fields>(ticks), expected) << line;
  }
  EXPECT_EQ(TicksBetween({100, 40, 20, 40}, {200, 70, 40, 39}).idle, 0U);
}

TEST(NetDev, SampledNamesAndTheirCounters) {
  std::string_view text =
      "Inter-| Receive\n face |bytes\n  lo: 1 2\neth0:5 6\n  em1: 1\n  eth1:1: 9\nxbr0: 1\n\tbr-lan:\nmic0: 12 13";
  std::string found;
  for (NetDevLine line; TakeSampledInterface(text, line);)
    found += std::string(line.name) + '=' + std::string(line.counters) + ';';
  EXPECT_EQ(found, "eth0=5 6;eth1=1: 9;br-lan=;mic0= 12 13;");
}

TEST(NetDev, RecordOfTwoReadings) {
  constexpr uint64_t kGbit = 131072000;
  EXPECT_EQ(ReadLinkSpeed(-1, "lo"), kUnknownSpeed);
  for (const auto& [intervalMs, speed, before, after, expected] :
       std::vector<std::tuple<uint64_t, uint64_t, uint64_t, uint64_t, Fields>>{
           {250, kGbit, 100, 200, {kGbit, kGbit / 4, 400, 400}},
           {1000, kGbit, 4294967000, 200, {kGbit, kGbit, 496, 496}},  // wrapped at 2^32
           {1000, kGbit, 4294967295, 4, {kGbit, kGbit, 5, 5}},
           {1000, kGbit, 4294967296, 200, {kGbit, kGbit, 0, 0}},  // reset
           {500, kGbit, 0, kMax, {kGbit, kGbit / 2, kMax, kMax}},
           {2000, kUnknownSpeed, 0, 8, {kMax, kMax, 4, 4}},
           {0, kGbit, 0, 5, {}},
           {kMax - 4999, kGbit, 0, 5, {}},  // the clock went back
           {1000, 0, 0, 5, {}},
       }) {
    const auto counters = [](uint64_t bytes) { return NetCounters{bytes, 1, 2, 3, 4, 5, 6, 7, bytes}; };
    _PerfDataNetwork record{};
    MakeNetworkRecord({.sampleTimeMs = 5000, .counters = counters(before)}, 5000 + intervalMs, counters(after), speed,
                      record);
    EXPECT_EQ(std::bit_cast<Fields>(record), expected) << before << " -> " << after;
    EXPECT_FALSE(MakeNetworkRecord({}, 5000 + intervalMs, counters(after), speed, record));
  }
}

TEST(DataHistoryBuffer, KeepsTheNewestElementsOfEachInstance) {
  CDataHistoryBuffer<int> history;
  const auto read = [&history](int instance, bool newestOnly) {
    std::vector<int> elements;
    const bool exists = history.Read(instance, newestOnly, [&elements](int element) { elements.push_back(element); });
    return exists ? elements : std::vector<int>{-1};
  };
  EXPECT_EQ(history.Append(0, 1), 0);
  history.Create(3, 2);
  for (int sample = 1; sample <= 5; ++sample)
    EXPECT_EQ(history.Append(0, sample), std::min(sample, 3));
  EXPECT_EQ(history.Append(2, 1), 0);
  EXPECT_EQ(read(0, false), (std::vector{3, 4, 5}));
  EXPECT_EQ(read(0, true), std::vector{5});
  EXPECT_EQ(read(1, true), std::vector<int>{});
  EXPECT_EQ(read(2, false), std::vector{-1});
}

TEST(PercentSum, RoundsOnceAndCaps) {
  const auto mean = [](const std::vector<std::pair<uint128, uint64_t>>& ratios) {
    CPercentSum sum;
    for (const auto& [part, whole] : ratios)
      sum.Add(part, whole);
    return std::pair<int, int>(sum.OverInstances(ratios.size()), sum.OverElements());
  };
  EXPECT_EQ(mean({{uint64_t{2} << 30, uint64_t{8} << 30}}), std::pair(25, 25));
  EXPECT_EQ(mean({{10, 100}, {21, 100}}), std::pair(15, 16));
  EXPECT_EQ(mean({{500, 100000}, {499, 100000}}), std::pair(0, 0));
  EXPECT_EQ(mean({{10, 0}, {10, 10}}), std::pair(50, 50));
  EXPECT_EQ(mean({{uint128{kMax} + kMax, 1}, {kMax, 1}}), std::pair(100, 100));
  EXPECT_EQ(mean({}), std::pair(0, 0));
}

TEST(CPerfMon, AValueBelongsToOneKind) {
  const auto is = [](unsigned int value, unsigned int type) {
    return CPerfMon::IsMonitorValue(CPerfMon::PerfMonitorValue{value}, CPerfMon::PerfMonitorType{type});
  };
  EXPECT_TRUE(is(0, 1) && is(7, 2) && is(9, 8) && is(12, 4) && is(13, 16) && is(20, 16));
  EXPECT_FALSE(is(0, 3) || is(0, 32) || is(12, 8) || is(21, 16) || is(21, 0));
}
