#include <gtest/gtest.h>

#include <bit>
#include <vector>

#include "perfmon/data_history_buffer.h"
#include "perfmon/percent_sum.h"
#include "perfmon/perf_mon.h"

TEST(DataHistoryBuffer, KeepsTheNewestElementsOfEachInstance) {
  CDataHistoryBuffer<int> history;
  const auto read = [&history](int instance, bool newestOnly) {
    std::vector<int> elements;
    EXPECT_TRUE(history.Read(instance, newestOnly, [&elements](int element) { elements.push_back(element); }));
    return elements;
  };
  EXPECT_EQ(history.Append(0, 1), 0);
  history.Create(3, 2);
  EXPECT_EQ(read(0, true), std::vector<int>{});
  for (int sample = 1; sample <= 5; ++sample)
    EXPECT_EQ(history.Append(0, sample), std::min(sample, 3));
  EXPECT_EQ(read(0, false), (std::vector{3, 4, 5}));
  EXPECT_EQ(read(0, true), std::vector{5});
  EXPECT_EQ(read(1, false), std::vector<int>{});
  for (const int unknown : {-1, 2}) {
    EXPECT_EQ(history.Append(unknown, 1), 0);
    EXPECT_FALSE(history.Read(unknown, false, [](int) { ADD_FAILURE(); }));
  }
  history.Create(40, 1);
  for (int sample = 0; sample < 100; ++sample)
    history.Append(0, sample);
  EXPECT_EQ(read(0, false).front(), 60);
  history.Create(0, 1);
  EXPECT_EQ(history.Append(0, 1), 0);
  history.Destroy();
  EXPECT_EQ(history.Instances(), 0);
}

TEST(PercentSum, RoundsOnceAndCaps) {
  struct Row {
    std::vector<PerfFields> records;
    int overInstances, overElements;
  };
  constexpr uint64_t kMax = UINT64_MAX;
  constexpr uint64_t kGiB = uint64_t{1} << 30;
  for (const Row& row : std::vector<Row>{{{{8 * kGiB, 0, 2 * kGiB, 0}}, 25, 25},
                                         {{{100, 10, 0, 0}, {100, 20, 1, 0}}, 15, 16},  // 10 % and 21 %
                                         {{{1000, 5, 0, 0}}, 1, 1},
                                         {{{100000, 499, 0, 0}}, 0, 0},
                                         {{{100000, 500, 0, 0}, {100000, 499, 0, 0}}, 0, 0},
                                         {{{0, 5, 5, 5}, {10, 5, 5, 0}}, 50, 50},
                                         {{{1, 5, 5, 0}}, 100, 100},
                                         {{{kMax, kMax, 0, 0}}, 100, 100},
                                         {{{kMax, kMax / 4, kMax / 4, 0}, {kMax, 0, 0, kMax}}, 25, 25},
                                         {{{1, kMax, kMax, 0}, {1, kMax, kMax, 0}}, 100, 100},
                                         {{}, 0, 0}}) {
    CPercentSum sum({0b0110, 0});
    for (const PerfFields& record : row.records)
      sum.Add(record);
    EXPECT_EQ(sum.OverInstances(row.records.size()), row.overInstances);
    EXPECT_EQ(sum.OverElements(), row.overElements);
  }
}

TEST(CPerfMon, EveryValueBelongsToOneKind) {
  const std::vector<unsigned int> types = {1, 1, 1, 1, 2, 2, 2, 2, 8, 8, 4, 4, 4, 16, 16, 16, 16, 16, 16, 16, 16, 0};
  for (unsigned int value = 0; value < types.size(); ++value) {
    for (const unsigned int type : {0U, 1U, 2U, 3U, 4U, 8U, 16U, 32U}) {
      EXPECT_EQ(CPerfMon::IsMonitorValue(CPerfMon::PerfMonitorValue{value}, CPerfMon::PerfMonitorType{type}),
                type != 0 && types[value] == type)
          << value << ' ' << type;
    }
  }
}
