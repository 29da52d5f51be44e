#include <set>

#include "trace/trace_root.h"

namespace {

constexpr int kThreads = 8;
constexpr int kEntries = 400;

std::string EntryOf(int thread, int entry) {
  return "writer " + std::to_string(entry) + std::string(50, static_cast<char>('a' + thread));
}

void WriteEntries(int thread) {
  for (int entry = 0; entry < kEntries; ++entry) {
    Debug.Print(1, "\n%s", EntryOf(thread, entry).c_str());
    TRACE(9, "never written");
    if (entry % 8 == 0) Debug.PrintAlways("%s", EntryOf(thread, entry).c_str());
  }
}

// Each line without the header of an entry; a torn entry is none of the entries that were written.
std::multiset<std::string> EntriesOf(const std::string& files) {
  std::multiset<std::string> entries;
  std::istringstream lines(files);
  for (std::string line; std::getline(lines, line);)
    entries.insert(TextOf(line, "writer "));
  return entries;
}

}  // namespace

TEST(TraceThreads, EveryEntryIsWholeAndNoneIsLost) {
  const TraceRoot root;
  root.ConfigureRing("1");
  root.WriteFile(TraceRoot::kGlobal, "[GlobalDebugSettings]\nDynamicUpdate=1\n[EndOfFile]\n");
  root.Run(FixtureRoot::kUsr, [] {
    ::setenv("QN_LOG_FILE_MAX_SIZE", "1000000000", 1);
    ASSERT_TRUE(Debug.Init("ravd"));
    {
      const std::jthread toggler([](const std::stop_token& stop) {
        while (!stop.stop_requested())
          Debug.ForceMaxDebug(true);
      });
      std::vector<std::jthread> threads;
      for (int thread = 0; thread < kThreads; ++thread)
        threads.emplace_back(WriteEntries, thread);
      Debug.SetApplInitDone();
    }
    EXPECT_EQ(std::system("gzip -dc /var/log/pelrix/log.ravd_i.gz > /start-up"), 0);
    const auto traced = EntriesOf(ReadWholeFile("/start-up") + ReadWholeFile(TraceRoot::kRunTimeRing));
    const auto logged = EntriesOf(ReadWholeFile(TraceRoot::kLog));
    for (int thread = 0; thread < kThreads; ++thread)
      for (int entry = 0; entry < kEntries; ++entry) {
        const size_t always = entry % 8 == 0 ? 1 : 0;
        ASSERT_EQ(traced.count(EntryOf(thread, entry)), 1 + always) << EntryOf(thread, entry);
        ASSERT_EQ(logged.count(EntryOf(thread, entry)), always) << EntryOf(thread, entry);
      }
  });
}
