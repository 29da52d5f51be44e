#include "trace/debug.h"

#include "platform/process.h"
#include "support/trace_capture.h"
#include "trace/trace_root.h"

using ::testing::AllOf, ::testing::ContainsRegex, ::testing::ElementsAre, ::testing::HasSubstr;

namespace {

void PrintWithTag(const char* tag, const char* fmt, ...) {
  va_list args;
  va_start(args, fmt);
  Debug.PrintAlwaysV(fmt, args, tag);
  va_end(args);
}

}  // namespace

using TraceDebug = TraceTest;

TEST_F(TraceDebug, LevelDecidesWhatIsWrittenAndOneNewlineEndsIt) {
  RunTraced(root, 2, [](const TraceCapture& trace) {
    int evaluated = 0;
    TRACE(2, "written %d", ++evaluated);
    TRACE(3, "too fine %d", ++evaluated);
    Debug.Print(0, "level zero");
    Debug.Print(1, nullptr);
    Debug.ForceMaxDebug(false);
    TRACE(1, "off %d", ++evaluated);
    Debug.Print(1, "off");
    EXPECT_EQ(evaluated, 2);
    Debug.ForceMaxDebug(true);
    Debug.Print(2, "on again");
    // Newlines at the front are dropped, and one ends the entry.
    char option[] = "-n %s";
    char* argv[] = {option, nullptr};
    Debug.SetMainParams(0, argv);
    Debug.SetMainParams(1, argv);
    Debug.Print(1, "\n\n\nabc");
    Debug.Print(1, "\n");
    Debug.Print(1, "%s", "");
    Debug.Print(1, "%s\n", "ended");
    Debug.Print(1, "%s", std::string(3000, 'x').c_str());
    EXPECT_THAT(trace.Lines(), ElementsAre("written 1", "level zero", "on again", "test Command Line Options:",
                                           "argv[0] = \"-n %s\"", "abc", "", "", "ended", std::string(1024, 'x')));
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
  });
  const std::string log = root.ReadFile(TraceRoot::kLog);
  EXPECT_THAT(log, ContainsRegex("^[0-9]{4}-[0-9]{2}-[0-9]{2} [0-9:]{8}\\.[0-9]{3} \\[[0-9A-F]{8}\\]        0 KB "
                                 "!RAVD          with level 0\n"));
  EXPECT_THAT(log, AllOf(HasSubstr("!RAVD          without level 1\n"), HasSubstr("!tag           tagged\n")));
  const size_t line = log.rfind('\n', log.find(std::string(60, 't'))) + 1;
  EXPECT_EQ(log.find("behind a long tag\n"), line + 128);
}

TEST_F(TraceDebug, MemoryColumnIsTheResidentSizeReadAnewAfterAMillisecond) {
  root.Run(FixtureRoot::kProc, [] {
    ASSERT_TRUE(Debug.Init("ravd"));
    Debug.PrintAlways("here");
    uint64_t expected = 0;
    CProcess::GetProcessMemorySpecificInfo(static_cast<uint32_t>(getpid()), expected, "VmRSS:", CProcess::kilobytes);
    ResidentMemory memory;
    const size_t before = memory.KbAt(5000);
    EXPECT_NEAR(static_cast<double>(before), static_cast<double>(expected), 1024.0);
    // The descriptor of another process, or of nobody any more, is not asked again; the new one is no standard one.
    for (int fd = 0; fd < 20; ++fd)
      ::close(fd);
    const std::string large(64UL * 1024 * 1024, 'x');
    EXPECT_EQ(memory.KbAt(5999), before);
    EXPECT_GT(memory.KbAt(6000), before + large.size() / 2048);
    EXPECT_LT(::fcntl(STDIN_FILENO, F_GETFD), 0);
    EXPECT_GT(memory.KbAt(10), before) << "the clock has stepped back";
  });
  EXPECT_THAT(root.ReadFile(TraceRoot::kLog), ContainsRegex("^.{35}   [0-9 ]{5} KB !ravd          here\n"));
}

TEST_F(TraceDebug, ForkedChildIsOffAndLeavesTheFilesAlone) {
  root.ConfigureRing("1");
  root.MakeDirectory("/own");
  root.Run([] {
    ASSERT_TRUE(Debug.Init("ravd"));
    const auto write = [](const std::stop_token& stop) {
      while (!stop.stop_requested())
        Debug.PrintAlways("of the parent");
    };
    const std::jthread writer(write);
    const std::jthread other(write);
    for (int round = 0; round < 100; ++round) {
      const pid_t child = ::fork();
      if (child == 0) {
        ::alarm(20);
        Debug.Print(1, "of the child");
        Debug.ForceMaxDebug(true);
        Debug.PrintAlways("of the child");
        if (round % 2 == 0 && !kSanitized) std::exit(0);  // a leak checker does not find the child's threads
        ::setenv("QN_LOG_RINGBUF_DIR", "/own", 1);
        ::_exit(Debug.Init("own") && Debug.Directory() == std::string("/own") ? 0 : 1);
      }
      int status = -1;
      ::waitpid(child, &status, 0);
      ASSERT_EQ(status, 0) << "round " << round;
    }
    EXPECT_TRUE(Debug.m_TraceActive);
  });
  for (const char* path : {TraceRoot::kLog, TraceRoot::kStartUpRing})
    EXPECT_EQ(root.ReadFile(path).find("of the child"), std::string::npos) << path;
}

TEST_F(TraceDebug, EmptyAndLongNamesAndAMissingDirectoryAreSurvived) {
  root.Run([] {
    char name[16] = "QN_X";
    for (const char* app : {static_cast<const char*>(nullptr), "", "overlong-name"})
      CDebug::BuildAppVarName(name, sizeof name, app);
    EXPECT_STREQ(name, "QN_X_OVERLONG-N");
    EXPECT_TRUE(Debug.Init(""));
    Debug.PrintAlways("nameless");
    EXPECT_NE(ReadWholeFile("/var/log/pelrix/log.").find("nameless"), std::string::npos);
    ::setenv("QN_LOG_RINGBUF_DIR", "/nowhere", 1);
    EXPECT_TRUE(Debug.Init("ravd"));
    Debug.PrintAlways("lost without a word");
    for (const char* variable : {"QN_LOG_DEBUG_LEVEL", "TraceFileLimit", "QN_LOG_RINGBUF_WEIGHT_RAVD"})
      ::setenv(variable, "1", 1);
    EXPECT_FALSE(Debug.Init("ravd"));
    EXPECT_FALSE(Debug.m_TraceActive);
    EXPECT_EQ(Debug.m_TraceLevel, 0U);
  });
}

TEST_F(TraceDebug, StaticObjectsMayTraceAfterTheEndOfMain) {
  root.Run(FixtureRoot::kProc, [] {
    // Runs after the destructor of any static object that is built later.
    std::atexit([] {
      TRACE(1, "after the end");
      Debug.PrintAlways(0, "after the end");
    });
    ASSERT_TRUE(Debug.Init("ravd"));
    Debug.m_TraceLevelSaved = 1;
    Debug.ForceMaxDebug(true);
    Debug.PrintAlways("while it runs");
    if (!::testing::Test::HasFailure()) std::exit(0);
  });
  EXPECT_EQ(TextOf(root.ReadFile(TraceRoot::kLog), "while"), "while it runs");
}

TEST_F(TraceDebug, CancelledWriterGivesTheLockBack) {
  if (kSanitized) GTEST_SKIP() << "the sanitizer's own runtime does not survive a forced unwinding";
  RunTraced(root, 1, [](const TraceCapture& trace) {
    // Asynchronous cancellation strikes inside the writer sooner or later.
    for (int round = 0; round < 20; ++round) {
      std::thread writer([] {
        for (;;)
          Debug.PrintAlways("%s", "from a thread that is cancelled at its next flush");
      });
      while (trace.Count("cancelled") < round + 1)
        std::this_thread::yield();
      ::pthread_cancel(writer.native_handle());
      writer.join();
    }
    Debug.PrintAlways("the lock is free");
    EXPECT_TRUE(trace.Has("the lock is free"));
  });
}
