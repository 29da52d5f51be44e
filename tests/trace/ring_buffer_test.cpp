#include <sys/mount.h>

#include "trace/trace_root.h"

namespace {

constexpr size_t kMiB = 1024 * 1024;
constexpr size_t kHeader = 49;  // of an entry: time, thread, application name; no memory column
constexpr size_t kMarker = 16;
constexpr const char* kBegin = "### Begin of RingBuffer. ###\n";

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

class TraceRing : public TraceTest {
 protected:
  TraceRing() { root.ConfigureRing("1"); }
};

}  // namespace

TEST_F(TraceRing, LayoutOfANewBuffer) {
  root.Run([] {
    ASSERT_TRUE(Debug.Init("ravd"));
    Debug.Print(1, "first entry");
  });
  const std::string ring = root.ReadFile(TraceRoot::kStartUpRing);
  ASSERT_EQ(ring.size(), 4 * kMiB);
  EXPECT_EQ(root.Mode(TraceRoot::kStartUpRing) & 07777U, 0700U);
  // Header block, its end marker, filler up to the boundary.
  EXPECT_EQ(ring.compare(kHeader, 20, "Quennet Environment:"), 0);
  EXPECT_EQ(TextOf(ring, "Trace Target"), "Trace Target               : 2");
  const size_t headerEnd = ring.find(std::string("# End of header.\n") + kEndMarker) + 17;
  const size_t boundary = (headerEnd + 2048) / 1024 * 1024;
  EXPECT_EQ(ring.compare(boundary + kHeader, 29, kBegin), 0);
  EXPECT_EQ(ring.compare(boundary + 29 + 2 * kHeader, 33, "### Start of initialization. ###\n"), 0);
  const size_t end = ring.rfind(kEndMarker);
  EXPECT_EQ(ring.compare(end - 12, 12, "first entry\n"), 0);
  // Filler lines of 1 KiB up to the end.
  for (size_t line = (end / 1024 + 1) * 1024; line < ring.size(); line += 1024) {
    ASSERT_EQ(ring.compare(line + 35, 14, "ravd          "), 0) << line;
    ASSERT_EQ(ring.compare(line + kHeader, 1024 - kHeader, std::string(1023 - kHeader, '_') + "\n"), 0) << line;
  }
}

TEST_F(TraceRing, WrapsAtTheExactByteBehindItsHeader) {
  root.Run([] {
    ::setenv("QN_LOG_RINGBUF_WEIGHT_RAVD", "1", 1);
    ASSERT_TRUE(Debug.Init("ravd"));
    ::unsetenv("QN_LOG_RINGBUF_WEIGHT_RAVD");  // asked at the start alone
    const std::string fresh = ReadWholeFile(TraceRoot::kStartUpRing);
    const size_t begin = fresh.find(kBegin) + 29;
    // The last entry ends exactly one end marker before the end of the buffer.
    FillUpTo(fresh.rfind(kEndMarker), fresh.size() - kMarker);
    const std::string full = ReadWholeFile(TraceRoot::kStartUpRing);
    EXPECT_EQ(full.substr(0, begin), fresh.substr(0, begin));
    EXPECT_EQ(full.substr(full.size() - kMarker - 2), std::string("l\n") + kEndMarker);

    Debug.Print(1, "after the wrap");
    const std::string wrapped = ReadWholeFile(TraceRoot::kStartUpRing);
    EXPECT_EQ(wrapped.substr(wrapped.size() - kMarker), std::string(kMarker, '.'));
    const size_t newest = wrapped.find(kEndMarker, begin);
    EXPECT_EQ(wrapped.substr(begin + kHeader, newest - begin - kHeader), "after the wrap\n");
    EXPECT_EQ(wrapped.compare(newest + kMarker, 1000, full, newest + kMarker, 1000), 0);
    EXPECT_EQ(TextOf(wrapped, "QN_LOG_RINGBUF_WEIGHT_RAVD"), "QN_LOG_RINGBUF_WEIGHT_RAVD=1");

    // One byte more wraps before the entry.
    FillUpTo(newest, wrapped.size() - kMarker + 1);
    const std::string again = ReadWholeFile(TraceRoot::kStartUpRing);
    EXPECT_EQ(again[begin + kHeader], 'l');
    EXPECT_EQ(again.substr(again.size() - 400), std::string(400, '.'));

    // The command line is known only now, and every one of its lines would be kept whole.
    std::string argument(300000, 'a');
    std::vector<char*> argv(40, argument.data());
    Debug.SetMainParams(40, argv.data());
    for (int entry = 0; entry < 8000; ++entry)
      PrintEntryOf(1000, 'e');
    const std::string huge = ReadWholeFile(TraceRoot::kStartUpRing);
    EXPECT_EQ(huge.compare(kHeader, 26, "ravd Command Line Options:"), 0);
    EXPECT_EQ(huge.compare(begin + 35, 15, "ravd          e"), 0) << "the header has left its place";
  });
}

TEST_F(TraceRing, LongEntriesAreKeptUpToATenthOfTheBufferWhileThereIsOne) {
  root.Run(FixtureRoot::kProc, [] {
    ASSERT_TRUE(Debug.Init("ravd"));
    const size_t tenth = 4 * kMiB / 10;
    Debug.Print(1, "\n%s", std::string(tenth, 'k').c_str());
    Debug.Print(1, "%s", std::string(tenth + 1, 'c').c_str());
    Debug.Print(1, "%s", std::string(1024, 'e').c_str());
    const std::string ring = ReadWholeFile(TraceRoot::kStartUpRing);
    for (const std::string& entry : {std::string(tenth, 'k') + "\n", std::string(1024, 'e') + "\n" + kEndMarker,
                                     std::string(1024, 'c') + "\n## WARNING: TRACE-SIZE TOO BIG: Output Truncated!\n"})
      EXPECT_NE(ring.find(" " + entry), std::string::npos) << entry[0];
    ASSERT_EQ(::truncate(TraceRoot::kStartUpRing, 0), 0);
    Debug.Print(1, "into a page that is gone");
    EXPECT_FALSE(Debug.m_TraceActive);
  });
}

TEST_F(TraceRing, StartUpBufferIsCompressedAndReplaced) {
  root.MakeDirectory("/my dir ");
  root.WriteFile(TraceRoot::kIni,
                 "[ravd]\nFileDebugLevel=2\nRingBufferSizeWeight=1\nMemoryTracesFlag=0\n"
                 "NoHeaderToStderr=0\nRingBufferDirectory= /my dir \n[EndOfFile]\n");
  root.Run(FixtureRoot::kUsr, [] {
    ::setenv("TraceFileLimit", "3", 1);
    ::setenv("AgentShut", "yes %s%n\x1b[2J", 1);
    ::setenv("QN_LOG_RINGBUF_DIR", "", 1);  // as good as none
    ASSERT_TRUE(Debug.Init("ravd"));
    Debug.Print(2, "while starting");
    Debug.SetApplInitDone();
    Debug.Print(2, "while running");
    EXPECT_EQ(std::system("gzip -dc '/my dir /log.ravd_i.gz' > /start-up"), 0);
  });
  EXPECT_FALSE(root.Exists("/my dir /log.ravd_i"));
  const std::string startUp = root.ReadFile("/start-up");
  EXPECT_EQ(startUp.size(), 8 * kMiB);
  EXPECT_EQ(startUp.compare(startUp.rfind(kEndMarker) - 31, 31, "### End of initialization. ###\n"), 0);
  const std::string ring = root.ReadFile("/my dir /log.ravd_a");
  EXPECT_EQ(ring.size(), 2 * kMiB);
  EXPECT_EQ(TextOf(ring, "Application Init Done"), "Application Init Done      : 0");
  EXPECT_EQ(TextOf(ring, "Ring Buffer Factor"), "Ring Buffer Factor         : 2");
  const std::string log = root.ReadFile("/my dir /log.ravd");
  for (const std::string& file : {ring, log})
    EXPECT_EQ(TextOf(file, "AgentShut"), "AgentShut=yes %s%n\x1b[2J") << "text from outside stays text";
  EXPECT_EQ(ring.compare(ring.rfind(kEndMarker) - 14, 14, "while running\n"), 0);
  EXPECT_EQ(ring.find("while starting"), std::string::npos);
  // The header stands in the log file as well.
  EXPECT_EQ(TextOf(log, "RingBufferDirectory  "), "RingBufferDirectory        : /my dir ");
  EXPECT_EQ(TextOf(log, "QN_LOG_RINGBUF_WEIGHT_RAVD"), "QN_LOG_RINGBUF_WEIGHT_RAVD=NotSet");
  EXPECT_EQ(TextOf(log, "RingBufferSizeFactor"), "RingBufferSizeFactor       : -1");
  EXPECT_EQ(TextOf(log, "End of header"), "# End of header.");
  EXPECT_EQ(std::count(log.begin(), log.end(), '\n'), 80);
}

// While gzip runs, others trace into the run-time buffer; that it fails is reported.
TEST_F(TraceRing, NobodyWaitsForGzipAndItsFailureIsReported) {
  root.WriteFile("/own/gzip", "#!/usr/bin/sh\necho started > /started\nread line < /go\nexit 3\n", 0755);
  root.Run(FixtureRoot::kUsr, [] {
    ::setenv("PATH", "/own:/usr/bin", 1);
    ASSERT_EQ(::mkfifo("/go", 0600), 0);
    ASSERT_TRUE(Debug.Init("ravd"));
    std::thread starter([] { Debug.SetApplInitDone(); });
    while (::access("/started", F_OK) != 0)
      ::usleep(1000);
    Debug.Print(1, "meanwhile");
    EXPECT_EQ(TextOf(ReadWholeFile(TraceRoot::kRunTimeRing), "meanwhile"), "meanwhile");
    WriteWholeFile("/go", "now\n");
    starter.join();
    EXPECT_EQ(LogText("gziping"), "### gziping of startup log file failed -> it doesn't matter ###");
  });
}

TEST_F(TraceRing, SizeThatHasNoRoomFailsBeforeAnythingIsWritten) {
  const auto bytesWritten = [] {
    const std::string io = ReadWholeFile("/proc/self/io");
    return std::atoll(io.c_str() + io.find("wchar: ") + 7);
  };
  root.Run(FixtureRoot::kProc, [&bytesWritten] {
    ASSERT_EQ(::mount("tmpfs", "/var/log/pelrix", "tmpfs", 0, "size=64m"), 0);
    for (const char* weight : {"-1", "400"}) {
      ::setenv("QN_LOG_RINGBUF_WEIGHT", weight, 1);
      const long long before = bytesWritten();
      EXPECT_FALSE(Debug.Init("ravd"));
      EXPECT_LT(bytesWritten() - before, static_cast<long long>(kMiB));
      EXPECT_EQ(std::filesystem::file_size(TraceRoot::kStartUpRing), 0U);
      EXPECT_EQ(LogText("InitRingBuffer"),
                "### InitRingBuffer(): (2) write m_InternalDebugBuffer to /var/log/pelrix/log.ravd_i failed ###");
    }
  });
}

// Without gzip the switch-over goes on.
TEST_F(TraceRing, BufferThatCannotBeOpenedSwitchesTracingOff) {
  root.MakeDirectory(TraceRoot::kRunTimeRing);
  root.Run([] {
    ASSERT_TRUE(Debug.Init("ravd"));
    Debug.SetApplInitDone();
    EXPECT_FALSE(Debug.m_TraceActive);
    EXPECT_EQ(Debug.m_TraceLevel, 0U);
    Debug.PrintAlways("goes on");
    EXPECT_EQ(LogText("InitRingBuffer"),
              "### InitRingBuffer(): open of /var/log/pelrix/log.ravd_a failed (errno=21; Is a directory) ###");
    EXPECT_EQ(LogText("goes on"), "goes on");
  });
}
