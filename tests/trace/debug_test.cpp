#include "trace/debug.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <atomic>
#include <cerrno>
#include <thread>
#include <vector>

#include "platform/process.h"
#include "support/trace_capture.h"
#include "trace/trace_root.h"

using ::testing::ElementsAre;
using ::testing::MatchesRegex;

namespace {

std::string FirstLine(const std::string& text) {
  return text.substr(0, text.find('\n'));
}

void PrintWithTag(const char* tag, const char* fmt, ...) {
  va_list args;
  va_start(args, fmt);
  Debug.PrintAlwaysV(fmt, args, tag);
  va_end(args);
}

// Traces from its destructor, which runs after the end of main.
struct LateTracer {
  ~LateTracer() {
    TRACE(1, "after the end");
    Debug.PrintAlways(0, "after the end");
  }
};

}  // namespace

using TraceDebug = TraceTest;

TEST_F(TraceDebug, LevelDecidesWhatIsWritten) {
  RunTraced(root, 2, [](TraceCapture& trace) {
    int evaluated = 0;
    const auto argument = [&evaluated] { return ++evaluated; };
    TRACE(2, "written %d", argument());
    TRACE(3, "too fine %d", argument());
    Debug.Print(0, "level zero");
    Debug.Print(1, nullptr);
    Debug.ForceMaxDebug(false);
    TRACE(1, "off %d", argument());
    Debug.Print(1, "off");
    EXPECT_EQ(evaluated, 2);
    Debug.ForceMaxDebug(true);
    Debug.Print(2, "on again");
    EXPECT_THAT(trace.Lines(), ElementsAre("written 1", "level zero", "on again"));
  });
}

TEST_F(TraceDebug, LeadingNewlinesAreDroppedAndOneEndsTheEntry) {
  RunTraced(root, 1, [](TraceCapture& trace) {
    Debug.Print(1, "\n\n\nabc");
    Debug.Print(1, "\n");
    Debug.Print(1, "%s", "");
    Debug.Print(1, "%s\n", "ended");
    Debug.Print(1, "%s", std::string(3000, 'x').c_str());
    EXPECT_THAT(trace.Lines(), ElementsAre("abc", "", "", "ended", std::string(1024, 'x')));
  });
}

TEST_F(TraceDebug, PrintAlwaysReachesTheLogFileWithoutTracing) {
  root.Run([] {
    Debug.PrintAlways(0, "before Init");
    EXPECT_FALSE(Debug.Init(nullptr));
    ASSERT_TRUE(Debug.Init("RAVD"));
    EXPECT_FALSE(Debug.m_TraceActive);
    errno = 77;
    Debug.PrintAlways(0, "with level %d", 0);
    Debug.PrintAlways("without level %d", 1);
    EXPECT_EQ(errno, 77);
    PrintWithTag("tag", "tagged");
    PrintWithTag(std::string(200, 't').c_str(), "behind a long tag");
    EXPECT_TRUE(Debug.ForceMaxDebug(true));
    EXPECT_EQ(Debug.m_TraceLevel, 0U);
    EXPECT_TRUE(Debug.IsMaster());
  });
  const std::string log = root.ReadFile(TraceRoot::kLog);
  EXPECT_THAT(FirstLine(log), MatchesRegex("[0-9]{4}-[0-9]{2}-[0-9]{2} [0-9:]{8}\\.[0-9]{3} \\[[0-9A-F]{8}\\]        0 "
                                           "KB !RAVD          with level 0"));
  EXPECT_NE(log.find("!RAVD          without level 1\n"), std::string::npos);
  EXPECT_NE(log.find("!tag           tagged\n"), std::string::npos);
  const size_t longTag = log.find(std::string(60, 't'));
  const size_t line = log.rfind('\n', longTag) + 1;
  EXPECT_EQ(log.find("behind a long tag\n"), line + 128);
}

TEST_F(TraceDebug, MemoryColumnIsTheResidentSizeOfTheStatusFile) {
  uint64_t expected = 0;
  CProcess::GetProcessMemorySpecificInfo(static_cast<uint32_t>(getpid()), expected, "VmRSS:", CProcess::kilobytes);
  ResidentMemory memory;
  EXPECT_GT(expected, 0U);
  EXPECT_NEAR(static_cast<double>(memory.ReadKb()), static_cast<double>(expected), 1024.0);

  root.Run(
      [] {
        ASSERT_TRUE(Debug.Init("ravd"));
        ResidentMemory own;
        const size_t before = own.ReadKb();
        Debug.PrintAlways("here");
        // The descriptor of another process, or of nobody any more, is not asked again.
        for (int fd = 3; fd < 20; ++fd)
          ::close(fd);
        EXPECT_GE(own.ReadKb(), before / 2);
      },
      FixtureRoot::kProc);
  EXPECT_THAT(FirstLine(root.ReadFile(TraceRoot::kLog)), MatchesRegex(".{35}   [0-9 ]{5} KB !ravd          here"));
}

TEST_F(TraceDebug, MemoryIsReadAnewAfterAMillisecondAndAboveTheStandardDescriptors) {
  root.Run(
      [] {
        for (int fd = STDIN_FILENO; fd <= STDERR_FILENO; ++fd)
          ::close(fd);
        ResidentMemory memory;
        const size_t before = memory.KbAt(5000);
        EXPECT_NE(::open("/dev/null", O_RDWR | O_CREAT, 0644), 3) << "a standard descriptor was taken";
        const std::string large(64UL * 1024 * 1024, 'x');
        EXPECT_EQ(memory.KbAt(5999), before);
        EXPECT_GT(memory.KbAt(6000), before + large.size() / 2048);
        EXPECT_GT(memory.KbAt(10), before) << "the clock has stepped back";
      },
      FixtureRoot::kProc);
}

TEST_F(TraceDebug, ForkedChildIsOffAndLeavesTheFilesAlone) {
  root.ConfigureRing("1");
  root.Run([] {
    ASSERT_TRUE(Debug.Init("ravd"));
    std::atomic<bool> stop = false;
    std::vector<std::thread> writers;
    for (int writer = 0; writer < 2; ++writer)
      writers.emplace_back([&stop] {
        while (!stop)
          Debug.PrintAlways("of the parent");
      });
    for (int round = 0; round < 100; ++round) {
      const pid_t child = ::fork();
      if (child == 0) {
        ::alarm(20);
        Debug.Print(1, "of the child");
        Debug.ForceMaxDebug(true);
        Debug.PrintAlways("of the child");
        if (round % 2 == 0) std::exit(0);
        ::mkdir("/own", 0755);
        ::setenv("QN_LOG_RINGBUF_DIR", "/own", 1);
        ::_exit(Debug.Init("own") && Debug.Directory() == std::string("/own") ? 0 : 1);
      }
      int status = -1;
      ::waitpid(child, &status, 0);
      ASSERT_EQ(status, 0) << "round " << round;
    }
    stop = true;
    for (std::thread& writer : writers)
      writer.join();
    for (const char* path : {TraceRoot::kLog, TraceRoot::kStartUpRing})
      EXPECT_THAT(ReadWholeFile(path), ::testing::Not(::testing::HasSubstr("of the child"))) << path;
    EXPECT_TRUE(Debug.m_TraceActive);
  });
}

TEST_F(TraceDebug, CommandLineGoesToTheLogFile) {
  root.Run([] {
    char name[] = "ravd";
    char option[] = "-n %s";
    char* argv[] = {name, option, nullptr};
    TraceCapture trace(1);
    Debug.SetMainParams(0, argv);
    EXPECT_TRUE(trace.Lines().empty());
    Debug.SetMainParams(2, argv);
    EXPECT_THAT(trace.Lines(), ElementsAre("test Command Line Options:", "argv[0] = \"ravd\"", "argv[1] = \"-n %s\""));
  });
}

TEST_F(TraceDebug, EmptyNameAndMissingDirectoryAreSurvived) {
  root.Run([] {
    EXPECT_TRUE(Debug.Init(""));
    Debug.PrintAlways("nameless");
    ::setenv("QN_LOG_RINGBUF_DIR", "/nowhere", 1);
    EXPECT_TRUE(Debug.Init("ravd"));
    Debug.PrintAlways("lost without a word");
    ::setenv("QN_LOG_DEBUG_LEVEL", "3", 1);
    ::setenv("TraceFileLimit", "1", 1);
    ::setenv("QN_LOG_RINGBUF_WEIGHT_RAVD", "1", 1);
    EXPECT_FALSE(Debug.Init("ravd"));
    EXPECT_FALSE(Debug.m_TraceActive);
    EXPECT_EQ(Debug.m_TraceLevel, 0U);
  });
  EXPECT_NE(root.ReadFile("/var/log/pelrix/log.").find("nameless"), std::string::npos);
}

TEST_F(TraceDebug, VariableNamesAreBuiltWithinTheirBuffer) {
  char name[16] = "QN_X";
  CDebug::BuildAppVarName(name, sizeof name, "");
  CDebug::BuildAppVarName(name, sizeof name, nullptr);
  EXPECT_STREQ(name, "QN_X");
  CDebug::BuildAppVarName(name, sizeof name, "ravd");
  EXPECT_STREQ(name, "QN_X_RAVD");
  CDebug::BuildAppVarName(name, sizeof name, "overlong");
  EXPECT_STREQ(name, "QN_X_RAVD_OVERL");
  char text[] = "RaVd";
  EXPECT_STREQ(CDebug::StringToLower(text), "ravd");
  EXPECT_EQ(CDebug::StringToLower(nullptr), nullptr);
}

TEST_F(TraceDebug, StaticObjectsMayTraceAfterTheEndOfMain) {
  root.Run(
      [] {
        static const LateTracer early;  // its destructor runs after that of anything built later
        ASSERT_TRUE(Debug.Init("ravd"));
        Debug.m_TraceLevelSaved = 1;
        Debug.ForceMaxDebug(true);
        Debug.PrintAlways("while it runs");
        if (::testing::Test::HasFailure()) return;
        std::exit(0);
      },
      FixtureRoot::kProc);
  EXPECT_EQ(TextOf(root.ReadFile(TraceRoot::kLog), "while"), "while it runs");
}

TEST_F(TraceDebug, CancelledWriterGivesTheLockBack) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
  GTEST_SKIP() << "the sanitizer's own runtime does not survive a forced unwinding";
#endif
  RunTraced(root, 1, [](TraceCapture& trace) {
    // Asynchronous cancellation strikes inside the writer sooner or later.
    for (int round = 0; round < 20; ++round) {
      pthread_t writer{};
      ASSERT_EQ(pthread_create(
                    &writer, nullptr,
                    [](void*) -> void* {
                      for (;;)
                        Debug.PrintAlways("%s", "from a thread that is cancelled at its next flush");
                    },
                    nullptr),
                0);
      while (trace.Count("cancelled") < round + 1)
        std::this_thread::yield();
      pthread_cancel(writer);
      void* result = nullptr;
      ASSERT_EQ(pthread_join(writer, &result), 0);
      EXPECT_EQ(result, PTHREAD_CANCELED);
    }
    Debug.PrintAlways("the lock is free");
    EXPECT_TRUE(trace.Has("the lock is free"));
  });
}
