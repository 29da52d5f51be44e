#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstring>

#include "platform/directory.h"
#include "platform/directory_list.h"
#include "platform/file.h"
#include "platform/reg_ex.h"
#include "platform/stdio_file.h"
#include "support/fixture_root.h"
#include "support/trace_capture.h"

using Texts = std::vector<std::string>;

TEST(Directory, ListsNamesOrPathsBelowTheCanonicalDirectory) {
  const FixtureRoot root;
  root.WriteFile("/data/real/a b", "");
  root.WriteFile("/data/real/.hidden%s", "");
  root.MakeLink("/data/link", "real");
  root.MakeDirectory("/data/empty");
  root.Run([] {
    Texts names;
    EXPECT_TRUE(CDirectory::GetDirectoryContent(names, "/data/link", false));
    EXPECT_THAT(names, testing::UnorderedElementsAre("a b", ".hidden%s"));
    Texts paths;
    EXPECT_TRUE(CDirectory::GetDirectoryContent(paths, "/data/link", true));
    EXPECT_THAT(paths, testing::UnorderedElementsAre("/data/real/a b", "/data/real/.hidden%s"));
    Texts none;
    EXPECT_FALSE(CDirectory::GetDirectoryContent(none, "/data/empty", false));
    EXPECT_TRUE(CDirectory::GetDirectoryContent(paths, "/data/empty", false));
  });
}

TEST(Directory, FailuresAreTracedAndAppendNothing) {
  const FixtureRoot root;
  root.Run([] {
    const TraceCapture trace(1);
    Texts names;
    EXPECT_FALSE(CDirectory::GetDirectoryContent(names, "/no%s", true));
    EXPECT_EQ(trace.Lines(), Texts{"CDirectory::GetDirectoryContent :Cannot open directory: \"/no%s\". Error message: "
                                   "No such file or directory"});
    EXPECT_TRUE(names.empty());
  });
}

TEST(Directory, FilterTakesNamesThatContainIni) {
  dirent entry = {};
  for (const auto& [name, isTaken] : {std::pair{"a.ini", true}, {"a.ini.bak", true}, {".ini", true}, {"aini", false}}) {
    std::strcpy(entry.d_name, name);
    EXPECT_EQ(CDirectoryList::SelectFilesInDir(&entry) != 0, isTaken) << name;
  }
}

TEST(File, LinkTextIsGivenAsStoredAndCut) {
  const FixtureRoot root;
  root.MakeLink("/short", "../a/./b%s");
  root.MakeLink("/long", std::string(2000, 'x'));
  root.WriteFile("/file", "");
  root.Run([] {
    const TraceCapture trace(2);
    std::string target;
    EXPECT_TRUE(CFile::GetSymbolicLink(target, "/short"));
    EXPECT_EQ(target, "../a/./b%s");
    EXPECT_FALSE(CFile::GetSymbolicLink(target, "/file"));
    EXPECT_EQ(target, "../a/./b%s");
    EXPECT_EQ(trace.Lines(), Texts{"CFile::GetSymbolicLink  : Cannot get symbolic link for: '/file'. Error message: "
                                   "Invalid argument."});
    EXPECT_TRUE(CFile::GetSymbolicLink(target, "/long"));
    EXPECT_EQ(target, std::string(1023, 'x'));
  });
}

TEST(RegEx, OccurrenceChoosesAmongOverlappingMatches) {
  struct Row {
    const char* pattern;
    std::string text;
    uint8_t occurrence;
    std::string expected;
  };
  const std::string path(300, '/');
  for (const Row& row : std::vector<Row>{
           {"[0-9]+", "a12b3c45", 1, "12"},
           {"[0-9]+", "a12b3c45", 2, "2"},
           {"[0-9]+", "a12b3c45", 3, "3"},
           {"[0-9]+", "a12b3c45", 9, "5"},
           {"[0-9]+", "a12b3c45", 0, "5"},
           {"x", "abc", 2, ""},
           {"", "abc", 0, ""},
           {"b*", "ab", 0, ""},
           {"^[ab]", "ab", 2, "a"},
           {"x", std::string(400, 'y') + "x", 1, "x"},
           {"x.", std::string(400, 'x') + "y", 0, "xx"},
           {"mpdh[0-9]+", path + "mpdh17/x", 1, "mpdh17"},
           {"b.", std::string("a\0bc", 4), 1, "bc"},
       }) {
    std::string result = "before";
    EXPECT_TRUE(CRegEx::GetRegexFromString(result, row.pattern, row.text, row.occurrence));
    EXPECT_EQ(result, row.expected) << row.pattern << " " << int{row.occurrence};
  }
}

TEST(RegEx, BadPatternIsTraced) {
  const FixtureRoot root;
  root.Run([] {
    const TraceCapture trace(1);
    std::string result = "before";
    EXPECT_FALSE(CRegEx::GetRegexFromString(result, "a(", "a", 1));
    EXPECT_EQ(result, "before");
    EXPECT_EQ(trace.Lines(), Texts{"CRegEx::GetRegexFromString  : Cannot get regex from string! Error message: "
                                   "Unmatched ( or \\(."});
  });
}

TEST(StdioFile, SplitsLinesAndKeepsEveryOtherByte) {
  const FixtureRoot root;
  const std::string longLine(20000, 'x');
  root.WriteFile("/lines", std::string("one\r\n\nt\0o\n", 10) + longLine);
  root.WriteFile("/two", "a\nb\n");
  root.Run([&] {
    const TraceCapture trace(1);
    Texts lines{"kept"};
    EXPECT_TRUE(CStdioFile::ReadFile(lines, "/lines"));
    EXPECT_EQ(lines, (Texts{"kept", "one\r", "", std::string("t\0o", 3), longLine}));
    std::string line;
    EXPECT_TRUE(CStdioFile::GetLineFromFile(line, "/two", 1));
    EXPECT_EQ(line, "b");
    EXPECT_FALSE(CStdioFile::GetLineFromFile(line, "/two", 2));
    EXPECT_FALSE(CStdioFile::GetLineFromFile(line, "/none", 0));
    EXPECT_EQ(line, "b");
    EXPECT_EQ(trace.Lines(),
              (Texts{"CStdioFile::GetLineFromFile  : File has 2 lines. Requested line index: 2 does not exist (index "
                     "is 0 based).",
                     "CStdioFile::ReadFile   : Cannot read file \"/none\"!",
                     "CStdioFile::GetLineFromFile  : Cannot read file \"/none\"!"}));
  });
}
