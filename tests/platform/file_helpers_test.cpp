#include "platform/directory.h"
#include "platform/directory_list.h"
#include "platform/file.h"
#include "platform/reg_ex.h"
#include "platform/stdio_file.h"
#include "support/trace_capture.h"

using Texts = std::vector<std::string>;

using FileHelpers = RootedTest;

TEST_F(FileHelpers, DirectoriesAndLinks) {
  root.WriteFile("/data/real/a b", "");
  root.WriteFile("/data/real/.%s", "");
  root.MakeLink("/data/link", "../data/./real");
  root.MakeLink("/long", std::string(2000, 'x'));
  root.MakeDirectory("/empty");
  RunTraced(root, 2, [](TraceCapture& trace) {
    Texts names;
    EXPECT_FALSE(CDirectory::GetDirectoryContent(names, "/no%s", true));
    EXPECT_FALSE(CDirectory::GetDirectoryContent(names, "/empty", true));
    EXPECT_TRUE(CDirectory::GetDirectoryContent(names, "/data/link", false));
    EXPECT_THAT(names, testing::UnorderedElementsAre("a b", ".%s"));
    EXPECT_TRUE(CDirectory::GetDirectoryContent(names, "/data/link", true));
    EXPECT_THAT(names, testing::UnorderedElementsAre("a b", ".%s", "/data/real/a b", "/data/real/.%s"));
    EXPECT_TRUE(CDirectory::GetDirectoryContent(names, "/empty", false));
    std::string target;
    EXPECT_TRUE(CFile::GetSymbolicLink(target, "/data/link"));
    EXPECT_FALSE(CFile::GetSymbolicLink(target, "/empty"));
    EXPECT_EQ(target, "../data/./real");
    EXPECT_TRUE(CFile::GetSymbolicLink(target, "/long"));
    EXPECT_EQ(target, std::string(1023, 'x'));
    EXPECT_EQ(
        trace.Lines(),
        (Texts{
            "CDirectory::GetDirectoryContent :Cannot open directory: \"/no%s\". Error message: No such file or directory",
            "CFile::GetSymbolicLink  : Cannot get symbolic link for: '/empty'. Error message: Invalid argument."}));
  });
  dirent entry = {};
  for (const auto& [name, isTaken] : {std::pair{"a.ini.bak", true}, {".ini", true}, {"aini", false}}) {
    std::strcpy(entry.d_name, name);
    EXPECT_EQ(CDirectoryList::SelectFilesInDir(&entry) != 0, isTaken) << name;
  }
}

TEST_F(FileHelpers, RegularExpressionGivesTheAskedForMatch) {
  const std::tuple<const char*, std::string, uint8_t, std::string> rows[] = {
      {"[0-9]+", "a12b3c45", 1, "12"},
      {"[0-9]+", "a12b3c45", 2, "2"},
      {"[0-9]+", "a12b3c45", 9, "5"},
      {"[0-9]+", "a12b3c45", 0, "5"},
      {"x", "abc", 2, ""},
      {"b*", "ab", 0, ""},
      {"^[ab]", "ab", 2, "a"},
      {"x.", std::string(400, 'x') + "y", 0, "xx"},
      {"b.", std::string("a\0bc", 4), 1, "bc"}};
  for (const auto& [pattern, text, occurrence, expected] : rows) {
    std::string result = "before";
    EXPECT_TRUE(CRegEx::GetRegexFromString(result, pattern, text, occurrence));
    EXPECT_EQ(result, expected) << pattern << " " << int{occurrence};
  }
}

TEST_F(FileHelpers, FilesAreSplitIntoLines) {
  root.WriteFile("/lines", std::string("one\r\n\nt\0o\n", 10) + std::string(20000, 'x'));
  root.WriteFile("/two", "a\nb\n");
  RunTraced(root, 1, [](TraceCapture& trace) {
    Texts lines{"kept"};
    EXPECT_TRUE(CStdioFile::ReadFile(lines, "/lines"));
    EXPECT_EQ(lines, (Texts{"kept", "one\r", "", std::string("t\0o", 3), std::string(20000, 'x')}));
    std::string line;
    EXPECT_TRUE(CStdioFile::GetLineFromFile(line, "/two", 1));
    EXPECT_FALSE(CStdioFile::GetLineFromFile(line, "/two", 3));
    EXPECT_FALSE(CStdioFile::GetLineFromFile(line, "/none", 0));
    EXPECT_FALSE(CRegEx::GetRegexFromString(line, "a(", "a", 1));
    EXPECT_EQ(line, "b");
    EXPECT_EQ(
        trace.Lines(),
        (Texts{
            "CStdioFile::GetLineFromFile  : File has 2 lines. Requested line index: 3 does not exist (index is 0 based).",
            "CStdioFile::ReadFile   : Cannot read file \"/none\"!",
            "CStdioFile::GetLineFromFile  : Cannot read file \"/none\"!",
            "CRegEx::GetRegexFromString  : Cannot get regex from string! Error message: Unmatched ( or \\(."}));
  });
}
