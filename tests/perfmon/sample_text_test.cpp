#include "perfmon/sample_text.h"

#include <gtest/gtest.h>

#include <string>
#include <tuple>
#include <vector>

#include "perfmon/net_dev.h"

namespace {

constexpr uint64_t kMax = UINT64_MAX;

auto Fields(const _PerfDataMemory& r) {
  return std::vector{r.totalVirtual, r.usedVirtual, r.totalPhysical, r.usedPhysical};
}
auto Fields(const _PerfDataSystem& r) {
  return std::vector{r.total, r.user, r.kernel, r.idle};
}
auto Fields(const _PerfDataNetwork& r) {
  return std::vector{r.speed, r.capacity, r.received, r.sent};
}

}  // namespace

TEST(SampleText, MemInfoOfSeveralKernels) {
  const std::string old =
      "        total:    used:    free:\nMem:  1 2 3\nMemTotal:  100 kB\nMemFree:\t40 kB\nMemShared: 0 kB\n"
      "SwapTotal: 50 kB\nSwapFree: 20 kB\n";
  const std::vector<std::tuple<std::string, std::vector<uint64_t>>> rows = {
      {old, {153600, 92160, 102400, 61440}},
      {"SwapFree: 0\nSwapTotal: 0\nMemFree: 1\nMemAvailable: 9\nMemTotal: 2", {2048, 1024, 2048, 1024}},
      {"MemTotal: 10 kB\nMemFree: 11 kB\nSwapTotal: 0 kB\nSwapFree: 0 kB\n", {10240, 0, 10240, 0}},
      {"MemTotal: 99999999999999999999 kB\nMemFree: 0 kB\nSwapTotal: 1 kB\nSwapFree: 0 kB\n", {kMax, kMax, kMax, kMax}},
  };
  for (const auto& [text, expected] : rows) {
    MemInfo info{};
    ASSERT_TRUE(ParseMemInfo(text, info)) << text;
    EXPECT_EQ(Fields(MakeMemoryRecord(info)), expected) << text;
  }
  for (const char* text :
       {"", "MemTotal: 1 kB\nMemFree: 1 kB\nSwapTotal: 1 kB\n", "MemTotal: 1\nMemFree: 1\nSwapTotal: 1\nSwapFree: kB\n",
        "xMemTotal: 1\nMemFree: 1\nSwapTotal: 1\nSwapFree: 1\n",
        "MemTotal:\n1\nMemFree: 1\nSwapTotal: 1\nSwapFree: 1\n",
        "MemTotal: -1\nMemFree: 1\nSwapTotal: 1\nSwapFree: 1\n"}) {
    MemInfo info{7, 7, 7, 7};
    EXPECT_FALSE(ParseMemInfo(text, info)) << text;
    EXPECT_EQ(info.memTotal, 7U) << text;
  }
}

TEST(SampleText, CpuLineGivesTicksOrHowManyNumbersThereWere) {
  const std::vector<std::tuple<std::string, int, std::vector<uint64_t>>> rows = {
      {"cpu  10 2 3 100 7 0 1", 4, {115, 12, 3, 100}},
      {"cpu 1 2 3 4", 4, {10, 3, 3, 4}},
      {"cpu 18446744073709551615 1 2 99999999999999999999", 4, {kMax, kMax, 2, kMax}},
      {"cpu 1 2 3", 3, {}},
      {"cpu 1 2 x 4", 2, {}},
      {"cpu0 1 2 3 4", 0, {}},
      {"cpu", 0, {}},
      {"", 0, {}},
  };
  for (const auto& [line, found, expected] : rows) {
    _PerfDataSystem ticks{};
    EXPECT_EQ(ParseCpuLine(line, ticks), found) << line;
    EXPECT_EQ(Fields(ticks), found == 4 ? expected : std::vector<uint64_t>(4)) << line;
  }
  EXPECT_EQ(Fields(TicksBetween({100, 40, 20, 40}, {200, 70, 40, 39})), (std::vector<uint64_t>{100, 30, 20, 0}));
}

TEST(NetDev, SampledNamesAndTheirCounters) {
  const std::string names =
      "Inter-| Receive | Transmit\n face |bytes\n  lo: 1 2\neth0:5 6\n ifb0: 1\n  em1: 1\np1p1: 1\n  eth1:1: 9\n"
      "xbr0: 1\n enp3s0: 7\n\tbond0: 8\nsha0:\nvswif0: 1\nbr-lan: 1\nxenbr0: 1\nmic0: 12 13";
  const std::vector<std::pair<std::string, std::string>> expected = {
      {"eth0", "5 6"},  {"eth1", "1: 9"}, {"enp3s0", " 7"}, {"bond0", " 8"},   {"sha0", ""},
      {"vswif0", " 1"}, {"br-lan", " 1"}, {"xenbr0", " 1"}, {"mic0", " 12 13"}};
  std::vector<std::pair<std::string, std::string>> found;
  std::string_view text = names;
  for (NetDevLine line; TakeSampledInterface(text, line);)
    found.emplace_back(line.name, line.counters);
  EXPECT_EQ(found, expected);
}

TEST(NetDev, RecordOfTwoReadings) {
  struct Row {
    uint64_t intervalMs, speed, before, after;
    std::vector<uint64_t> record;  // empty: none
  };
  constexpr uint64_t kGigabit = 131072000;
  for (const Row& row :
       std::vector<Row>{{1000, kGigabit, 100, 1100, {kGigabit, kGigabit, 1000, 2000}},
                        {250, kGigabit, 0, 100, {kGigabit, kGigabit / 4, 400, 800}},
                        {1000, kGigabit, 4294967000, 200, {kGigabit, kGigabit, 496, 992}},  // wrapped at 2^32
                        {1000, kGigabit, 4294967295, 0, {kGigabit, kGigabit, 1, 2}},        // the last that can wrap
                        {1000, kGigabit, 4294967296, 200, {kGigabit, kGigabit, 0, 0}},      // reset
                        {500, kGigabit, 0, kMax / 2, {kGigabit, kGigabit / 2, kMax - 1, kMax}},
                        {1000, kUnknownSpeed, 0, 5, {kMax, kMax, 5, 10}},
                        {2000, kUnknownSpeed, 0, 8, {kMax, kMax, 4, 8}},
                        {0, kGigabit, 0, 5, {}},
                        {kMax - 4999, kGigabit, 0, 5, {}},  // the clock went back
                        {1000, 0, 0, 5, {}},
                        {1, 999, 0, 5, {}}}) {
    NetInterfaceState previous;
    previous.sampleTimeMs = 5000;
    previous.counters[0] = row.before;
    previous.counters[8] = row.before;
    NetCounters counters{row.after};
    // What is sent differs twofold, wherever that fits.
    counters[8] = row.after >= row.before ? row.before + 2 * (row.after - row.before)
                                          : row.after + static_cast<uint32_t>(row.after - row.before);
    _PerfDataNetwork record{};
    const bool made = MakeNetworkRecord(previous, 5000 + row.intervalMs, counters, row.speed, record);
    EXPECT_EQ(made ? Fields(record) : std::vector<uint64_t>{}, row.record) << row.before << " -> " << row.after;
    previous.sampleTimeMs = 0;
    EXPECT_FALSE(MakeNetworkRecord(previous, 5000 + row.intervalMs, counters, row.speed, record));
  }
}
