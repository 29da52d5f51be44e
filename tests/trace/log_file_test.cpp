#include <sys/resource.h>

#include "trace/trace_root.h"

namespace {

constexpr size_t kHeader = 62;  // of an entry, with the memory column

void PrintEntryOf(size_t bytes, char fill) {
  Debug.PrintAlways("%s", std::string(bytes - kHeader - 1, fill).c_str());
}

}  // namespace

using TraceLogFile = TraceTest;

TEST_F(TraceLogFile, WrapsBehindItsStartUpPart) {
  root.Run([] {
    ::setenv("QN_LOG_FILE_MAX_SIZE", "1000", 1);
    ASSERT_TRUE(Debug.Init("ravd"));
    PrintEntryOf(300, 's');
    Debug.SetApplInitDone();
    PrintEntryOf(400, 'a');
    PrintEntryOf(300, 'b');  // exactly the maximum: no wrap yet
    EXPECT_EQ(ReadWholeFile(TraceRoot::kLog).size(), 1000U);
    PrintEntryOf(100, 'c');
    std::string log = ReadWholeFile(TraceRoot::kLog);
    EXPECT_EQ(log.size(), 1100U);
    EXPECT_EQ(log.substr(298, 2), "s\n");
    EXPECT_EQ(LogText("WRAP"), "------ WRAP ----- Cycle=1, CntInitEnd=300, CurrentByteCnt=300 (MaxCnt=1000)");
    PrintEntryOf(100, 'd');
    log = ReadWholeFile(TraceRoot::kLog);
    const size_t wrapLine = log.find('\n', 300) + 1;
    EXPECT_EQ(log.substr(wrapLine + 98, 2), "d\n");
    EXPECT_EQ(log.substr(log.size() - 2), "c\n");
    // The wrap line counts: what is left of 1000 and one byte more.
    PrintEntryOf(1000 - wrapLine - 100, 'e');
    EXPECT_EQ(LogText("Cycle=2"), "");
    PrintEntryOf(70, 'f');
    EXPECT_EQ(LogText("WRAP"), "------ WRAP ----- Cycle=2, CntInitEnd=300, CurrentByteCnt=300 (MaxCnt=1000)");
  });
}

TEST_F(TraceLogFile, WrapsToItsBeginningWhileStarting) {
  root.Run([] {
    ::setenv("QN_LOG_FILE_MAX_SIZE", "300", 1);
    ASSERT_TRUE(Debug.Init("ravd"));
    PrintEntryOf(301, 'a');
    PrintEntryOf(70, 'b');
    Debug.PrintAlways("%c", 0);  // even a NUL does not swallow the end of line
  });
  const std::string log = root.ReadFile(TraceRoot::kLog);
  EXPECT_EQ(log.find("------ WRAP ----- Cycle=1, CntInitEnd=0, CurrentByteCnt=0 (MaxCnt=300)\n"), kHeader);
  EXPECT_NE(log.find(std::string("\0\n", 2)), std::string::npos);
}

TEST_F(TraceLogFile, TornLineIsEndedBeforeTheNextEntry) {
  root.Run([] {
    std::signal(SIGXFSZ, SIG_IGN);
    ASSERT_TRUE(Debug.Init("ravd"));
    rlimit limit{};
    ::getrlimit(RLIMIT_FSIZE, &limit);
    const rlimit full = {250, limit.rlim_max};
    ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &full), 0);  // the disk fills up within the second entry
    for (const char fill : {'a', 'b', 'c'})
      PrintEntryOf(200, fill);
    ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &limit), 0);
    PrintEntryOf(100, 'd');
    const std::string log = ReadWholeFile(TraceRoot::kLog);
    EXPECT_EQ(log.size(), 351U);
    EXPECT_EQ(log[250], '\n');
    EXPECT_EQ(TextOf(log, "ddd"), std::string(100 - kHeader - 1, 'd'));
  });
}
