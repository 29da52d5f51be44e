#include <pthread.h>
#include <sys/file.h>
#include <sys/resource.h>

#include "platform/unique_fd.h"
#include "registry/registry.h"
#include "support/failing_call.h"
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

void LimitFileSize(rlim_t limit) {
  const rlimit limits{limit, RLIM_INFINITY};
  ::setrlimit(RLIMIT_FSIZE, &limits);
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
  std::jthread([&text] {  // on a stack of 8 MiB
    CRegistryNode node;
    EXPECT_TRUE(Restore(node, text));
    EXPECT_EQ(Dump(node), text);
    EXPECT_TRUE(Restore(node, "[k]\nV=d=2\n\n")) << "the deep subtree is replaced";
    EXPECT_EQ(Dump(node), "[k]\nV=d=2\n\n\n");
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
    registry.SetValue("two\nGood", "bad");
    registry.CreateKey(nullptr, "a]b");
    const TraceCapture trace(1);
    CRegistry::SaveTree();
    EXPECT_TRUE(
        trace.Has("CRegistry: ERROR: \"a]b\" of key \"HKEY_LOCAL_MACHINE\\K\" does not fit into the registry "
                  "file and will be lost"));
    for (const auto& [name, text] : rows)
      EXPECT_EQ(trace.Count("ERROR: \"" + std::string(name) + "\" of key"), 1) << name;
    EXPECT_EQ(trace.Count("will be cut"), 5);
    EXPECT_EQ(trace.Count("Good\" of key"), 1);
    EXPECT_EQ(trace.Lines().size(), 12U);
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
    EXPECT_EQ(trace.Text(),
              R"(CRegistry: WARNING: Node restoring from "/etc/pelrix/registry" failed - check the content of this file
CRegistry: WARNING: Could not restore tree from "/etc/pelrix/registry", trying backup
CRegistry: WARNING: The length of "/etc/pelrix/registry.old" is not sufficient
CRegistry: WARNING: Could not restore tree from "/etc/pelrix/registry.old", trying default
CRegistry: WARNING: Could not open "/etc/pelrix/registry.default"
CRegistry: ERROR: Could not restore tree from "/etc/pelrix/registry.default", restoring failed
)");
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
    EXPECT_EQ(trace.Text(),
              "CRegistry::SaveTree MPRegistryTemp[/etc/pelrix/registry.new] \t "
              "MPRegistry[/etc/pelrix/registry]\n");
    registry.SetValue("V", 2U);
    CRegistry::SaveTree();
    EXPECT_EQ(ReadWholeFile(kOld), before) << "what changes nothing takes no backup away";
  });
  EXPECT_EQ(root.ReadFile(kOld), before);
  EXPECT_EQ(root.ReadFile(kRegistry), FileText("V=d=2\n"));
  EXPECT_EQ(root.Mode(kRegistry) & 07777U, 0644U);
  EXPECT_FALSE(root.Exists(kNew));
  root.WriteFile(kRegistry, "");
  root.Run([&before] {
    CRegistry registry("", CRegistry::HKEY_LOCAL_MACHINE, 0);
    registry.SetValue("V", 3U);
    CRegistry::SaveTree();
    EXPECT_EQ(ReadWholeFile(kOld), before) << "an empty file is no backup";
    registry.SetValue("V", std::string(5000, 'x').c_str());
    const FailingCall withoutSecondNames("link", 1);
    CRegistry::SaveTree();
  });
  EXPECT_EQ(root.ReadFile(kRegistry), FileText("V=s=" + std::string(1022 - 4, 'x') + "\n"));
  EXPECT_EQ(root.ReadFile(kOld), FileText("V=d=3\n"));
}

TEST_F(RegistryFile, ChangeIsSavedOnceAndOneDuringASaveByTheNext) {
  root.WriteFile(kRegistry, FileText("V=d=1\n"));
  root.MakeDirectory(kNew);
  root.Run([] {
    CRegistry registry("", CRegistry::HKEY_LOCAL_MACHINE, 0);
    registry.SetValue("V", 2U);
    {
      const TraceCapture trace(2);
      CRegistry::SaveTree();
      CRegistry::SaveTree();
      EXPECT_EQ(trace.Count("CRegistry: ERROR: Cannot open \"/etc/pelrix/registry.new\" for writing"), 1);
    }
    ASSERT_EQ(::rmdir(kNew), 0);
    WriteWholeFile(kNew, "left by a killed saver");
    EXPECT_EQ(::chmod(kNew, 0644), 0);
    registry.SetValue("V", 3U);
    const FailingCall during("fsync", 1, [&registry] {
      struct stat info {};
      EXPECT_TRUE(::stat(kNew, &info) == 0 && info.st_mode == (S_IFREG | 0600)) << "anybody could hold its lock";
      registry.SetValue("V", 4U);
    });
    CRegistry::SaveTree();
    EXPECT_EQ(ReadWholeFile(kRegistry), FileText("V=d=3\n"));
    CRegistry::SaveTree();
    EXPECT_EQ(ReadWholeFile(kRegistry), FileText("V=d=4\n"));
  });
}

// A thread that ended in the middle of a save or a destructor would take the process with it.
TEST_F(RegistryFile, CancelledThreadsHarmNothing) {
  if (kSanitized) GTEST_SKIP() << "the sanitizer's own runtime does not survive a forced unwinding";
  root.WriteFile(kRegistry, FileText("V=d=1\n"));
  root.Run([] {
    for (useconds_t round = 0; round < 20; ++round) {
      std::jthread thread([] {
        for (unsigned int number = 0;; ::pthread_testcancel())
          CRegistry("", CRegistry::HKEY_LOCAL_MACHINE, 0).SetValue("V", ++number);
      });
      ::usleep(500 * round);
      ::pthread_cancel(thread.native_handle());
    }
    CRegistry("", CRegistry::HKEY_LOCAL_MACHINE, 0).SetValue("V", "last");
  });
  EXPECT_EQ(root.ReadFile(kRegistry), FileText("V=s=last\n"));
}

// The last tree takes several writes.
TEST(RegistrySave, FailedWriteAtAnyByteChangesNothingAndIsTriedAgain) {
  for (const auto& [tree, step] :
       {std::pair(StateTree{2, 0}, rlim_t{1}), std::pair(StateTree{3200, 1000}, rlim_t{97001})}) {
    const std::string before = StateText(1, tree);
    const size_t size = before.size();
    const TraceRoot root;
    root.ConfigureRing("2");  // the size of a file that is in memory already has no limit
    root.WriteFile(kRegistry, before);
    root.WriteFile(kOld, "old");
    root.Run([&, tree = tree, step = step] {
      ASSERT_TRUE(Debug.Init("ravd"));
      const auto hasTraced = [](const char* text) {
        return ReadWholeFile(TraceRoot::kStartUpRing).find(text) != std::string::npos;
      };
      ::signal(SIGXFSZ, SIG_IGN);
      CRegistry registry;
      SetState(registry, 2, tree);
      for (rlim_t limit = 0; limit < size; limit = std::max(limit + 1, std::min(limit + step, size - 1))) {
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
      std::printf("figure: cut at each %lu bytes of %zu: nothing is changed or reported as done\n", step, size);
    });
    EXPECT_EQ(root.ReadFile(kRegistry), StateText(2, tree));
    EXPECT_EQ(root.ReadFile(kOld), before);
  }
}

TEST(RegistrySave, FileThatDidNotLoadNeverTakesThePlaceOfTheBackup) {
  for (const bool isReplaced : {false, true}) {  // by somebody else, after it was read
    const FixtureRoot root;
    root.WriteFile(kRegistry, "[HKEY_LOCAL_MACHINE]\nV");
    root.WriteFile(kOld, FileText("V=d=1\n"));
    const std::string good = FileText(isReplaced ? "V=d=7\n" : "V=d=1\n");
    root.Run([&, isReplaced] {
      CRegistry registry("", CRegistry::HKEY_LOCAL_MACHINE, 0);
      if (isReplaced) WriteWholeFile(kRegistry, good);
      registry.SetValue("V", 2U);
      {
        const FailingCall failure("rename", 1);
        CRegistry::SaveTree();
        EXPECT_TRUE(failure.HasHappened());
        EXPECT_EQ(ReadWholeFile(isReplaced ? kRegistry : kOld), good);
      }
      CRegistry::SaveTree();
      EXPECT_EQ(ReadWholeFile(kOld), good);
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
    }
    CRegistry::SaveTree();
    EXPECT_EQ(trace.Count("SaveTree MPRegistryTemp"), 1) << "tried again";

    // A file that anybody could open was left by a saver that was killed right before its rename.
    WriteWholeFile(kNew, "left");
    EXPECT_EQ(::chmod(kNew, 0644), 0);
    const UniqueFd anybody(::open(kNew, O_RDONLY | O_CLOEXEC));
    ASSERT_EQ(::flock(anybody.Get(), LOCK_EX), 0);
    registry.SetValue("V", 3U);
    CRegistry::SaveTree();
    EXPECT_EQ(ReadWholeFile(kRegistry), FileText("V=d=3\n"));
  });
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
