// Every allocation of an operation fails once, and from then on.

#include "firmware/smbios_lookup.h"
#include "prove/prove.h"
#include "support/firmware_tables.h"
#include "support/registry_state.h"
#include "trace/trace_root.h"

extern "C" {
void* __libc_malloc(size_t size);
void* __libc_calloc(size_t count, size_t size);
void* __libc_realloc(void* block, size_t size);
void __libc_free(void* block);
}

namespace {

struct Failure {
  std::atomic<bool> isCounting = false;
  std::atomic<long> calls = 0;
  std::atomic<long> failing = 0;  // the number of the call that fails, 0: none
  std::atomic<bool> isLasting = false;
  std::atomic<long> live = 0;  // blocks
};
constinit Failure failure;

bool Fails() {
  if (!failure.isCounting) return false;
  const long call = ++failure.calls;
  const long failing = failure.failing;
  if (failing == 0 || call < failing || (call > failing && !failure.isLasting)) return false;
  errno = ENOMEM;
  return true;
}

void* Counted(void* block) {
  if (block != nullptr && failure.isCounting) ++failure.live;
  return block;
}

std::string RegistryText() {
  std::string text = "[HKEY_LOCAL_MACHINE]\nLong=s=" + std::string(900, 'x') + "\n";
  for (int value = 0; value < 40; ++value)
    text += "Value" + std::to_string(value) + "=s=text\n[Key" + std::to_string(value) + "]\nData=b=01 02 \n\n";
  return text + "\n\n";
}

// Runs the operation with each of its allocations failing; the check sees whether one did. Returns how many there were.
long ForEachAllocation(const std::function<void()>& operation, const std::function<void()>& check) {
  long allocations = 0;
  operation();  // what is made once stays
  for (const bool isLasting : {false, true}) {
    for (long failing = 1;; ++failing) {
      failure.calls = failure.live = 0;
      failure.failing = failing;
      failure.isLasting = isLasting;
      failure.isCounting = true;
      operation();
      failure.isCounting = false;
      EXPECT_EQ(failure.live, 0) << "blocks leaked after failing allocation " << failing;
      check();
      if (failure.calls < failing || testing::Test::HasFailure()) break;
      ++allocations;
    }
  }
  return allocations;
}

}  // namespace

extern "C" void* malloc(size_t size) noexcept {
  return Fails() ? nullptr : Counted(__libc_malloc(size));
}
extern "C" void* calloc(size_t count, size_t size) noexcept {
  return Fails() ? nullptr : Counted(__libc_calloc(count, size));
}
extern "C" void* realloc(void* block, size_t size) noexcept {
  if (Fails()) return nullptr;
  void* const moved = __libc_realloc(block, size);
  return block == nullptr ? Counted(moved) : moved;
}
extern "C" void free(void* block) noexcept {
  if (block != nullptr && failure.isCounting) --failure.live;
  __libc_free(block);
}

TEST(Prove, MemoryOfTraceEntry) {
  const TraceRoot root;
  root.ConfigureRing("1");
  root.Run([] {
    ASSERT_TRUE(Debug.Init("ravd"));
    const std::string text(3000, 't');
    int number = 0;
    const long allocations = ForEachAllocation(
        [&] {
          Debug.Print(1, "entry %d %s %ls", ++number, text.c_str(), L"wide");
          Debug.PrintAlways(0, "always %d %.500f", number, 1.0 / 3);
        },
        [&] {
          const std::string ring = ReadWholeFile(TraceRoot::kStartUpRing);
          EXPECT_NE(ring.find("entry " + std::to_string(number) + " ttt"), std::string::npos);
          EXPECT_NE(ring.find("always " + std::to_string(number)), std::string::npos);
        });
    EXPECT_GT(allocations, 0);
    Figure("%ld failing allocations of trace entries: every entry written, no leak", allocations);
  });
}

TEST(Prove, MemoryOfLoad) {
  const TraceRoot root;
  root.WriteFile(kRegistry, RegistryText());
  root.Run([] {
    bool isLoaded = false;
    bool isWhole = false;
    const long allocations = ForEachAllocation(
        [&] {
          isLoaded = isWhole = false;
          CRegistryNode node;
          isLoaded = CRegistry::ReadTree(kRegistry, node);
          failure.isCounting = false;
          const CRegistryNodeRef key = node.FindSubKey("HKEY_LOCAL_MACHINE");
          isWhole = key && key->Entries().size() == 81;
          failure.isCounting = true;
        },
        [&] {
          EXPECT_TRUE(isLoaded || failure.calls >= failure.failing);
          EXPECT_TRUE(isWhole || !isLoaded);
        });
    EXPECT_GT(allocations, 100);
    Figure("%ld failing allocations of loads: no leak, nothing lost", allocations);
  });
}

TEST(Prove, MemoryOfSave) {
  const TraceRoot root;
  root.WriteFile(kRegistry, RegistryText());
  root.Run([] {
    CRegistry registry("", CRegistry::HKEY_LOCAL_MACHINE, 0);
    unsigned int state = 0;
    CRegistry::SaveTree();
    const long allocations = ForEachAllocation(
        [&] {
          ++state;
          const bool isCounting = failure.isCounting.exchange(false);
          registry.SetValue("State", state);
          failure.isCounting = isCounting;
          CRegistry::SaveTree();
        },
        [&] {
          if (failure.calls >= failure.failing) CRegistry::SaveTree();  // it is tried again
          CRegistryNode node;
          ASSERT_TRUE(CRegistry::ReadTree(kRegistry, node));
          const CRegistryNodeRef key = node.FindSubKey("HKEY_LOCAL_MACHINE");
          const CCriticalSectionLock lock(*key.Get());
          ASSERT_NE(key->Find("Long"), nullptr);
          // The second allocation opens the file: when that fails the change stays in memory until the next one.
          EXPECT_TRUE(key->Find("State")->Number() == state || failure.failing == 2) << state;
        });
    EXPECT_GT(allocations, 3);
    Figure("%ld failing allocations of saves: a complete file, no leak, saved by the next one", allocations);
  });
}

TEST(Prove, MemoryOfTableWalk) {
  const FixtureRoot root;
  SmbiosTable table;
  for (int entry = 0; entry < 40; ++entry)
    table.Add(static_cast<uint8_t>(entry % 20), "body of an entry", {"maker", "model"});
  table.AddEnd();
  WriteSmbios(root, table);
  root.Run([] {
    bool isConnected = false;
    bool hasAll = false;
    const long allocations = ForEachAllocation(
        [&] {
          isConnected = hasAll = false;
          try {
            CSMBios bios;
            isConnected = bios.connect();
            const SmbiosStructureList* list = isConnected ? bios.getStructuresByType(3) : nullptr;
            hasAll = list != nullptr && list->size() == 2;
          } catch (const std::bad_alloc&) {
          }
        },
        [&] { EXPECT_TRUE(hasAll || !isConnected); });
    EXPECT_GT(allocations, 3);
    EXPECT_TRUE(hasAll);
    Figure("%ld failing allocations of a table walk: no crash, no leak", allocations);
  });
}
