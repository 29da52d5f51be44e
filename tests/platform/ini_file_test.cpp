#include "platform/ini_file.h"

#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include <algorithm>
#include <csignal>

#include "support/fixture_root.h"
#include "support/trace_capture.h"

namespace {

using Texts = std::vector<std::string>;

constexpr const char* kPath = "/agent.ini";

std::string Read(const std::string& file, const char* section, const char* key) {
  char value[2048];
  CIniFile::GetPrivateProfileString(section, key, "<default>", value, sizeof value, file.c_str());
  return value;
}

// "a|b|" for the list "a\0b\0\0"
std::string ReadList(const std::string& file, const char* section) {
  char names[256];
  const uint32_t length = CIniFile::GetPrivateProfileString(section, nullptr, "x", names, sizeof names, file.c_str());
  std::replace(names, names + length, '\0', '|');
  return {names, length};
}

const std::string kFile =
    "early=0\n"
    "\n"
    "[Name]\n"
    " ; comment\n"
    "key = value ; note\n"
    "\t two words \t=  a = b  \r\n"
    "empty=\n"
    "no assignment\n"
    "=without key\n"
    "key=again\n"
    "Key=upper\n"
    "  [ Name ] ; blanks in brackets\n"
    "key=blanks\n"
    "[broken\n"
    "key=broken\n"
    "[]\n"
    "[Name]\n"
    "second=1\n"
    "[a]b]\n"
    "last=end";

}  // namespace

TEST(IniFile, ReadsEntriesAndNames) {
  const FixtureRoot root;
  root.WriteFile(kPath, kFile + std::string("\0more", 5));
  const std::string file = root.HostPath(kPath);
  struct Row {
    const char* section;
    const char* key;
    const char* expected;
  };
  for (const Row& row : {Row{"Name", "key", "value"},
                         {"Name", "Key", "upper"},
                         {"Name", "two words", "a = b"},
                         {"Name", "empty", "<default>"},
                         {"Name", "", "without key"},
                         {"Name", "no assignment", "<default>"},
                         {"Name", "second", "<default>"},
                         {"name", "key", "<default>"},
                         {" Name ", "key", "blanks"},
                         {"broken", "key", "<default>"},
                         {"a]b", "last", "end"},
                         {"", "early", "<default>"}}) {
    EXPECT_EQ(Read(file, row.section, row.key), row.expected) << row.section << "." << row.key;
  }
  EXPECT_EQ(Read(file + "x", "Name", "key"), "<default>");
  EXPECT_EQ(Read("/", "Name", "key"), "<default>");
  EXPECT_EQ(ReadList(file, nullptr), "Name| Name |Name|a|");
  EXPECT_EQ(ReadList(file, "Name"), "key|two words|empty|key|Key|");
  EXPECT_EQ(ReadList(file, "missing"), "");
}

TEST(IniFile, ResultsTellWhatDidNotFit) {
  const FixtureRoot root;
  root.WriteFile(kPath, "[AB]\nkey=12345\n[CD]\nk1=x\nk23=x\n");
  const std::string file = root.HostPath(kPath);
  struct Row {
    const char* section;
    const char* key;
    uint32_t size;
    uint32_t result;
    std::string stored;  // result characters and the closing NUL
  };
  const std::string nul(1, '\0');
  for (const Row& row : {Row{"AB", "key", 1, 0, nul},
                         {"AB", "key", 2, 1, "d" + nul},  // too small to read at all
                         {"AB", "key", 3, 2, "12" + nul},
                         {"AB", "key", 5, 4, "1234" + nul},
                         {"AB", "key", 6, 5, "12345" + nul},
                         {"AB", "key", 7, 5, "12345" + nul},
                         {"AB", "none", 4, 3, "def" + nul},
                         {"CD", nullptr, 2, 0, nul},
                         {"CD", nullptr, 3, 1, "k" + nul + nul},
                         {"CD", nullptr, 4, 3, "k1" + nul + nul},
                         {"CD", nullptr, 5, 3, "k1" + nul + nul},
                         {"CD", nullptr, 6, 4, "k1" + nul + "k" + nul + nul},
                         {"CD", nullptr, 7, 5, "k1" + nul + "k2" + nul + nul},
                         {"CD", nullptr, 8, 7, "k1" + nul + "k23" + nul + nul},
                         {"CD", nullptr, 9, 7, "k1" + nul + "k23" + nul + nul},
                         {nullptr, "k", 8, 6, "AB" + nul + "CD" + nul + nul}}) {
    std::string buffer(16, '#');
    EXPECT_EQ(CIniFile::GetPrivateProfileString(row.section, row.key, "default", buffer.data(), row.size, file.c_str()),
              row.result);
    EXPECT_EQ(buffer.substr(0, row.stored.size()), row.stored) << row.size;
    EXPECT_EQ(buffer[row.size - 1], '\0') << row.size;
    EXPECT_EQ(buffer.substr(row.size), std::string(16 - row.size, '#')) << row.size;
  }
  char untouched = '#';
  EXPECT_EQ(CIniFile::GetPrivateProfileString("AB", "key", "d", &untouched, 0, file.c_str()), 0U);
  EXPECT_EQ(untouched, '#');
  EXPECT_EQ(CIniFile::GetPrivateProfileString("AB", "key", "d", nullptr, 9, file.c_str()), 0U);
  EXPECT_EQ(CIniFile::GetPrivateProfileString("AB", "key", "d", &untouched, 1, nullptr), 0U);
}

TEST(IniFile, LongLinesAreReadAndEditedInPieces) {
  const FixtureRoot root;
  const std::string piece(1023 - 5, 'x');
  root.WriteFile(kPath, "[A]\n\nlong=" + piece + "more=1\n" + std::string(70000, 'y') + "\nend=2\n");
  const std::string file = root.HostPath(kPath);
  EXPECT_EQ(Read(file, "A", "long"), piece);
  EXPECT_EQ(Read(file, "A", "more"), "1");
  EXPECT_EQ(Read(file, "A", "end"), "2");
  EXPECT_EQ(CIniFile::WritePrivateProfileString("A", "long", "s", file.c_str()), 1);
  EXPECT_EQ(root.ReadFile(kPath), "[A]\n\nlong=s\nmore=1\n" + std::string(70000, 'y') + "\nend=2\n");
}

TEST(IniFile, EditsAreExactToTheByte) {
  struct Row {
    std::string before;
    const char* section;
    const char* key;
    const char* value;
    int result;
    std::string after;
  };
  const std::string two = "; top\n[A]\n\na=1\n; c\n\nb=2\n\n; next\n\n[B]\nx=1\n";
  const char* const none = nullptr;
  const std::vector<Row> rows = {
      // set: a region with its comments, the first entry, a new entry, a new section
      {two, "A", "b", "99999", 1, "; top\n[A]\n\na=1\nb=99999\n\n; next\n\n[B]\nx=1\n"},
      {two, "A", "a", "", 1, "; top\n[A]\n\na=\n; c\n\nb=2\n\n; next\n\n[B]\nx=1\n"},
      {two, "A", "z", "3", 1, "; top\n[A]\n\na=1\n; c\n\nb=2\nz=3\n\n; next\n\n[B]\nx=1\n"},
      {two, "B", "x", "7", 1, "; top\n[A]\n\na=1\n; c\n\nb=2\n\n; next\n\n[B]\n\nx=7\n"},
      {two + "; end\n\n", "B", "z", "3", 1, two + "; end\n\nz=3\n"},
      {two, "C", "k", "v w", 1, two + "\n[C]\n\nk=v w\n"},
      {"", "C", "k", "v", 1, "\n[C]\n\nk=v\n"},
      {"[A]\n; c\n\n\n;d\na=1\nb=2\n", "A", "a", "9", 1, "[A]\n\na=9\nb=2\n"},
      {"[A]\nno assignment\na \t=1\na=2\n", "A", "a", "9", 1, "[A]\nno assignment\na=9\na=2\n"},
      // what a writer does not take for the entry or the section
      {"[A]\n a=1\n ;x\nA=2\n", "A", "a", "9", 1, "[A]\n a=1\n ;x\nA=2\na=9\n"},
      {"[ A ]\na=1\n[A];\n[A]\r\n", "A", "a", "9", 1, "[ A ]\na=1\n[A];\n[A]\r\n\n[A]\n\na=9\n"},
      // delete
      {two, "A", "b", none, 1, "; top\n[A]\n\na=1\n\n; next\n\n[B]\nx=1\n"},
      {two, "A", "a", none, 1, "; top\n[A]\n\n; c\n\nb=2\n\n; next\n\n[B]\nx=1\n"},
      {two, "A", "z", none, 0, two},
      {two, "B", "z", none, 0, two},
      {two, "A", none, none, 1, "\n; next\n\n[B]\nx=1\n"},
      {two, "B", none, "v", 1, "; top\n[A]\n\na=1\n; c\n\nb=2\n"},
      {two, "C", none, none, 0, two},
      // a last line without newline
      {"[A]\n\na=1", "A", "a", "22", 1, "[A]\n\na=22\n"},
      {"[A]\n\na=1", "A", "b", "2", 1, "[A]\n\na=1\nb=2\n"},
      {"[A]", "A", "b", "2", 1, "[A]\nb=2\n"},
      {"[A]\n\na=1\n[B]", "A", "b", "2", 1, "[A]\n\na=1\nb=2\n[B]"},
      {"[A]\n\na=1\n; c", "B", "b", "2", 1, "[A]\n\na=1\n; c\n\n[B]\n\nb=2\n"},
      {"[A]\n\na=1\nb=2", "A", "b", none, 1, "[A]\n\na=1\n"},
      {"[A]\na=1\n\n[B]", "B", none, none, 1, "[A]\na=1\n"},
  };
  const FixtureRoot root;
  const std::string file = root.HostPath(kPath);
  for (const Row& row : rows) {
    root.WriteFile(kPath, row.before);
    EXPECT_EQ(CIniFile::WritePrivateProfileString(row.section, row.key, row.value, file.c_str()), row.result);
    EXPECT_EQ(root.ReadFile(kPath), row.after) << "from " << row.before;
  }
}

TEST(IniFile, MissingFileIsCreatedByASetOnly) {
  const FixtureRoot root;
  root.MakeDirectory("/etc");
  root.MakeLink("/etc/link.ini", "../made.ini");
  root.Run([] {
    const TraceCapture trace(4);
    ::umask(077);
    EXPECT_EQ(CIniFile::WritePrivateProfileString("S", "k", nullptr, "/etc/link.ini"), 1);
    EXPECT_EQ(CIniFile::WritePrivateProfileString("S", "k", "v", "/etc/link.ini"), 1);
    EXPECT_EQ(CIniFile::WritePrivateProfileString("S", nullptr, nullptr, "/etc/link.ini"), 1);
    EXPECT_EQ(CIniFile::WritePrivateProfileString("S", "k", "v", "/no/dir.ini"), 0);
    EXPECT_EQ(CIniFile::WritePrivateProfileString("S", "k", nullptr, "/etc"), 0);
    EXPECT_EQ(CIniFile::WritePrivateProfileString(nullptr, "k", "v", nullptr), 0);
    EXPECT_EQ(CIniFile::WritePrivateProfileString("S", "k", "v", nullptr), 0);
    char value[8];
    EXPECT_EQ(CIniFile::GetPrivateProfileString("S", "k", "d", value, sizeof value, "/no/dir.ini"), 1U);
    EXPECT_EQ(trace.Lines(),
              (Texts{"WritePrivateProfileString(S, k, <nil>, /etc/link.ini)",
                     "WritePrivateProfileString(S, k, v, /etc/link.ini)",
                     "WritePrivateProfileString(S, <nil>, <nil>, /etc/link.ini)", "WritePrivateProfileString rc=0x0001",
                     "WritePrivateProfileString(S, k, v, /no/dir.ini)",
                     "WritePrivateProfileString: ## WARNING: append open error: /no/dir.ini",
                     "WritePrivateProfileString(S, k, <nil>, /etc)",
                     "WritePrivateProfileString: ## WARNING: append open error: /etc",
                     "WritePrivateProfileString: ## WARNING: invalid pointer to AppName",
                     "WritePrivateProfileString: ## WARNING: invalid pointer to FileName",
                     "GetPrivateProfileString: Cannot open /no/dir.ini"}));
    EXPECT_EQ(CIniFile::WritePrivateProfileString("S", "k", "v", "/etc/new.ini"), 1);
  });
  EXPECT_EQ(root.ReadFile("/made.ini"), "");
  EXPECT_EQ(root.ReadFile("/etc/new.ini"), "\n[S]\n\nk=v\n");
  EXPECT_EQ(root.Mode("/etc/new.ini") & 07777, 0644U);
}

TEST(IniFile, AFileThatCannotGrowStaysAsItWas) {
  const FixtureRoot root;
  const std::string content = "[A]\n\na=1\nb=2\n[B]\n\nc=3\n";
  root.WriteFile(kPath, content);
  root.MakeLink("/link.ini", "made.ini");
  root.Run([&] {
    ::signal(SIGXFSZ, SIG_IGN);
    const rlimit limit{content.size() + 3, RLIM_INFINITY};
    ::setrlimit(RLIMIT_FSIZE, &limit);
    const std::string value(8, 'x');
    for (const char* section : {"A", "B", "C"}) {
      EXPECT_EQ(CIniFile::WritePrivateProfileString(section, "a", value.c_str(), kPath), 0);
      EXPECT_EQ(ReadWholeFile(kPath), content) << section;
    }
    EXPECT_EQ(CIniFile::WritePrivateProfileString("A", "a", "1234", kPath), 1);
    EXPECT_EQ(CIniFile::WritePrivateProfileString("A", "a", std::string(40, 'x').c_str(), "/link.ini"), 0);
  });
  EXPECT_EQ(root.ReadFile(kPath), "[A]\n\na=1234\nb=2\n[B]\n\nc=3\n");
  EXPECT_FALSE(root.Exists("/made.ini"));
  EXPECT_TRUE(root.Exists("/link.ini"));
}

TEST(IniFile, ObjectDoesNothingUntilItIsOpen) {
  const FixtureRoot root;
  root.WriteFile(kPath, "[A]\na=1\n");
  const std::string file = root.HostPath(kPath);
  CIniFile ini;
  std::string out = "kept";
  Texts names;
  const auto expectIdle = [&] {
    EXPECT_FALSE(ini.IsOpen() && *ini.GetFileName() != '\0');
    EXPECT_FALSE(ini.GetString(out, "A", "a", "d"));
    EXPECT_STREQ(ini.GetString("A", "a", "d"), "d");
    EXPECT_EQ(ini.GetNumber("A", "a", 5), 5U);
    EXPECT_FALSE(ini.SetString("A", "a", "2") || ini.SetNumber("A", "a", 2U) || ini.DeleteSection("A"));
    EXPECT_FALSE(ini.GetSections(names) || ini.GetEnums(names, "A"));
    EXPECT_STREQ(ini.GetEnum(nullptr), "");
    EXPECT_STREQ(ini.GetNextEnum(), "");
  };
  expectIdle();
  EXPECT_FALSE(ini.Open(false));
  EXPECT_FALSE(ini.Open((file + "x").c_str(), true));
  expectIdle();
  EXPECT_TRUE(ini.Open(false));
  EXPECT_TRUE(ini.Open(file.c_str(), true));
  EXPECT_EQ(ini.GetFileName(), file);
  EXPECT_FALSE(ini.DeleteKey("A", nullptr) || ini.DeleteSection(nullptr) || ini.CopySection("A", nullptr));
  EXPECT_FALSE(ini.GetEnums(names, nullptr));
  ini.Close();
  expectIdle();
  EXPECT_TRUE(ini.Open(true));
  ini.SetFilename(nullptr);
  expectIdle();
  EXPECT_EQ(out, "kept");
  EXPECT_EQ(root.ReadFile(kPath), "[A]\na=1\n");
}

TEST(IniFile, NumbersFollowTheirPrefix) {
  const FixtureRoot root;
  const std::pair<const char*, uint32_t> rows[] = {{"0x10", 16},
                                                   {"0XfF", 255},
                                                   {"010", 8},
                                                   {"10 apples", 10},
                                                   {"08", 0},
                                                   {"x", 0},
                                                   {"+7", 7},
                                                   {"-5", 0U - 5U},
                                                   {"4294967295", ~0U},
                                                   {"99999999999", ~0U},
                                                   {"", 77},
                                                   {"0x", 0},
                                                   {"-0x2", ~1U},
                                                   {"-9999999999", 0x80000000},
                                                   {"123456789012345678901234567890", ~0U},
                                                   {"0b1", 0}};
  CIniFile ini;
  ASSERT_TRUE(ini.Open(root.HostPath(kPath).c_str(), false));
  for (const auto& [text, number] : rows) {
    EXPECT_TRUE(ini.SetString("S", "n", text));
    EXPECT_EQ(ini.GetNumber("S", "n", 77), number) << text;
  }
  EXPECT_TRUE(ini.SetNumber("S", "n", int32_t{-5}));
  EXPECT_STREQ(ini.GetString("S", "n", ""), "-5");
  EXPECT_TRUE(ini.SetNumber("S", "n", uint32_t{4000000000}));
  EXPECT_EQ(ini.GetNumber("S", "n", 0), 4000000000U);
}

TEST(IniFile, ListsAndTextsOutgrowTheirFirstBuffer) {
  const FixtureRoot root;
  std::string content = "[Small]\nonly=1\n[Big]\n";
  for (int number = 0; number < 11000; ++number) {
    content += "key" + std::to_string(number) + "=v\n";
    if (number == 9000) content += "[Huge]\n";
  }
  root.WriteFile(kPath, content);
  CIniFile ini;
  ASSERT_TRUE(ini.Open(root.HostPath(kPath).c_str(), true));
  EXPECT_STREQ(ini.GetEnum("Huge"), "key9001");
  int count = 1;
  for (const char* name = ini.GetNextEnum(); *name != '\0'; name = ini.GetNextEnum()) {
    EXPECT_EQ(name, "key" + std::to_string(9001 + count++));
  }
  EXPECT_EQ(count, 1999);
  EXPECT_STREQ(ini.GetNextEnum(), "");
  EXPECT_STREQ(ini.GetEnum(nullptr), "Small");
  Texts names{"kept"};
  EXPECT_TRUE(ini.CopySection("Small", "Copy"));
  EXPECT_TRUE(ini.GetSections(names));
  EXPECT_EQ(names, (Texts{"kept", "Small", "Big", "Huge", "Copy"}));
  EXPECT_STREQ(ini.GetNextEnum(), "Big");  // the lists above left this one alone
  EXPECT_STREQ(ini.GetString("Copy", "only", ""), "1");
  EXPECT_STREQ(ini.GetEnum("Big"), "");  // more than an enumeration holds
  EXPECT_STREQ(ini.GetNextEnum(), "");
  names.clear();
  EXPECT_TRUE(ini.GetEnums(names, "Big"));
  EXPECT_EQ(names.size(), 9001U);
  for (const size_t length : {1021U, 1022U, 1023U, 64509U, 64510U}) {
    const std::string text(length, 'x');
    std::string out;
    EXPECT_EQ(ini.GetString(out, "Small", "none", text.c_str()), length <= 64509);
    EXPECT_EQ(out, text);
    EXPECT_EQ(ini.GetString("Small", "none", text.c_str()), text);
    EXPECT_EQ(ini.GetString("Small", "none", text.c_str()) == text.c_str(), length > 64509);
  }
}
