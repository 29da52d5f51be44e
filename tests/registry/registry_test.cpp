#include "registry/registry.h"

#include <random>

#include "registry/registry_strings.h"
#include "support/registry_state.h"
#include "support/trace_capture.h"

namespace {

const unsigned char* Bytes(const char* text) {
  return reinterpret_cast<const unsigned char*>(text);
}

struct Registry : RootedTest {
  Registry() {
    root.WriteFile(kRegistry,
                   "[HKEY_LOCAL_MACHINE]\nRoot=d=1\n"
                   "[A]\nPort=d=3172\nText=s=abc\nHome=es=%HOME%/x%%y%z\nData=b=0a ff 01 \n"
                   "[B]\n[C]\nDeep=d=-1\n\n\n\n"
                   "[D]\n\n\n"
                   "[HKEY_USERS]\nPointer=s=hkey_local_machine\\A\nBare=s=HKEY_USERS\n\n\n");
  }
};

}  // namespace

TEST_F(Registry, PathsFollowSeparatorsAndEndAtValues) {
  root.Run([] {
    using Row = std::pair<const char*, int>;
    CRegistry registry;
    for (const Row& row : {Row{"A\\B\\C", 0}, Row{"A/B/C", 0}, Row{"A\\B/C", 0}, Row{"A\\B\\", 0}, Row{"", 0},
                           Row{"A/B\\C", -1}, Row{"A\\Port", -1}, Row{"a", -1}, Row{"A\\\\B", -1}, Row{"\\A", -1}}) {
      EXPECT_EQ(registry.Open(row.first, CRegistry::HKEY_LOCAL_MACHINE), row.second) << row.first;
      EXPECT_EQ(registry.Close(), row.second == 0) << row.first;
    }
    registry.Open("A", CRegistry::HKEY_LOCAL_MACHINE);
    EXPECT_EQ(registry.Open("None", CRegistry::HKEY_LOCAL_MACHINE), -1);
    EXPECT_FALSE(registry.Close()) << "a failed Open leaves no key";
    EXPECT_EQ(registry.Open(nullptr, nullptr), -1);
    EXPECT_EQ(registry.Open("", nullptr), 0);
    EXPECT_EQ(registry.CreateKey(nullptr, "HKEY_LOCAL_MACHINE\\A/B\\E\\"), 0);
    EXPECT_EQ(registry.SetValue("Made", 5U), 0);
    EXPECT_EQ(registry.CreateKey(CRegistry::HKEY_LOCAL_MACHINE, "A\\Port\\X"), -1);
    unsigned int made = 0;
    EXPECT_EQ(registry.QueryValue(&made, "Made"), 0) << "a failed CreateKey leaves the current key";
    EXPECT_EQ(registry.Open("A/B\\E", CRegistry::HKEY_LOCAL_MACHINE), 0);
    CRegistry other(registry);
    EXPECT_TRUE(other.QueryValue(&made, "Made") == 0 && made == 5);
  });
}

TEST_F(Registry, ValuesAreReadByTypeAndSize) {
  root.Run([] {
    ::setenv("HOME", "/root", 1);
    CRegistry registry("A", CRegistry::HKEY_LOCAL_MACHINE, 0);
    unsigned int number = 0, count = 3;
    std::string text;
    EXPECT_TRUE(registry.QueryValue(&number, "Home") == 61 && registry.QueryValue(text, "Port") == 61);
    EXPECT_EQ(registry.GetValue("B"), nullptr);
    EXPECT_EQ(registry.QueryValue(&number, "Text"), 0);
    EXPECT_EQ(std::memcmp(&number, "abc", 4), 0);
    EXPECT_EQ(std::memcmp(registry.GetValue("Data"), "\x0a\xff\x01", 3), 0);
    EXPECT_TRUE(registry.QueryValue(text, "Home") == 0 && text == "/root/x%yz");
    EXPECT_EQ(registry.m_ValueSize, 10U);
    registry.m_ExpandStrings = false;
    EXPECT_STREQ(registry.GetValue("Home"), "%HOME%/x%%y%z");
    EXPECT_EQ(ExpandEnvironment("%NOT_SET_ANYWHERE%a%"), "a");

    const TraceCapture trace(1);
    char buffer[] = "######";
    EXPECT_EQ(registry.QueryValue(buffer, "Text", &count), 34);
    EXPECT_STREQ(buffer, "abc###");
    count = 4;
    EXPECT_TRUE(registry.QueryValue(buffer, "Text", &count) == 0 && count == 3);
    EXPECT_TRUE(registry.QueryValue(nullptr, "Text", &count) == 0 && count == 4);
    EXPECT_EQ(registry.QueryValue(buffer, "Text", nullptr), 34);
    EXPECT_EQ(trace.Text(), "CRegistry::QueryValue: ** ERROR **  pdwCount is a NULL pointer\n");
  });
}

TEST_F(Registry, SetAndDeleteReplaceWhateverHasTheName) {
  root.Run([] {
    CRegistry registry("A", CRegistry::HKEY_LOCAL_MACHINE, 0);
    CRegistry below("A\\B\\C", CRegistry::HKEY_LOCAL_MACHINE, 0);
    EXPECT_TRUE(registry.SetValue("N", Bytes("abcdef"), 3, 1));
    EXPECT_EQ(registry.GetValueSize("N"), 4U);
    EXPECT_FALSE(registry.SetValue("N", Bytes("abcd"), 4, 0) || registry.SetValue("N", Bytes("abc"), 3, 4) ||
                 registry.SetValue("N", nullptr, 3, 1));
    const TraceCapture trace(2);
    EXPECT_EQ(registry.SetValue("B", "value"), 0);
    EXPECT_THAT(
        trace.Lines(),
        testing::ElementsAre("CRegistry::SetValue \"B\" 5 1", testing::StartsWith("CRegistry::SetValue oEntry = 0x"),
                             "CRegistryNode::deleteNode \"C\"", "CRegistryNode::deleteNode \"Deep\""));

    // The handle of a key that is gone finds nothing and stores nothing.
    EXPECT_EQ(below.GetValue("Deep"), nullptr);
    EXPECT_EQ(below.SetValue("Deep", 1U), 22);
    EXPECT_EQ(below.CreateKey(nullptr, "Y"), -1);

    EXPECT_EQ(registry.DeleteKey("Text"), 22);
    EXPECT_TRUE(registry.DeleteValue("None") == 0 && registry.DeleteValue("Text") == 0);
    EXPECT_EQ(registry.GetValueSize("Text"), 0U);
    registry.Open("", CRegistry::HKEY_LOCAL_MACHINE);
    EXPECT_EQ(registry.DeleteKey("D"), 0);
    EXPECT_EQ(registry.DeleteValue("A"), 0) << "a subkey goes as a value does";
    EXPECT_EQ(registry.Open("A", CRegistry::HKEY_LOCAL_MACHINE), -1);

    registry.Open("", nullptr);
    EXPECT_EQ(registry.DeleteKey("HKEY_USERS"), 0);
    EXPECT_EQ(CRegistry::HKEY_USERS, nullptr);
  });
}

TEST_F(Registry, EnumerationsCountTheirOwnKind) {
  root.Run([] {
    CRegistry registry("", CRegistry::HKEY_LOCAL_MACHINE, 0);
    char name[4] = "###";
    unsigned int length = 2, count = 9;
    EXPECT_TRUE(registry.NoOfSubKeys(&count) == 0 && count == 2);
    EXPECT_EQ(registry.EnumKey(name, &length, 1, nullptr, &count), 0);
    EXPECT_STREQ(name, "D");
    EXPECT_EQ(registry.m_EnumKeyPos, 2U);
    EXPECT_EQ(registry.EnumKey(name, 4U, 2, nullptr, 0U), 61);

    registry.Open("A", CRegistry::HKEY_LOCAL_MACHINE);
    unsigned char data[8] = {};
    std::string names;
    for (unsigned int index = 0; registry.EnumVal(name, 3U, index, 999, nullptr, 0U) == 0; ++index)
      names += name;
    EXPECT_EQ(names, "DaHoPoTe") << "in order, cut to the size";
    unsigned int dataLength = sizeof data;
    length = sizeof name;
    EXPECT_EQ(registry.EnumVal(name, &length, 0, 4, data, &dataLength), 0);
    EXPECT_EQ(data[0] + 256 * data[1], 3172);
    EXPECT_EQ(registry.EnumVal(name, &length, 1, 4, data, &dataLength), 61);
    dataLength = sizeof data;
    EXPECT_EQ(registry.EnumVal(name, &length, 0, 1, data, &dataLength), 0);
    EXPECT_STREQ(reinterpret_cast<char*>(data), "abc");
    EXPECT_EQ(dataLength, 3U);
    EXPECT_TRUE(registry.EnumVal(name, &length, 0, 3, data, &dataLength) == 0 && dataLength == 0);
    // The next index goes on from the last only while the key is the same.
    registry.EnumVal(name, 4U, 0, 999, nullptr, 0U);
    registry.SetValue("Aa", 1U);
    EXPECT_EQ(registry.EnumVal(name, 4U, 1, 999, nullptr, 0U), 0);
    EXPECT_STREQ(name, "Dat");
  });
}

TEST_F(Registry, PointersNameARootKeyInAnyCase) {
  root.Run([] {
    CRegistry registry;
    EXPECT_EQ(registry.OpenPointerKey("", "Pointer", CRegistry::HKEY_USERS), 0);
    EXPECT_EQ(registry.GetValueSize("Port"), 4U);
    EXPECT_EQ(registry.OpenPointerKey("", "Bare", CRegistry::HKEY_USERS), -1);
    EXPECT_FALSE(registry.Close());
    std::string value;
    registry.CreateKey(CRegistry::HKEY_LOCAL_MACHINE,
                       "SYSTEM\\CurrentControlSet\\Control\\UUID\\5E2D7A10-4B3C-11D3-9A7E-00C0D1E2F3A4");
    registry.SetValue("Root", "HKEY_LOCAL_MACHINE/A");
    EXPECT_TRUE(CRegistry::GetProductRegistryRoot(value, "Root") && value == "HKEY_LOCAL_MACHINE/A");
    EXPECT_EQ(registry.OpenUUIDPointer("Root", CRegistry::HKEY_LOCAL_MACHINE, 0, nullptr, false), 0);
  });
}

TEST_F(Registry, LargeKeyBehavesLikeASortedMap) {
  root.Run([] {
    CRegistry registry("A\\B\\C", CRegistry::HKEY_LOCAL_MACHINE, 0);
    registry.DeleteValue("Deep");
    std::map<std::string, unsigned int> model;
    std::mt19937 random(1);
    for (unsigned int step = 0; step < 12000; ++step) {
      const std::string name = "n" + std::to_string(random() % 4000);
      if (random() % 4 == 0) {
        registry.DeleteValue(name.c_str());
        model.erase(name);
      } else {
        registry.SetValue(name.c_str(), step);
        model[name] = step;
      }
      unsigned int found = 0;
      ASSERT_EQ(registry.QueryValue(&found, name.c_str()) == 0, model.contains(name));
    }
    unsigned int index = 0;
    for (const auto& [wanted, number] : model) {
      char name[16];
      ASSERT_EQ(registry.EnumVal(name, sizeof name, index++, 4, nullptr, 0U), 0);
      ASSERT_EQ(name, wanted);
      unsigned int found = 0;
      ASSERT_TRUE(registry.QueryValue(&found, name) == 0 && found == number);
    }
  });
}

TEST_F(Registry, ThreadsReadWriteDeleteAndSaveAtOnce) {
  root.Run([] {
    std::vector<std::jthread> threads;
    for (unsigned int thread = 0; thread < 4; ++thread) {
      threads.emplace_back([thread] {
        const std::string own = "Own" + std::to_string(thread);
        for (unsigned int round = 0; round < 60; ++round) {
          CRegistry registry;
          registry.CreateKey(CRegistry::HKEY_LOCAL_MACHINE, ("Shared\\" + own).c_str());
          registry.SetValue("Round", round);
          unsigned int read = 0;
          EXPECT_TRUE(registry.QueryValue(&read, "Round") == 61 || read == round);
          registry.CreateKey(CRegistry::HKEY_LOCAL_MACHINE, own.c_str());
          EXPECT_EQ(registry.SetValue("Round", round), 0);
          if (thread == 0) {
            registry.Open("", CRegistry::HKEY_LOCAL_MACHINE);
            registry.DeleteKey("Shared");
          }
        }
      });
    }
  });
  const std::string file = root.ReadFile(kRegistry);
  for (const char* own : {"[Own0]", "[Own1]", "[Own2]", "[Own3]"})
    EXPECT_NE(file.find(own + std::string("\nRound=d=59\n")), std::string::npos) << own;
}
