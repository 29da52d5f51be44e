#include "platform/ini_file.h"

#include <sys/resource.h>
#include <sys/xattr.h>

#include <array>

#include "support/failing_call.h"
#include "support/trace_capture.h"

using Texts = std::vector<std::string>;

constexpr const char* kPath = "/agent.ini";

using IniFile = RootedTest;

TEST_F(IniFile, ReadsEntriesAndNames) {
  const std::string longLine = "long=" + std::string(1018, 'x') + "more=1\n" + std::string(70000, 'y') + "\n";
  root.WriteFile(kPath,
                 "early=0\n\n[Name]\n ; comment\nkey = value ; note\n\t two words \t=  a = b  \r\nempty=\nno sign\n" +
                     longLine + "key=again\nKey=upper\n  [ Name ] ; blanks\nkey=blanks\n[broken\nkey=broken\n" +
                     "[]\n[Name]\nsecond=1\n[a]b]\nlast=end");
  CIniFile ini;
  ASSERT_TRUE(ini.Open(root.HostPath(kPath).c_str(), true));
  const std::array<const char*, 3> rows[] = {
      {"Name", "key", "value"},    {"Name", "Key", "upper"}, {"Name", "two words", "a = b"}, {"Name", "empty", "-"},
      {"Name", "no sign", "-"},    {"Name", "more", "1"},    {"Name", "second", "-"},        {"name", "key", "-"},
      {" Name ", "key", "blanks"}, {"broken", "key", "-"},   {"a]b", "last", "end"},         {"", "early", "-"}};
  for (const auto& [section, key, expected] : rows)
    EXPECT_STREQ(ini.GetString(section, key, "-"), expected) << section << "." << key;
  EXPECT_EQ(ini.GetString("Name", "long", ""), std::string(1018, 'x'));
  Texts names;
  EXPECT_TRUE(ini.GetSections(names) && ini.GetEnums(names, "Name"));
  EXPECT_EQ(names, (Texts{"Name", " Name ", "Name", "a", "key", "two words", "empty", "long", "more", "key", "Key"}));
  EXPECT_FALSE(ini.GetEnums(names, "missing"));
  EXPECT_TRUE(ini.GetEnums(names, "a]b"));
  EXPECT_EQ(names.back(), "last");
}

TEST_F(IniFile, ResultsTellWhatDidNotFit) {
  root.WriteFile(kPath, "[AB]\nkey=12345\n[CD]\nk1=x\nk23=x\n");
  // Section, key, size => result and bytes stored, '|' standing for NUL.
  const std::tuple<const char*, const char*, uint32_t, uint32_t, std::string> rows[] = {
      {"AB", "key", 0, 0, ""},          {"AB", "key", 1, 0, "|"},          {"AB", "key", 2, 1, "d|"},
      {"AB", "key", 3, 2, "12|"},       {"AB", "key", 5, 4, "1234|"},      {"AB", "key", 6, 5, "12345|"},
      {"AB", "key", 7, 5, "12345|"},    {"AB", "none", 4, 3, "def|"},      {"CD", nullptr, 2, 0, "|"},
      {"CD", nullptr, 3, 1, "k||"},     {"CD", nullptr, 4, 3, "k1||"},     {"CD", nullptr, 6, 4, "k1|k||"},
      {"CD", nullptr, 7, 5, "k1|k2||"}, {"CD", nullptr, 8, 7, "k1|k23||"}, {nullptr, "k", 8, 6, "AB|CD||"}};
  const std::string file = root.HostPath(kPath);
  for (const auto& [section, key, size, result, stored] : rows) {
    std::string buffer(16, '#');
    EXPECT_EQ(CIniFile::GetPrivateProfileString(section, key, "default", buffer.data(), size, file.c_str()), result);
    EXPECT_TRUE(size == 0 || buffer[size - 1] == '\0') << size;
    EXPECT_EQ(buffer.substr(size), std::string(16 - size, '#')) << size;
    std::replace(buffer.begin(), buffer.end(), '\0', '|');
    EXPECT_EQ(buffer.substr(0, stored.size()), stored) << size;
  }
}

TEST_F(IniFile, EditsAreExactToTheByte) {
  const std::string two = "; top\n[A]\n\na=1\n; c\n\nb=2\n\n; next\n\n[B]\nx=1\n";
  const std::string longLine = "[A]\n\nk=" + std::string(1021, 'x');
  // File, section, key, value => result and file.
  using Row = std::tuple<std::string, const char*, const char*, const char*, int, std::string>;
  const Row rows[] = {{two, "A", "b", "99999", 1, "; top\n[A]\n\na=1\nb=99999\n\n; next\n\n[B]\nx=1\n"},
                      {two, "A", "z", "3", 1, "; top\n[A]\n\na=1\n; c\n\nb=2\nz=3\n\n; next\n\n[B]\nx=1\n"},
                      {two + "; end\n\n", "B", "z", "3", 1, two + "; end\n\nz=3\n"},
                      {two, "C", "k", "v w", 1, two + "\n[C]\n\nk=v w\n"},
                      {"[A]\n; c\n\n\n;d\na=1\nb=2\n", "A", "a", "9", 1, "[A]\n\na=9\nb=2\n"},
                      {"[A]\nno sign\na \t=1\na=2\n", "A", "a", "9", 1, "[A]\nno sign\na=9\na=2\n"},
                      {longLine + "y=1\n", "A", "k", "s", 1, "[A]\n\nk=s\ny=1\n"},
                      {"[A]\n a=1\n ;x\nA=2\n", "A", "a", "9", 1, "[A]\n a=1\n ;x\nA=2\na=9\n"},
                      {"[ A ]\na=1\n[A];\n[A]\r\n", "A", "a", "9", 1, "[ A ]\na=1\n[A];\n[A]\r\na=9\n"},
                      {two, "A", "b", nullptr, 1, "; top\n[A]\n\na=1\n\n; next\n\n[B]\nx=1\n"},
                      {two, "A", "a", nullptr, 1, "; top\n[A]\n\n; c\n\nb=2\n\n; next\n\n[B]\nx=1\n"},
                      {two, "A", "z", nullptr, 0, two},
                      {two, "A", nullptr, nullptr, 1, "\n; next\n\n[B]\nx=1\n"},
                      {two, "B", nullptr, "v", 1, "; top\n[A]\n\na=1\n; c\n\nb=2\n"},
                      {"early=1\n\n[A]\na=1\n[B]\nb=1\n", "B", nullptr, nullptr, 1, "early=1\n\n[A]\na=1\n"},
                      {"[A]\n\na=1", "A", "a", "22", 1, "[A]\n\na=22\n"},
                      {"[A]", "A", "b", "2", 1, "[A]\nb=2\n"},
                      {"[A]\n\na=1\n; c", "B", "b", "2", 1, "[A]\n\na=1\n; c\n\n[B]\n\nb=2\n"}};
  for (const auto& [before, section, key, value, result, after] : rows) {
    root.WriteFile(kPath, before);
    EXPECT_EQ(CIniFile::WritePrivateProfileString(section, key, value, root.HostPath(kPath).c_str()), result);
    EXPECT_EQ(root.ReadFile(kPath), after) << "from " << before;
  }
}

TEST_F(IniFile, FailedAndMissingFilesAreLeftAsTheyWere) {
  const std::string content = "[A]\n\na=1\nb=2\n[B]\n\nc=3\n";
  root.WriteFile(kPath, content);
  root.MakeLink("/link", "made");
  RunTraced(root, 4, [&](TraceCapture& trace) {
    ::umask(077);
    EXPECT_EQ(CIniFile::WritePrivateProfileString("S", "k", nullptr, "/link"), 1);
    EXPECT_EQ(CIniFile::WritePrivateProfileString("S", "k", "v", "/new"), 1);
    EXPECT_EQ(CIniFile::WritePrivateProfileString("T", nullptr, nullptr, "/new"), 0);
    EXPECT_EQ(CIniFile::WritePrivateProfileString("S", "k", "v", "/no/dir"), 0);
    EXPECT_EQ(CIniFile::WritePrivateProfileString("S", "k", nullptr, "/var"), 0);
    EXPECT_EQ(CIniFile::WritePrivateProfileString(nullptr, "k", "v", nullptr), 0);
    EXPECT_EQ(CIniFile::WritePrivateProfileString("S", "k", "v", nullptr), 0);
    char value[8];
    EXPECT_EQ(CIniFile::GetPrivateProfileString("S", "k", "d", value, sizeof value, "/no/dir"), 1U);
    EXPECT_EQ(trace.Lines(),
              (Texts{"WritePrivateProfileString(S, k, <nil>, /link)", "WritePrivateProfileString(S, k, v, /new)",
                     "WritePrivateProfileString(T, <nil>, <nil>, /new)", "WritePrivateProfileString rc=0x0000",
                     "WritePrivateProfileString(S, k, v, /no/dir)",
                     "WritePrivateProfileString: ## WARNING: append open error: /no/dir",
                     "WritePrivateProfileString(S, k, <nil>, /var)",
                     "WritePrivateProfileString: ## WARNING: append open error: /var",
                     "WritePrivateProfileString: ## WARNING: invalid pointer to AppName",
                     "WritePrivateProfileString: ## WARNING: invalid pointer to FileName",
                     "GetPrivateProfileString: Cannot open /no/dir"}));
  });
  EXPECT_EQ(root.ReadFile("/new"), "\n[S]\n\nk=v\n");
  EXPECT_EQ(root.Mode("/new") & 07777, 0644U);
  root.Run([&] {
    ::signal(SIGXFSZ, SIG_IGN);
    const rlimit limit{content.size() + 3, RLIM_INFINITY};
    ::setrlimit(RLIMIT_FSIZE, &limit);
    for (const char* section : {"A", "B", "C"}) {
      EXPECT_EQ(CIniFile::WritePrivateProfileString(section, "a", "12345678", kPath), 0);
      EXPECT_EQ(ReadWholeFile(kPath), content) << section;
    }
    EXPECT_EQ(CIniFile::WritePrivateProfileString("A", "a", "1234", kPath), 1);
    EXPECT_EQ(CIniFile::WritePrivateProfileString("A", "a", content.c_str(), "/link"), 0);
  });
  EXPECT_FALSE(root.Exists("/made"));
  EXPECT_TRUE(root.Exists("/link"));
}

TEST_F(IniFile, SaveKeepsWhatAFileIs) {
  const std::string content = "[A]\n\na=1\n";
  root.WriteFile("/data/real.ini", content);
  root.WriteFile("/data/foreign", "mine");
  root.WriteFile("/data/two", content, 0644);
  root.MakeLink("/link", "data/real.ini");
  root.MakeLink("/data/.real~ini.new", "foreign");  // what lies where the temporary file is to be
  root.MakeLink("/dangling", "data/./made");
  root.Run(FixtureRoot::kUsr, [&] {
    const auto stat = [](const char* path) {
      struct stat info {};
      EXPECT_EQ(::stat(path, &info), 0) << path;
      return info;
    };
    const char* const file = "/data/real.ini";
    const bool hasAttributes = ::setxattr(file, "user.note", "kept", 4, 0) == 0;
    if (::geteuid() == 0) [[maybe_unused]]
      const int isChanged = ::chown(file, 0, 12);
    EXPECT_EQ(::chmod(file, 0640), 0);
    const struct stat before = stat(file);
    EXPECT_EQ(CIniFile::WritePrivateProfileString("A", "a", "1", "/link"), 1);
    EXPECT_EQ(stat(file).st_ino, before.st_ino) << "an edit that changes nothing wrote something";
    const FailingCall during("fsync", 1, [&stat] {
      EXPECT_EQ(stat("/data/.real~ini.new").st_mode, S_IFREG | 0600U) << "others could hold its lock";
    });
    EXPECT_EQ(CIniFile::WritePrivateProfileString("A", "a", "2", "/link"), 1);
    EXPECT_TRUE(during.HasHappened());
    const struct stat after = stat(file);
    EXPECT_NE(after.st_ino, before.st_ino) << "not replaced";
    EXPECT_EQ(std::tie(after.st_mode, after.st_uid, after.st_gid),
              std::tie(before.st_mode, before.st_uid, before.st_gid));
    char note[5] = {};
    EXPECT_EQ(::getxattr(file, "user.note", note, 4), hasAttributes ? 4 : -1);
    EXPECT_STREQ(note, hasAttributes ? "kept" : "");

    EXPECT_EQ(::link("/data/two", "/second"), 0);
    EXPECT_EQ(CIniFile::WritePrivateProfileString("A", "a", "2", "/second"), 1);
    EXPECT_EQ(CIniFile::WritePrivateProfileString("A", "a", "2", "/dangling"), 1);
    EXPECT_EQ(CIniFile::WritePrivateProfileString("A", "a", "2", "/dev/null"), 0) << "no regular file";
  });
  for (const char* path : {"/link", "/data/two", "/second"})
    EXPECT_EQ(root.ReadFile(path), "[A]\n\na=2\n") << path;
  EXPECT_EQ(root.ReadFile("/data/made"), "\n[A]\n\na=2\n");
  EXPECT_EQ(root.ReadFile("/data/foreign"), "mine");
  EXPECT_FALSE(root.Exists("/data/.real~ini.new") || root.Exists("/data/.made.new"));
}

TEST_F(IniFile, WritersWaitForOneAnother) {
  root.MakeDirectory("/data");
  root.Run([] {
    constexpr int kKeys = 60;
    for (const bool isInPlace : {false, true}) {
      EXPECT_TRUE(!isInPlace || ::link("/data/a.ini", "/data/b.ini") == 0);
      for (const char* section : {"A", "B", "C"}) {
        if (::fork() != 0) continue;
        bool isDone = true;
        for (int key = 0; key < kKeys && isDone; ++key)
          isDone = CIniFile::WritePrivateProfileString(section, std::to_string(key).c_str(), isInPlace ? "in" : "new",
                                                       "/data/a.ini") == 1;
        ::_exit(isDone ? 0 : 1);
      }
      for (int status = 0; ::wait(&status) > 0;)
        EXPECT_EQ(status, 0);
      CIniFile ini;
      EXPECT_TRUE(ini.Open("/data/a.ini", true));
      for (const char* section : {"A", "B", "C"})
        for (int key = 0; key < kKeys; ++key)
          EXPECT_STREQ(ini.GetString(section, std::to_string(key).c_str(), ""), isInPlace ? "in" : "new");
    }
  });
}

TEST_F(IniFile, UnluckyKeysAreFound) {
  std::string content = "[A]\n";
  for (int line = 0; line < 3000; ++line)
    content +=
        "key" + std::to_string(line) + "= a Key [B] last\n" + (line % 500 == 0 ? std::string(1500, 'z') + "\n" : "");
  root.WriteFile(kPath, content + "  last = 1\n" + std::string(1023, 'y') + "piece=2\n" + std::string(600, ' ') +
                            "late=3\nKey;=\nkey=4\n[B]\nKey=5\n");
  CIniFile ini;
  ASSERT_TRUE(ini.Open(root.HostPath(kPath).c_str(), true));
  const std::array<const char*, 3> rows[] = {{"A", "last", "1"}, {"A", "piece", "2"}, {"A", "late", "3"},
                                             {"A", "key", "4"},  {"A", "Key", "-"},   {"A", "ke", "-"},
                                             {"B", "Key", "5"},  {"B", "key", "-"}};
  for (const auto& [section, key, expected] : rows)
    EXPECT_STREQ(ini.GetString(section, key, "-"), expected) << section << "." << key;
}

TEST_F(IniFile, ObjectWorksWhileItIsOpen) {
  root.WriteFile(kPath, "[S]\nn=1\n");
  CIniFile ini;
  Texts names;
  const auto expectIdle = [&] {
    EXPECT_TRUE(ini.GetNumber("S", "n", 5) == 5 && *ini.GetString("S", "n", "d") == 'd' && *ini.GetEnum("S") == '\0');
    EXPECT_FALSE(ini.SetString("S", "n", "2") || ini.DeleteSection("S") || ini.GetEnums(names, "S"));
  };
  EXPECT_FALSE(ini.Open(false));
  expectIdle();
  EXPECT_FALSE(ini.Open("/no/such.ini", true));
  expectIdle();
  EXPECT_TRUE(ini.Open(root.HostPath(kPath).c_str(), true));
  EXPECT_FALSE(ini.DeleteKey("S", nullptr) || ini.DeleteSection(nullptr) || ini.GetEnums(names, nullptr));
  const std::pair<const char*, uint32_t> rows[] = {
      {"0x10", 16},    {"010", 8}, {"10 x", 10},         {"x", 0},
      {"-5", 0U - 5U}, {"", 77},   {"99999999999", ~0U}, {"123456789012345678901234567890", ~0U}};
  for (const auto& [text, number] : rows) {
    EXPECT_TRUE(ini.SetString("S", "n", text));
    EXPECT_EQ(ini.GetNumber("S", "n", 77), number) << text;
  }
  EXPECT_TRUE(ini.SetNumber("S", "n", int32_t{-5}) && ini.SetNumber("S", "u", uint32_t{4000000000}));
  EXPECT_TRUE(ini.CopySection("S", "T"));
  EXPECT_EQ(root.ReadFile(kPath), "[S]\n\nn=-5\nu=4000000000\n\n[T]\n\nn=-5\nu=4000000000\n");
  ini.SetFilename(nullptr);
  expectIdle();
}

TEST_F(IniFile, ListsAndTextsOutgrowTheirFirstBuffer) {
  std::string content = "[Big]\n";
  for (int number = 0; number < 11000; ++number)
    content += "key" + std::to_string(number) + (number == 8999 ? "=v\n[Small]\n" : "=v\n");
  root.WriteFile(kPath, content);
  CIniFile ini;
  ASSERT_TRUE(ini.Open(root.HostPath(kPath).c_str(), true));
  int count = 9000;
  for (const char* name = ini.GetEnum("Small"); *name != '\0'; name = ini.GetNextEnum())
    EXPECT_EQ(name, "key" + std::to_string(count++));
  EXPECT_EQ(count, 11000);
  EXPECT_STREQ(ini.GetNextEnum(), "");
  EXPECT_STREQ(ini.GetEnum("Big"), "");  // more than an enumeration holds
  EXPECT_STREQ(ini.GetNextEnum(), "");
  Texts names;
  EXPECT_TRUE(ini.GetEnums(names, "Big"));
  EXPECT_EQ(names.size(), 9000U);
  for (const size_t length : {1021U, 1022U, 1023U, 64509U, 64510U}) {
    const std::string text(length, 'x');
    std::string out;
    EXPECT_EQ(ini.GetString(out, "Small", "none", text.c_str()), length <= 64509);
    EXPECT_EQ(out, text);
    EXPECT_EQ(ini.GetString("Small", "none", text.c_str()), text);
  }
}
