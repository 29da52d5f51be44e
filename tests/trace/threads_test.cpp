#include <gtest/gtest.h>

#include <atomic>
#include <sstream>
#include <thread>
#include <vector>

#include "trace/trace_root.h"

namespace {

constexpr int kThreads = 8;
constexpr int kEntries = 400;

void WriteEntries(int thread) {
  for (int entry = 0; entry < kEntries; ++entry) {
    Debug.Print(1, "\nwriter %d entry %04d %s", thread, entry,
                std::string(50, static_cast<char>('a' + thread)).c_str());
    TRACE(9, "never written");
    if (entry % 8 == 0) Debug.PrintAlways("always %d entry %04d", thread, entry);
  }
}

// Counts the whole entries of the writers; anything else that mentions one is a torn entry.
void CountEntries(const std::string& file, std::vector<int>& perThread) {
  std::istringstream lines(file);
  for (std::string line; std::getline(lines, line);) {
    const size_t at = line.find("writer ");
    if (at == std::string::npos) continue;
    int thread = 0;
    int entry = 0;
    char fill[64] = {};
    ASSERT_EQ(std::sscanf(line.c_str() + at, "writer %d entry %d %63s", &thread, &entry, fill), 3) << line;
    ASSERT_EQ(std::string(fill), std::string(50, static_cast<char>('a' + thread))) << line;
    ASSERT_EQ(line.substr(at - 14, 14), "ravd          ") << line;
    ++perThread[static_cast<size_t>(thread)];
  }
}

}  // namespace

TEST(TraceThreads, EveryEntryIsWholeAndNoneIsLost) {
  const TraceRoot root;
  root.ConfigureRing("1");
  root.WriteFile(std::string(TraceRoot::kConfig) + "global_trace.ini",
                 "[GlobalDebugSettings]\nDynamicUpdate=1\n[EndOfFile]\n");
  root.Run(
      [] {
        ::setenv("QN_LOG_FILE_MAX_SIZE", "1000000000", 1);
        ASSERT_TRUE(Debug.Init("ravd"));
        std::atomic<bool> stop = false;
        std::vector<std::thread> threads;
        for (int thread = 0; thread < kThreads; ++thread)
          threads.emplace_back(WriteEntries, thread);
        std::thread toggler([&stop] {
          while (!stop)
            Debug.ForceMaxDebug(true);
        });
        Debug.SetApplInitDone();
        for (std::thread& thread : threads)
          thread.join();
        stop = true;
        toggler.join();
        EXPECT_EQ(std::system("gzip -dc /var/log/pelrix/log.ravd_i.gz > /start-up"), 0);
        std::vector<int> perThread(kThreads);
        CountEntries(ReadWholeFile("/start-up"), perThread);
        CountEntries(ReadWholeFile(TraceRoot::kRunTimeRing), perThread);
        EXPECT_EQ(perThread, std::vector<int>(kThreads, kEntries));
        const std::string log = ReadWholeFile(TraceRoot::kLog);
        for (int thread = 0; thread < kThreads; ++thread)
          for (int entry = 0; entry < kEntries; entry += 8) {
            char text[32];
            std::snprintf(text, sizeof text, "always %d entry %04d\n", thread, entry);
            EXPECT_NE(log.find(text), std::string::npos) << text;
          }
      },
      FixtureRoot::kUsr);
}
