#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>

#include "trace/trace_root.h"

namespace {

constexpr size_t kMiB = 1024 * 1024;
constexpr size_t kHeader = 49;  // of an entry: time, thread, application name; no memory column
constexpr size_t kMarker = 16;
constexpr const char* kDots = "................";

// Prints an entry of exactly that many bytes, its end of line included.
void PrintEntryOf(size_t bytes, char fill) {
  Debug.Print(1, "%s", std::string(bytes - kHeader - 1, fill).c_str());
}

// Fills the start-up ring buffer from the offset on; the last entry ends at `end`, or is the first that wraps.
void FillUpTo(size_t offset, size_t end) {
  for (; end - offset > 2000; offset += 1000)
    PrintEntryOf(1000, 'f');
  PrintEntryOf(end - offset, 'l');
}

class RingBuffer : public TraceTest {
 protected:
  RingBuffer() { root.ConfigureRing("1"); }
};

}  // namespace

TEST_F(RingBuffer, LayoutOfANewBuffer) {
  root.Run([] {
    ASSERT_TRUE(Debug.Init("ravd"));
    EXPECT_TRUE(Debug.m_TraceActive);
    Debug.Print(1, "first entry");
  });
  const std::string ring = root.ReadFile(TraceRoot::kStartUpRing);
  ASSERT_EQ(ring.size(), 4 * kMiB);
  EXPECT_EQ(root.Mode(TraceRoot::kStartUpRing) & 07777U, 0700U);
  // Header block, its end marker, filler up to the boundary.
  EXPECT_EQ(ring.compare(kHeader, 20, "Quennet Environment:"), 0);
  EXPECT_EQ(TextOf(ring, "Trace Target"), "Trace Target               : 2");
  EXPECT_EQ(TextOf(ring, "Ring Buffer Size"), "Ring Buffer Size           : 4194304");
  const size_t headerEnd = ring.find("# End of header.\n") + 17;
  EXPECT_EQ(ring.compare(headerEnd, kMarker, kEndMarker), 0);
  const size_t boundary = (headerEnd + 2048) / 1024 * 1024;
  EXPECT_EQ(ring.compare(boundary + kHeader, 29, "### Begin of RingBuffer. ###\n"), 0);
  EXPECT_EQ(ring.compare(boundary + 29 + 2 * kHeader, 33, "### Start of initialization. ###\n"), 0);
  const size_t end = EndOfEntries(ring);
  EXPECT_EQ(ring.compare(end - 12, 12, "first entry\n"), 0);
  // Filler lines of 1 KiB up to the end.
  for (size_t line = (end / 1024 + 1) * 1024; line < ring.size(); line += 1024) {
    ASSERT_EQ(ring.compare(line + 35, 14, "ravd          "), 0) << line;
    ASSERT_EQ(ring.compare(line + kHeader, 1024 - kHeader, std::string(1023 - kHeader, '_') + "\n"), 0) << line;
  }
}

TEST_F(RingBuffer, WrapsAtTheExactByte) {
  root.Run([] {
    char name[] = "ravd";
    char* argv[] = {name};
    Debug.SetMainParams(1, argv);
    ASSERT_TRUE(Debug.Init("ravd"));
    const std::string fresh = ReadWholeFile(TraceRoot::kStartUpRing);
    const size_t begin = fresh.find("### Begin of RingBuffer. ###\n") + 29;
    // The last entry ends exactly one end marker before the end of the buffer.
    FillUpTo(EndOfEntries(fresh), fresh.size() - kMarker);
    const std::string full = ReadWholeFile(TraceRoot::kStartUpRing);
    EXPECT_EQ(full.substr(0, begin), fresh.substr(0, begin));
    EXPECT_EQ(full.substr(full.size() - kMarker - 2), std::string("l\n") + kEndMarker);
    EXPECT_EQ(full.find(kDots), std::string::npos);

    Debug.Print(1, "after the wrap");
    const std::string wrapped = ReadWholeFile(TraceRoot::kStartUpRing);
    EXPECT_EQ(wrapped.substr(wrapped.size() - kMarker), std::string(kMarker, '.'));
    const size_t newest = wrapped.find(kEndMarker, begin);
    EXPECT_EQ(wrapped.substr(begin + kHeader, newest - begin - kHeader), "after the wrap\n");
    EXPECT_EQ(wrapped.compare(newest + kMarker, 1000, full, newest + kMarker, 1000), 0);
    EXPECT_EQ(TextOf(wrapped, "argv[0]"), "argv[0] = \"ravd\"");
    EXPECT_NE(wrapped.find("# End of header.\n"), std::string::npos);

    // One byte more wraps before the entry.
    FillUpTo(newest, wrapped.size() - kMarker + 1);
    const std::string again = ReadWholeFile(TraceRoot::kStartUpRing);
    EXPECT_EQ(again[begin + kHeader], 'l');
    EXPECT_EQ(again.substr(again.size() - 400), std::string(400, '.'));
  });
}

TEST_F(RingBuffer, LongEntriesAreKeptUpToATenthOfTheBuffer) {
  root.Run([] {
    ASSERT_TRUE(Debug.Init("ravd"));
    const size_t tenth = 4 * kMiB / 10;
    Debug.Print(1, "\n%s", std::string(tenth, 'k').c_str());
    Debug.Print(1, "%s", std::string(tenth + 1, 'c').c_str());
    Debug.Print(1, "%s", std::string(1024, 'e').c_str());
    const std::string ring = ReadWholeFile(TraceRoot::kStartUpRing);
    EXPECT_NE(ring.find(" " + std::string(tenth, 'k') + "\n"), std::string::npos);
    EXPECT_NE(ring.find(" " + std::string(1024, 'c') + "\n## WARNING: TRACE-SIZE TOO BIG: Output Truncated!\n"),
              std::string::npos);
    EXPECT_NE(ring.find(" " + std::string(1024, 'e') + "\n" + kEndMarker), std::string::npos);
  });
}

TEST_F(RingBuffer, HugeHeaderNeverLeavesItsPlace) {
  root.Run([] {
    ASSERT_TRUE(Debug.Init("ravd"));
    const size_t begin = ReadWholeFile(TraceRoot::kStartUpRing).find("### Begin of RingBuffer. ###\n") + 29;
    // The command line is known only now, and every one of its lines would be kept whole.
    std::string argument(300000, 'a');
    std::vector<char*> argv(40, argument.data());
    Debug.SetMainParams(40, argv.data());
    for (int entry = 0; entry < 8000; ++entry)
      PrintEntryOf(1000, static_cast<char>('a' + entry % 26));
    const std::string ring = ReadWholeFile(TraceRoot::kStartUpRing);
    EXPECT_EQ(ring.compare(kHeader, 26, "ravd Command Line Options:"), 0);
    EXPECT_EQ(ring.compare(begin + 35, 14, "ravd          "), 0);
  });
}

TEST_F(RingBuffer, StartUpBufferIsCompressedAndReplaced) {
  root.ConfigureRing("2", "NoHeaderToStderr=1\n");
  root.Run(
      [] {
        ::setenv("TraceFileLimit", "3", 1);
        ASSERT_TRUE(Debug.Init("ravd"));
        Debug.Print(2, "while starting");
        Debug.SetApplInitDone();
        EXPECT_TRUE(Debug.m_TraceActive);
        Debug.Print(2, "while running");
        EXPECT_EQ(std::system("gzip -dc /var/log/pelrix/log.ravd_i.gz > /start-up"), 0);
      },
      FixtureRoot::kUsr);
  EXPECT_FALSE(root.Exists(TraceRoot::kStartUpRing));
  const std::string startUp = root.ReadFile("/start-up");
  EXPECT_EQ(startUp.size(), 8 * kMiB);
  EXPECT_EQ(startUp.compare(EndOfEntries(startUp) - 31, 31, "### End of initialization. ###\n"), 0);
  const std::string ring = root.ReadFile(TraceRoot::kRunTimeRing);
  EXPECT_EQ(ring.size(), 2 * kMiB);
  EXPECT_EQ(TextOf(ring, "Ring Buffer Factor"), "Ring Buffer Factor         : 2");
  EXPECT_EQ(ring.compare(EndOfEntries(ring) - 14, 14, "while running\n"), 0);
  EXPECT_EQ(ring.find("while starting"), std::string::npos);
}

TEST_F(RingBuffer, FailuresAreReportedInTheLogFileAndSwitchTracingOff) {
  root.MakeDirectory(TraceRoot::kRunTimeRing);
  root.Run([] {
    // Without gzip the switch-over goes on; the run-time buffer cannot be opened.
    ASSERT_TRUE(Debug.Init("ravd"));
    Debug.SetApplInitDone();
    EXPECT_FALSE(Debug.m_TraceActive);
    EXPECT_EQ(Debug.m_TraceLevel, 0U);
    Debug.PrintAlways("goes on");
    const std::string log = ReadWholeFile(TraceRoot::kLog);
    EXPECT_EQ(TextOf(log, "InitRingBuffer"),
              "### InitRingBuffer(): open of /var/log/pelrix/log.ravd_a failed (errno=21; Is a directory) ###");
    EXPECT_EQ(TextOf(log, "goes on"), "goes on");

    // A disk that fills up: nothing of the buffer stays on it.
    std::signal(SIGXFSZ, SIG_IGN);
    const rlimit limit = {kMiB, kMiB};
    ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &limit), 0);
    EXPECT_FALSE(Debug.Init("ravd"));
    EXPECT_EQ(TextOf(ReadWholeFile(TraceRoot::kLog), "InitRingBuffer"),
              "### InitRingBuffer(): (2) write m_InternalDebugBuffer to /var/log/pelrix/log.ravd_i failed ###");
  });
  EXPECT_EQ(root.ReadFile(TraceRoot::kStartUpRing), "");
}

TEST_F(RingBuffer, FileThatIsCutShortSwitchesTracingOff) {
  root.Run(
      [] {
        ASSERT_TRUE(Debug.Init("ravd"));
        ASSERT_EQ(::truncate(TraceRoot::kStartUpRing, 0), 0);
        Debug.Print(1, "into a page that is gone");
        EXPECT_FALSE(Debug.m_TraceActive);
        EXPECT_EQ(Debug.m_TraceLevel, 0U);
        Debug.PrintAlways("the process lives");
        EXPECT_EQ(TextOf(ReadWholeFile(TraceRoot::kLog), "lives"), "the process lives");
        ASSERT_TRUE(Debug.Init("ravd"));
        Debug.Print(1, "and may start anew");
        EXPECT_EQ(TextOf(ReadWholeFile(TraceRoot::kStartUpRing), "anew"), "and may start anew");
      },
      FixtureRoot::kProc);
}

TEST_F(RingBuffer, NothingIsWrittenThroughLinksAndPipes) {
  root.WriteFile("/victim", "precious");
  root.MakeLink(TraceRoot::kLog, "/victim");
  root.MakeLink(TraceRoot::kStartUpRing, "/victim");
  root.Run([] {
    EXPECT_FALSE(Debug.Init("ravd"));
    ::unlink(TraceRoot::kStartUpRing);
    ASSERT_EQ(::link("/victim", TraceRoot::kStartUpRing), 0);
    EXPECT_FALSE(Debug.Init("ravd"));
    ::unlink(TraceRoot::kStartUpRing);
    ASSERT_EQ(::mkfifo(TraceRoot::kStartUpRing, 0600), 0);
    EXPECT_FALSE(Debug.Init("ravd"));
  });
  EXPECT_EQ(root.ReadFile("/victim"), "precious");
}
