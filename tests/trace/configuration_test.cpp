#include "trace/trace_root.h"

namespace {

constexpr const char* kLevel2 = "[ravd]\nFileDebugLevel=2\n[EndOfFile]";
constexpr const char* kLevel5 = "[ravd]\nFileDebugLevel=5\n[EndOfFile]";

const struct {
  const char* name;
  unsigned int level, flags;
  std::vector<std::pair<const char*, const char*>> files;
  const char* variable = nullptr;  // QN_LOG_DEBUG_LEVEL
} kRows[] = {
    {"no directory, no variables", 0, 0, {}},
    {"environment alone", 2, 0, {}, "2"},
    {"environment is decimal", 0, 0, {}, "0x10"},
    {"no end mark", 0, 0, {{"a.ini", "[ravd]\nFileDebugLevel=3\n"}}},
    {"end mark", 3, 0, {{"a.ini", "[ravd]\nFileDebugLevel=3\n[endoffile]"}}},
    {"any case", 3, 0, {{"a.ini", "[RAVD]\nFileDebugLevel=3\nfiledebuglevel=4\n[EndOfFile]"}}},
    {"hexadecimal and octal", 16, 8, {{"a.ini", "[ravd]\nFileDebugLevel = 0x10\nTraceFlags=010\n[EndOfFile]"}}},
    {"key inside a word", 4, 0, {{"a.ini", "[ravd]\n;MyFileDebugLevel 9\n=4\n[EndOfFile]"}}},
    {"not a number", 0, 7, {{"a.ini", "[ravd]\nFileDebugLevel=high\nTraceFlags=7\n[EndOfFile]"}}},
    {"other section ends it", 0, 1, {{"a.ini", "[ravd]\nTraceFlags=1\n[b]\nFileDebugLevel=5\n[EndOfFile]"}}},
    {"first file wins", 2, 0, {{"b.ini", kLevel5}, {"a.ini.old", kLevel2}}},
    {"bad file is passed over", 5, 0, {{"a.ini", "[ravd\nFileDebugLevel=2\n"}, {"b.ini", kLevel5}}},
    {"section in the middle", 6, 0, {{"b.ini", "[x][ravd]FileDebugLevel=6\n[EndOfFile]"}}},
    {"environment wins", 2, 0, {{"a.ini", kLevel5}}, "2"},
    {"no configuration", 0, 0, {{"readme.txt", ""}}, "2"},
    {"unclosed section", 0, 0, {{"a.ini", "[x]\n[ravd\n FileDebugLevel=2 \n[EndOfFile]"}}},
    {"empty file", 0, 0, {{"a.ini", ""}}},
};

}  // namespace

using TraceConfiguration = TraceTest;

TEST_F(TraceConfiguration, SourcesAndTheirOrder) {
  for (const auto& row : kRows) {
    SCOPED_TRACE(row.name);
    const TraceRoot machine;
    for (const auto& [name, content] : row.files)
      machine.WriteFile(std::string(TraceRoot::kConfig) + name, content);
    machine.Run([&row] {
      if (row.variable != nullptr) ::setenv("QN_LOG_DEBUG_LEVEL", row.variable, 1);
      ::setenv("TraceFileLimit", "1", 1);
      ::setenv("QN_LOG_RINGBUF_WEIGHT", "1", 1);
      EXPECT_TRUE(Debug.Init("ravd"));
      EXPECT_EQ(Debug.m_TraceLevel, row.level);
      EXPECT_EQ(Debug.m_TraceLevelSaved, row.level);
      EXPECT_EQ(Debug.m_TraceFlags, row.flags);
      EXPECT_EQ(Debug.m_TraceActive, row.level != 0);
      // Without any configuration the header goes into the log file.
      if (row.name == std::string("no configuration")) {
        EXPECT_EQ(LogText("Trace Target"), "Trace Target               : 0");
      }
      // The next Init owes nothing to the one before.
      ::unsetenv("QN_LOG_DEBUG_LEVEL");
      EXPECT_TRUE(Debug.Init("other"));
      EXPECT_EQ(Debug.m_TraceLevel + Debug.m_TraceFlags, 0U);
      EXPECT_FALSE(Debug.m_TraceActive);
    });
  }
}

TEST_F(TraceConfiguration, ChangedFilesAreFollowedWhileItRuns) {
  root.ConfigureRing("5");
  root.WriteFile(TraceRoot::kGlobal, "[GlobalDebugSettings]\nDynamicUpdate=1\n[EndOfFile]\n");
  root.Run([] {
    std::filesystem::last_write_time(TraceRoot::kIni,
                                     std::filesystem::file_time_type::clock::now() - std::chrono::hours(1));
    ::setenv("QN_LOG_DEBUG_LEVEL", "2", 1);
    ASSERT_TRUE(Debug.Init("ravd"));
    Debug.Print(9, "looks at the files");
    EXPECT_EQ(Debug.m_TraceLevel, 2U);
    WriteWholeFile(TraceRoot::kIni, "[ravd]\nFileDebugLevel=4\nTraceFlags=3\n[EndOfFile]\n");
    for (int tries = 0; tries < 400 && Debug.m_TraceLevel != 4; ++tries) {
      Debug.Print(9, "looks again a second later");
      ::usleep(10000);
    }
    EXPECT_EQ(Debug.m_TraceLevel, 4U);
    EXPECT_EQ(Debug.m_TraceLevelSaved, 4U);
    EXPECT_EQ(Debug.m_TraceFlags, 3U);
    // A file that is gone is forgotten, and what it said stays.
    ::unlink(TraceRoot::kIni);
    ::usleep(1100000);
    Debug.Print(9, "looks for the last time");
    EXPECT_EQ(Debug.m_TraceLevel, 4U);
  });
}
