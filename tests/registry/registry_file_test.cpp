#include <fcntl.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <map>
#include <random>

#include "platform/unique_fd.h"
#include "registry/registry.h"
#include "support/failing_call.h"
#include "support/fixture_root.h"
#include "support/registry_state.h"
#include "support/trace_capture.h"
#include "trace/trace_root.h"

namespace {

std::string Dump(CRegistryNode& node) {
  char* text = nullptr;
  size_t size = 0;
  FILE* file = ::open_memstream(&text, &size);
  node.dumpNode(file);
  std::fclose(file);
  std::string dumped(text, size);
  std::free(text);
  return dumped;
}

bool Restore(CRegistryNode& node, std::string text) {
  FILE* file = ::fmemopen(text.data(), text.size(), "r");
  const bool isTaken = node.restoreNode(file);
  std::fclose(file);
  return isTaken;
}

std::string FileText(const std::string& content) {
  return "[HKEY_LOCAL_MACHINE]\n" + content + "\n\n";
}

// 8 MiB, whatever the shell says.
void RunOnUsualStack(std::function<void()> body) {
  pthread_attr_t attributes;
  ASSERT_EQ(::pthread_attr_init(&attributes), 0);
  ASSERT_EQ(::pthread_attr_setstacksize(&attributes, size_t{8} << 20), 0);
  pthread_t thread{};
  const auto run = [](void* argument) -> void* {
    (*static_cast<std::function<void()>*>(argument))();
    return nullptr;
  };
  ASSERT_EQ(::pthread_create(&thread, &attributes, run, &body), 0);
  ::pthread_join(thread, nullptr);
  ::pthread_attr_destroy(&attributes);
}

void LimitFileSize(rlim_t limit) {
  const rlimit limits{limit, RLIM_INFINITY};
  ::setrlimit(RLIMIT_FSIZE, &limits);
}

// Saves one state after the other, from the one behind `state` on, and reports each that is done.
[[noreturn]] void SaveForEver(unsigned int state, int report) {
  CRegistry registry("", CRegistry::HKEY_LOCAL_MACHINE, 0);
  while (true) {
    SetState(registry, ++state);
    CRegistry::SaveTree();
    if (::write(report, &state, sizeof state) != static_cast<ssize_t>(sizeof state)) std::_Exit(1);
  }
}

}  // namespace

TEST(RegistryText, LinesAreReadAndWrittenBack) {
  struct Row {
    std::string read;
    std::string written;
    bool isTaken = true;
  };
  const std::string z(1023 - 4, 'z');
  const std::string fits = "A=s=" + z.substr(1) + "\n";
  std::string block = "A=b=";
  while (block.size() < 1022 - 3)
    block += "ff ";
  const Row rows[] = {
      {"[HKEY_LOCAL_MACHINE]\nPath=s=/opt/x\n[Agent]\nPort=d=3172\n\n\n\n",
       "[HKEY_LOCAL_MACHINE]\nPath=s=/opt/x\n[Agent]\nPort=d=3172\n\n\n\n"},
      {"Port=d=abc\n", "\n"},
      {"Data=b=0a ff 1\n", "Data=b=0a ff 01 \n\n"},
      {"Data=b=\nE=b=0x1ff 2z 3\n", "Data=b=\nE=b=ff 02 \n\n"},
      {"A=x=1\nA\n[A\n", "\n", false},
      {"[A]\n\n[B]\n\n", "[A]\n\n[B]\n\n\n", false},
      {"A=s=1\nA=d=  +7x\nA=es=2=s=3\n", "A=es=2=s=3\n\n"},
      {"b=d=4294967295\na=d=-2147483648\n=s=\n", "=s=\na=d=-2147483648\nb=d=-1\n\n"},
      {"[K]\nA=s=1\n\n[K]\nB=s=2\n\nK2=s=3\n", "K2=s=3\n[K]\nB=s=2\n\n\n"},
      {"[a]b]\nX=s=1", "[a]\nX=s=1\n\n\n"},
      {std::string("A=s=x\0y\nB=s=z\n\0\nC=s=lost\n", 25), "A=s=x\nB=s=z\n\n"},
      {"\nA=s=1\n", "\n", false},
      // Two pieces: the second has no marker, is a value, ends the node. The first has no room for its newline.
      {"A=s=" + z + "rest\nB=s=1\n", fits + "B=s=1\n\n"},
      {"A=s=" + z + "B=s=1\n", fits + "B=s=1\n\n"},
      {"A=s=" + z + "\nB=s=1\n", fits + "\n"},
      {fits + "B=s=1\n", fits + "B=s=1\n\n"},
      {block + "0 1\nB=s=1\n", block + "\nB=s=1\n\n"},
  };
  for (const Row& row : rows) {
    CRegistryNode node;
    EXPECT_EQ(Restore(node, row.read), row.isTaken) << row.read;
    EXPECT_EQ(Dump(node), row.written) << row.read;
  }
}

TEST(RegistryText, DepthIsBoundByMemoryAlone) {
  constexpr size_t kDepth = 200000;
  std::string text;
  for (size_t level = 0; level < kDepth; ++level)
    text += "[k]\n";
  text += "V=d=1\n" + std::string(kDepth + 1, '\n');
  RunOnUsualStack([&text] {
    CRegistryNode node;
    EXPECT_TRUE(Restore(node, text));
    EXPECT_EQ(Dump(node), text);
    EXPECT_TRUE(Restore(node, "[k]\nV=d=2\n\n")) << "the deep subtree is replaced";
    EXPECT_EQ(Dump(node), "[k]\nV=d=2\n\n\n");
  });

  const FixtureRoot root;
  root.WriteFile(kRegistry, "[HKEY_LOCAL_MACHINE]\n" + text + "\n");
  root.Run([] {
    RunOnUsualStack([] {
      CRegistry registry("", CRegistry::HKEY_LOCAL_MACHINE, 0);
      registry.SetValue("W", 2U);
      CRegistry::SaveTree();
      CRegistryNode node;
      EXPECT_TRUE(CRegistry::ReadTree(kRegistry, node));
    });
  });
  EXPECT_TRUE(root.ReadFile(kRegistry) == "[HKEY_LOCAL_MACHINE]\nW=d=2\n" + text + "\n");
}

TEST(RegistryText, EveryByteComesBackOrIsTraced) {
  const FixtureRoot root;
  root.WriteFile(kRegistry, FileText("V=d=1\n"));
  root.Run([] {
    CRegistry registry("", CRegistry::HKEY_LOCAL_MACHINE, 0);
    registry.SetValue("V", 2U);
    // By name: the text that it holds, for a key in its only value, and what its trace line would contain.
    std::map<std::string, std::pair<std::string, std::string>> stored = {{"V", {"", ""}}};
    const auto store = [&](const std::string& name, const std::string& text, const std::string& tag) {
      stored[name] = {text, tag};
      CRegistryValue value = CRegistryValue::Text(text, tag.front() == 'e' ? kRegistryExpandString : kRegistryString);
      CRegistryNodeRef key(CRegistry::HKEY_LOCAL_MACHINE);
      if (tag.front() == 'k') CRegistry::HKEY_LOCAL_MACHINE->FindOrCreateSubKey(name, key);
      EXPECT_TRUE(key->Exchange(tag.front() == 'k' ? "in" : name, value));
    };
    for (int byte = 1; byte <= 255; ++byte) {
      for (int place = 0; place < 4; ++place) {
        const std::string number = std::to_string(1000 * place + byte) + ".";
        const auto with = [&](const std::string& tag) {
          const std::string c(1, static_cast<char>(byte));
          return (place % 2 == 0 ? c : "") + tag + (place > 0 ? c : "") + (place == 3 ? tag : "");
        };
        store(with("n" + number), "text", "n" + number);
        store(with("k" + number), "text", "k" + number);
        store("s" + number, with("text"), "s" + number);
        store("e" + number, with("text"), "e" + number);
      }
    }
    const TraceCapture trace(1);
    CRegistry::SaveTree();
    std::string traced;
    for (const std::string& line : trace.Lines())
      traced += line + "\n";

    CRegistryNode loaded;
    ASSERT_TRUE(CRegistry::ReadTree(kRegistry, loaded));
    const CRegistryNodeRef top = loaded.FindSubKey("HKEY_LOCAL_MACHINE");
    const CCriticalSectionLock lock(*top.Get());
    int equal = 0;
    for (const auto& [name, what] : stored) {
      const RegistryEntry* entry = top->Find(name);
      const CRegistryNodeRef key = top->FindSubKey(name);
      if (key) entry = key->Find("in");
      const bool isEqual = entry != nullptr && (name == "V" || entry->Text() == what.first);
      EXPECT_TRUE(isEqual || traced.find(what.second) != std::string::npos) << testing::PrintToString(name);
      EXPECT_TRUE(entry != nullptr || what.second.find_first_of("se") == std::string::npos)
          << "nothing of a text came back: " << name;
      equal += isEqual ? 1 : 0;
    }
    for (const RegistryEntry& entry : top->Entries())
      EXPECT_TRUE(stored.contains(std::string(entry.Name())))
          << "nobody stored " << testing::PrintToString(entry.Name());
    EXPECT_EQ(loaded.Entries().size(), 1U);
    std::printf(
        "figure: 200,000 nested keys on a stack of 8 MiB; every byte at every place of names, keys and texts: %d "
        "of %zu come back, the others are traced\n",
        equal, stored.size());
  });
}

TEST(RegistryText, WhatALineCannotCarryIsTracedAndHarmsNothing) {
  const FixtureRoot root;
  root.WriteFile(kRegistry, FileText("Good=s=1\n[K]\nGood=s=1\n\n"));
  root.Run([] {
    CRegistry registry("K", CRegistry::HKEY_LOCAL_MACHINE, 0);
    const std::pair<const char*, std::string> rows[] = {{"a=x", "1"},
                                                        {"Good=s=x", "bad"},
                                                        {"[x]", "1"},
                                                        {"lines", "1\n\n[K]\nGood=s=bad"},
                                                        {"line", "1\n2"},
                                                        {"long", std::string(1500, 'x')},
                                                        {"edge", std::string(1023 - 7, 'x')},
                                                        {"harm", std::string(1023 - 7, 'x') + "Good=s=bad"}};
    for (const auto& [name, text] : rows)
      registry.SetValue(name, text.c_str());
    registry.SetValue("Good2", "2");
    const std::string longName(1017, 'n');  // with its number one character too many
    registry.SetValue(longName.c_str(), 123U);
    registry.CreateKey(nullptr, "a]b");
    const TraceCapture trace(1);
    CRegistry::SaveTree();
    EXPECT_TRUE(
        trace.Has("CRegistry: ERROR: \"a]b\" of key \"HKEY_LOCAL_MACHINE\\K\" does not fit into the registry "
                  "file and will be lost"));
    for (const auto& [name, text] : rows)
      EXPECT_EQ(trace.Count("ERROR: \"" + std::string(name) + "\" of key"), 1) << name;
    EXPECT_EQ(trace.Count("will be cut"), 5);
    EXPECT_EQ(trace.Lines().size(), 10U);
  });
  const std::string full = std::string(1022 - 7, 'x') + "\n";
  EXPECT_EQ(root.ReadFile(kRegistry), FileText("Good=s=1\n[K]\nGood=s=1\nGood2=s=2\na=x=s=1\nedge=s=" + full +
                                               "harm=s=" + full + "line=s=1\nlines=s=1\nlong=s=" + full + "\n"));
}

using RegistryFile = RootedTest;

TEST_F(RegistryFile, LoadFallsBackAndTellsWhy) {
  root.WriteFile(kRegistry, "[HKEY_LOCAL_MACHINE]\n\n\n");
  root.WriteFile(kOld, "");
  RunTraced(root, 1, [](TraceCapture& trace) {
    CRegistry registry("", CRegistry::HKEY_LOCAL_MACHINE, 0);
    EXPECT_EQ(trace.Lines(),
              (std::vector<std::string>{
                  "CRegistry: WARNING: Node restoring from \"/etc/pelrix/registry\" failed - check the content of this "
                  "file",
                  "CRegistry: WARNING: Could not restore tree from \"/etc/pelrix/registry\", trying backup",
                  "CRegistry: WARNING: The length of \"/etc/pelrix/registry.old\" is not sufficient",
                  "CRegistry: WARNING: Could not restore tree from \"/etc/pelrix/registry.old\", trying default",
                  "CRegistry: WARNING: Could not open \"/etc/pelrix/registry.default\"",
                  "CRegistry: ERROR: Could not restore tree from \"/etc/pelrix/registry.default\", restoring failed"}));
    EXPECT_EQ(CRegistry::HKEY_LOCAL_MACHINE, nullptr);
    EXPECT_FALSE(CRegistry::ReadTree("/etc", *registry.KeepKeyHandle())) << "a read error";
  });
  root.WriteFile(kDefault, FileText("V=d=1\n"));
  RunTraced(root, 2, [](TraceCapture& trace) {
    CRegistry registry("", CRegistry::HKEY_LOCAL_MACHINE, 0);
    EXPECT_EQ(registry.GetValueSize("V"), 4U);
    EXPECT_EQ(trace.Count("CRegistry: SetupTree(): ForceSetup=0, MIsSetup=0, MIsDirty=0"), 1);
  });
}

TEST_F(RegistryFile, FirstStartMakesTheRootKeys) {
  root.MakeDirectory("/etc/pelrix");
  root.Run([] {
    CRegistry first;
    EXPECT_EQ(first.Open("", nullptr), 0);
    EXPECT_EQ(first.CreateKey(nullptr, "HKEY_USERS\\X"), 0);
    first.SetValue("V", 1U);
    {
      const TraceCapture trace(1);
      CRegistry second("HKEY_USERS\\X", CRegistry::HKEY_LOCAL_MACHINE, 0);
      EXPECT_TRUE(trace.Has("CRegistry::InitClass() : re-initialize the registry-tree"));
      EXPECT_EQ(second.GetValueSize("V"), 4U) << "a key that was made stays";
    }
    first.SetValue("W", 2U);
    CRegistry third("X", CRegistry::HKEY_USERS, 0);
    EXPECT_EQ(third.m_Result, 0) << "the handle is looked at after the tree was set up";
    EXPECT_EQ(third.GetValueSize("W"), 4U);
    EXPECT_EQ(first.GetValueSize("W"), 4U) << "the handle lives on";
  });
  EXPECT_EQ(root.ReadFile(kRegistry), "[HKEY_USERS]\n[X]\nV=d=1\nW=d=2\n\n\n\n");
}

TEST_F(RegistryFile, SaveKeepsTheOldFileAndWritesOnce) {
  const std::string before = FileText("V=d=1\n");
  root.WriteFile(kRegistry, before, 0600);
  root.Run([&before] {
    ::umask(077);
    CRegistry registry("", CRegistry::HKEY_LOCAL_MACHINE, 0);
    CRegistry::SaveTree();
    EXPECT_NE(::access(kOld, F_OK), 0) << "nothing was changed";
    registry.SetValue("V", 2U);
    const TraceCapture trace(2);
    {
      // Whoever loads finds a file at every moment.
      const FailingCall last("rename", 1, [&before] {
        EXPECT_EQ(ReadWholeFile(kRegistry), before);
        EXPECT_EQ(ReadWholeFile(kOld), before);
      });
      CRegistry::SaveTree();
      EXPECT_TRUE(last.HasHappened());
    }
    CRegistry::SaveTree();
    EXPECT_EQ(trace.Lines(), std::vector<std::string>{"CRegistry::SaveTree MPRegistryTemp[/etc/pelrix/registry.new] \t "
                                                      "MPRegistry[/etc/pelrix/registry]"});
    registry.SetValue("V", 2U);
    CRegistry::SaveTree();
    EXPECT_EQ(ReadWholeFile(kOld), before) << "what changes nothing takes no backup away";
  });
  EXPECT_EQ(root.ReadFile(kOld), before);
  EXPECT_EQ(root.ReadFile(kRegistry), FileText("V=d=2\n"));
  EXPECT_EQ(root.Mode(kRegistry) & 07777U, 0644U);
  EXPECT_FALSE(root.Exists(kNew));
  root.WriteFile(kRegistry, "");
  root.Run([] {
    CRegistry registry("", CRegistry::HKEY_LOCAL_MACHINE, 0);
    registry.SetValue("V", 3U);
    CRegistry::SaveTree();
  });
  EXPECT_EQ(root.ReadFile(kRegistry), FileText("V=d=3\n"));
  EXPECT_EQ(root.ReadFile(kOld), before) << "an empty file is no backup";
  root.Run([] {
    CRegistry registry("", CRegistry::HKEY_LOCAL_MACHINE, 0);
    registry.SetValue("V", std::string(5000, 'x').c_str());
    const FailingCall withoutSecondNames("link", 1);
    CRegistry::SaveTree();
    EXPECT_TRUE(withoutSecondNames.HasHappened());
  });
  EXPECT_EQ(root.ReadFile(kRegistry), FileText("V=s=" + std::string(1022 - 4, 'x') + "\n"));
  EXPECT_EQ(root.ReadFile(kOld), FileText("V=d=3\n"));
}

TEST_F(RegistryFile, ChangeDuringASaveIsSavedByTheNext) {
  root.WriteFile(kRegistry, FileText("V=d=1\n"));
  root.Run([] {
    CRegistry registry("", CRegistry::HKEY_LOCAL_MACHINE, 0);
    registry.SetValue("V", 2U);
    const FailingCall during("fsync", 1, [&registry] { registry.SetValue("V", 3U); });
    CRegistry::SaveTree();
    EXPECT_EQ(ReadWholeFile(kRegistry), FileText("V=d=2\n"));
    CRegistry::SaveTree();
    EXPECT_EQ(ReadWholeFile(kRegistry), FileText("V=d=3\n"));
  });
}

// A thread that ends in the middle of a save or a destructor would take the process with it.
TEST_F(RegistryFile, CancelledThreadsHarmNothing) {
  root.WriteFile(kRegistry, FileText("V=d=1\n"));
  root.Run([] {
    for (int round = 0; round < 20; ++round) {
      pthread_t thread{};
      const auto work = [](void*) -> void* {
        for (unsigned int number = 0;; ++number) {
          CRegistry registry("", CRegistry::HKEY_LOCAL_MACHINE, 0);
          registry.SetValue("V", number);
          ::pthread_testcancel();
        }
      };
      ASSERT_EQ(::pthread_create(&thread, nullptr, work, nullptr), 0);
      ::usleep(static_cast<useconds_t>(500 * round));
      ::pthread_cancel(thread);
      ::pthread_join(thread, nullptr);
    }
    CRegistry registry("", CRegistry::HKEY_LOCAL_MACHINE, 0);
    registry.SetValue("V", "last");
    CRegistry::SaveTree();
    EXPECT_EQ(ReadWholeFile(kRegistry), FileText("V=s=last\n"));
  });
}

// The last tree takes several writes.
TEST(RegistrySave, FailedWriteAtAnyByteChangesNothingAndIsTriedAgain) {
  struct Row {
    int values;
    size_t length;
    rlim_t step;
  };
  for (const Row& row : {Row{2, 1, 1}, Row{3200, 1000, 97001}}) {
    const auto fileOf = [&row](char state) {
      std::string content;
      for (int value = 0; value < row.values; ++value)
        content += std::to_string(1000 + value) + "=s=" + std::string(row.length, state) + "\n";
      return FileText(content);
    };
    const std::string before = fileOf('1');
    const std::string after = fileOf('2');
    const TraceRoot root;
    root.ConfigureRing("2");  // the size of a file that is in memory already has no limit
    root.WriteFile(kRegistry, before);
    root.WriteFile(kOld, "old");
    root.Run([&] {
      ASSERT_TRUE(Debug.Init("ravd"));
      const auto hasTraced = [](const char* text) {
        return ReadWholeFile(TraceRoot::kStartUpRing).find(text) != std::string::npos;
      };
      ::signal(SIGXFSZ, SIG_IGN);
      CRegistry registry("", CRegistry::HKEY_LOCAL_MACHINE, 0);
      for (int value = 0; value < row.values; ++value)
        registry.SetValue(std::to_string(1000 + value).c_str(), std::string(row.length, '2').c_str());
      for (rlim_t limit = 0; limit < after.size();
           limit = std::max(limit + 1, std::min(limit + row.step, after.size() - 1))) {
        LimitFileSize(limit);
        CRegistry::SaveTree();
        LimitFileSize(RLIM_INFINITY);
        ASSERT_EQ(ReadWholeFile(kRegistry), before) << limit;
        ASSERT_EQ(ReadWholeFile(kOld), "old") << limit;
        ASSERT_FALSE(hasTraced("SaveTree MPRegistryTemp")) << "success was reported at " << limit;
      }
      EXPECT_TRUE(hasTraced("CRegistry: ERROR: Cannot write"));
      CRegistry::SaveTree();
      EXPECT_TRUE(hasTraced("SaveTree MPRegistryTemp"));
      std::printf(
          "figure: cut at each byte of a short tree and at each %lu bytes of one of %zu: nothing is changed or "
          "reported as done\n",
          row.step, after.size());
    });
    EXPECT_EQ(root.ReadFile(kRegistry), after);
    EXPECT_EQ(root.ReadFile(kOld), before);
  }
}

TEST(RegistrySave, FileThatDidNotLoadNeverTakesThePlaceOfTheBackup) {
  for (const bool isReplaced : {false, true}) {  // by somebody else, after it was read
    const FixtureRoot root;
    root.WriteFile(kRegistry, "[HKEY_LOCAL_MACHINE]\nV");
    root.WriteFile(kOld, FileText("V=d=1\n"));
    root.Run([isReplaced] {
      CRegistry registry("", CRegistry::HKEY_LOCAL_MACHINE, 0);
      EXPECT_EQ(registry.GetValueSize("V"), 4U);
      if (isReplaced) std::ofstream(kRegistry) << FileText("V=d=7\n");
      registry.SetValue("V", 2U);
      {
        const FailingCall failure("rename", 1);
        CRegistry::SaveTree();
        EXPECT_TRUE(failure.HasHappened());
        EXPECT_EQ(ReadWholeFile(isReplaced ? kRegistry : kOld), FileText(isReplaced ? "V=d=7\n" : "V=d=1\n"));
      }
      CRegistry::SaveTree();
      EXPECT_EQ(ReadWholeFile(kOld), FileText(isReplaced ? "V=d=7\n" : "V=d=1\n"));
      registry.SetValue("V", 3U);
      CRegistry::SaveTree();
      EXPECT_EQ(ReadWholeFile(kRegistry), FileText("V=d=3\n"));
      EXPECT_EQ(ReadWholeFile(kOld), FileText("V=d=2\n")) << "from then on as usual";
    });
  }
}

TEST(RegistrySave, StoppedSaverHoldsTheOthersUpForASecond) {
  const FixtureRoot root;
  root.WriteFile(kRegistry, FileText("V=d=1\n"));
  root.Run([] {
    CRegistry registry("", CRegistry::HKEY_LOCAL_MACHINE, 0);
    registry.SetValue("V", 2U);
    const TraceCapture trace(2);
    {
      const UniqueFd stopped(::open(kNew, O_WRONLY | O_CREAT | O_CLOEXEC, 0600));
      ASSERT_EQ(::flock(stopped.Get(), LOCK_EX), 0);
      ASSERT_EQ(::write(stopped.Get(), "half", 4), 4);
      CRegistry::SaveTree();
      CRegistry::SaveTree();  // does not wait again
      EXPECT_EQ(trace.Count("CRegistry: ERROR: Cannot lock \"/etc/pelrix/registry.new\""), 2);
      EXPECT_EQ(trace.Count("SaveTree MPRegistryTemp"), 0);
      EXPECT_EQ(ReadWholeFile(kNew), "half");
      EXPECT_EQ(ReadWholeFile(kRegistry), FileText("V=d=1\n"));
      std::printf("figure: a saver that is stopped holds the next one up for about a second; its file is left alone\n");
    }
    // What is left may be somebody else's, who would then own the registry.
    const bool isForeign = ::chown(kNew, 65534, 65534) == 0;
    CRegistry::SaveTree();
    EXPECT_EQ(trace.Count("SaveTree MPRegistryTemp"), 1) << "tried again";
    struct stat info {};
    EXPECT_TRUE(::stat(kRegistry, &info) == 0 && (!isForeign || info.st_uid == 0));
  });
  EXPECT_EQ(root.ReadFile(kRegistry), FileText("V=d=2\n"));
}

TEST_F(RegistryFile, FailedStepLeavesAStoreThatLoadsAndIsTriedAgain) {
  using Row = std::tuple<const char*, int, unsigned int>;
  for (const auto& [function, call, onDisk] :
       {Row{"fsync", 1, 1}, Row{"fclose", 1, 1}, Row{"rename", 1, 1}, Row{"fsync", 2, 2}}) {
    const FixtureRoot store;
    store.WriteFile(kRegistry, StateText(0));
    store.Run([&, function = function, call = call, onDisk = onDisk] {
      SCOPED_TRACE(function + std::to_string(call));
      CRegistry registry("", CRegistry::HKEY_LOCAL_MACHINE, 0);
      SetState(registry, 1);
      CRegistry::SaveTree();
      const TraceCapture trace(2);
      {
        const FailingCall failure(function, call);
        SetState(registry, 2);
        CRegistry::SaveTree();
        EXPECT_TRUE(failure.HasHappened());
      }
      EXPECT_EQ(trace.Count("CRegistry: ERROR: Cannot "), 1);
      EXPECT_EQ(trace.Count("SaveTree MPRegistryTemp"), 0) << "success was reported";
      EXPECT_EQ(::access(kRegistry, F_OK), 0) << "the old file did not come back";
      EXPECT_EQ(LoadedState(), onDisk);
      CRegistry::SaveTree();
      EXPECT_EQ(trace.Count("SaveTree MPRegistryTemp"), 1) << "tried again";
      EXPECT_EQ(LoadedState(), 2U);
    });
  }
}

TEST_F(RegistryFile, TempFileThatCannotBeOpenedIsNotTriedAgain) {
  root.WriteFile(kRegistry, FileText("V=d=1\n"));
  root.MakeDirectory(kNew);
  root.Run([] {
    CRegistry registry("", CRegistry::HKEY_LOCAL_MACHINE, 0);
    registry.SetValue("V", 2U);
    const TraceCapture trace(2);
    CRegistry::SaveTree();
    CRegistry::SaveTree();
    EXPECT_EQ(trace.Count("CRegistry: ERROR: Cannot open \"/etc/pelrix/registry.new\" for writing"), 1);
  });
}

// RAVD_CRASH_ROUNDS sets another number of rounds.
TEST_F(RegistryFile, KilledSaverLeavesTheLastOrTheNextState) {
  const char* wanted = std::getenv("RAVD_CRASH_ROUNDS");
  const int rounds = wanted != nullptr ? std::atoi(wanted) : 100;
  root.WriteFile(kRegistry, StateText(0));
  root.Run([rounds] {
    std::mt19937 random(std::random_device{}());
    unsigned int state = 0;
    for (int round = 0; round < rounds; ++round) {
      int ends[2];
      ASSERT_EQ(::pipe(ends), 0);
      const pid_t saver = ::fork();
      if (saver == 0) SaveForEver(state, ends[1]);
      ::close(ends[1]);
      // Every second time at least one state is saved, however slow the machine.
      if (round % 2 == 0) {
        ASSERT_GT(::read(ends[0], &state, sizeof state), 0) << "the saver ended";
      }
      ::usleep(static_cast<useconds_t>(random() % 20000));
      ::kill(saver, SIGKILL);
      ::waitpid(saver, nullptr, 0);
      while (::read(ends[0], &state, sizeof state) > 0) {
      }
      ::close(ends[0]);
      const unsigned int found = LoadedState().value_or(0);
      ASSERT_TRUE(found == state || found == state + 1) << found << " where " << state << " was the last one saved";
      state = found;
    }
  });
}
