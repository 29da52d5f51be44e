// Firmware that lies: SMBIOS entry points and tables in sysfs and in the physical memory, and the BIOS area with the
// PCI IRQ routing table, each with bytes changed at random.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <ctime>
#include <random>
#include <vector>

#include "firmware/smbios.h"
#include "pci/pci_slot_map.h"
#include "platform/unique_fd.h"
#include "prove/prove.h"
#include "support/firmware_tables.h"
#include "support/fixture_root.h"
#include "trace/debug.h"

namespace {

constexpr double kMostSeconds = 0.1;  // of processor time, for everything that is made of one firmware
constexpr off_t kMemorySize = 0x100000;
constexpr off_t kTable = 0xE1234;
constexpr off_t kEntryPoint = 0xF0480;
constexpr off_t kEntryPoint64 = 0xF0500;
constexpr off_t kRoutingTable = 0xF5000;

// A part of the firmware, where it stands in a file, and where it has a checksum over itself.
struct Part {
  const char* file;
  off_t offset;
  std::string bytes;
  size_t checksum;  // 0 = none
};

std::string Table(unsigned int boards) {
  SmbiosTable table;
  table.Add(0, std::string(20, '\1'), {"Kestrel", "1.0", "01/02/2026"});
  for (unsigned int board = 0; board < boards; ++board)
    table.AddSlot({.id = static_cast<uint8_t>(board)}).AddOnboardDevice(0, 3).Add(2, std::string(11, '\2'), {"b"});
  return table.AddEnd().Bytes();
}

std::vector<Part> SysfsParts() {
  return {{kSysfsEntryPoint, 0, EntryPoint64(0, 4000), 5}, {kSysfsTable, 0, Table(5), 0}};
}

std::vector<Part> MemoryParts() {
  const std::string table = Table(5);
  const auto size = static_cast<uint16_t>(table.size());
  return {{"/dev/mem", kEntryPoint, EntryPoint32(kTable, size, 17), 4},
          {"/dev/mem", kEntryPoint64, EntryPoint64(kTable, size), 5},
          {"/dev/mem", kTable, table, 0},
          {"/dev/mem", kRoutingTable, IrqRoutingTable({{0, 3, 1}, {0, 4, 2}, {5, 0, 3}}), 31}};
}

class Firmware {
 public:
  explicit Firmware(std::vector<Part> parts) : m_Parts(std::move(parts)) {}

  void Change(std::mt19937& random) const {
    for (const Part& part : m_Parts) {
      std::string bytes = part.bytes;
      for (size_t flips = random() % 4; flips > 0; --flips)
        bytes[random() % bytes.size()] = static_cast<char>(random());
      if (random() % 8 == 0) bytes.replace(random() % bytes.size(), 9, std::string(9, static_cast<char>(random())));
      bytes.resize(part.bytes.size());
      // Half of them are believed.
      if (part.checksum != 0 && random() % 2 == 0) SetChecksum(bytes, part.checksum, bytes.size());
      if (part.offset == 0 && random() % 3 == 0) bytes.resize(1 + random() % bytes.size());
      Write(part, bytes);
    }
  }

 private:
  // Files are made anew, since a shorter one in place would wait for the disk; the memory keeps its size.
  static void Write(const Part& part, const std::string& bytes) {
    if (part.offset == 0) ::unlink(part.file);
    const UniqueFd file(::open(part.file, O_WRONLY | O_CREAT | O_CLOEXEC, 0644));
    ASSERT_EQ(::pwrite(file.Get(), bytes.data(), bytes.size(), part.offset), static_cast<ssize_t>(bytes.size()));
  }

  std::vector<Part> m_Parts;
};

struct Outcome {
  int believed = 0, refused = 0, mapped = 0;
  double slowest = 0.0;  // seconds
};

double ProcessorSeconds() {
  timespec time{};
  ::clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &time);
  return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) * 1e-9;
}

// Every byte of every structure that is handed out.
unsigned int SumOf(const CSMBios& smbios) {
  unsigned int sum = 0;
  for (unsigned int type = 0; type <= 255; ++type) {
    const SmbiosStructureList* list = smbios.getStructuresByType(static_cast<uint8_t>(type));
    if (list == nullptr) continue;
    for (const _DMI_20_HEADER* header : *list)
      for (const unsigned char byte : header->FormattedArea())
        sum += byte;
  }
  return sum;
}

void Use(Outcome& outcome) {
  const double start = ProcessorSeconds();
  CSMBios smbios;
  const bool isSound = smbios.connect();
  // After a failed walk the index is empty.
  EXPECT_TRUE(isSound || SumOf(smbios) == 0);
  ++(isSound && SumOf(smbios) > 0 ? outcome.believed : outcome.refused);
  smbios.disconnect();
  outcome.mapped += CPciSlotMap::GetSlotMappingFromIrqRoutingTable().empty() ? 0 : 1;
  CPciSlotMap::GetSlotMappingFromSMBIOS();
  outcome.slowest = std::max(outcome.slowest, ProcessorSeconds() - start);
}

// What became of so many changes, all of them in one root; the figures go to a file of it.
Outcome Try(const FixtureRoot& root, const std::vector<Part>& parts, int rounds) {
  root.WriteFile("/etc/outcome", "");
  if (parts[0].offset == 0) root.MakeDirectory("/sys/firmware/dmi/tables");
  root.MakeSparseFile("/dev/mem", kMemorySize);
  Outcome outcome;
  root.Run([&parts, rounds] {
    Debug.m_TraceActive = true;  // every text is made, for no target
    Debug.m_TraceLevel = 6;
    std::mt19937 random(1);
    Outcome all;
    const Firmware firmware(parts);
    for (int round = 0; round < rounds; ++round) {
      firmware.Change(random);
      Use(all);
    }
    FILE* file = std::fopen("/etc/outcome", "w");
    std::fprintf(file, "%d %d %d %f", all.believed, all.refused, all.mapped, all.slowest);
    std::fclose(file);
  });
  const std::string figures = root.ReadFile("/etc/outcome");
  EXPECT_EQ(std::sscanf(figures.c_str(), "%d %d %d %lf", &outcome.believed, &outcome.refused, &outcome.mapped,
                        &outcome.slowest),
            4)
      << figures;
  return outcome;
}

}  // namespace

TEST(Prove, ChangedFirmware) {
  const int rounds = Rounds(25000, 250);
  const FixtureRoot sysfs, legacy, table64, largest;
  // About the largest table that a 32-bit entry point can name.
  const std::string large = Table(1000);
  ASSERT_LT(large.size(), 65536U);
  table64.WriteFile("/sys/firmware/efi/systab", "SMBIOS3=0xf0500\nSMBIOS=0xf0480\n");
  const Outcome outcomes[] = {Try(sysfs, SysfsParts(), rounds), Try(legacy, MemoryParts(), rounds),
                              Try(table64, MemoryParts(), rounds),
                              Try(largest,
                                  {{kSysfsEntryPoint, 0, EntryPoint32(0, static_cast<uint16_t>(large.size()), 0), 4},
                                   {kSysfsTable, 0, large, 0}},
                                  rounds)};
  Outcome all;
  for (const Outcome& each : outcomes) {
    // Neither everything is believed nor nothing.
    EXPECT_GT(each.believed, rounds / 20);
    EXPECT_GT(each.refused, rounds / 20);
    all.believed += each.believed;
    all.mapped += each.mapped;
    all.slowest = std::max(all.slowest, each.slowest);
  }
  EXPECT_GT(all.mapped, rounds / 5);
  EXPECT_LT(all.slowest, kMostSeconds);
  Figure("%d changed SMBIOS tables and BIOS areas, %d believed, %d with an IRQ routing table, the slowest took %.1f ms",
         4 * rounds, all.believed, all.mapped, all.slowest * 1000);
}
