#include "firmware/smbios_sources.h"

#include "support/firmware_tables.h"
#include "support/trace_capture.h"

namespace {

constexpr const char* kSystab = "/sys/firmware/efi/systab";
constexpr const char* kEsxDevice = "/vmfs/devices/char/mem/smbios";

const std::string& Table() {
  static const std::string table = SmbiosTable().Add(1, "body", {"maker"}).AddSlot({.bus = 5}).AddEnd().Bytes();
  return table;
}

// What the source chain delivers in the root, and a line that it must trace on the way.
void Expect(const FixtureRoot& root, const std::string& header, const std::string& data, const std::string& line) {
  SCOPED_TRACE(line);
  RunTraced(root, 5, [&](TraceCapture& trace) {
    CDataStream foundHeader("old", 3);
    CDataStream foundData("old", 3);
    EXPECT_EQ(CBiosTables::GetSmbiosData(foundHeader, foundData), !data.empty());
    EXPECT_TRUE(trace.Has(line)) << line;
    EXPECT_EQ(trace.Has("CBiosTables::GetSmbiosData() : ERROR ## No SMBios found!"), data.empty());
    EXPECT_EQ(std::string(foundHeader.Bytes().begin(), foundHeader.Bytes().end()), header.empty() ? "old" : header);
    EXPECT_EQ(std::string(foundData.Bytes().begin(), foundData.Bytes().end()), data.empty() ? "old" : data);
  });
}

// A memory device with an entry point at 0xF0480 and the table at an address inside a page.
void WriteMemory(const FixtureRoot& root, const std::string& entryPoint, off_t size = 0x100000) {
  root.MakeSparseFile("/dev/mem", size);
  root.WriteAt("/dev/mem", 0xF0480, entryPoint);
  root.WriteAt("/dev/mem", 0xE1234, Table());
  ASSERT_EQ(::truncate(root.HostPath("/dev/mem").c_str(), size), 0);
}

}  // namespace

using BiosTables = RootedTest;

TEST_F(BiosTables, SysfsComesFirstAndIsTakenWhole) {
  root.WriteFile(kSysfsEntryPoint, "whatever");
  root.WriteFile(kSysfsTable, Table());
  Expect(root, "whatever", Table(), "CBiosTables::GetSmbiosData() : Found in sysfs.");
  root.WriteFile(kSysfsTable, "");
  Expect(root, "", "", "CBiosTables::GetAnySMBiosFromSysfs() Could not read SMBios data table file.");
  root.WriteFile(kSysfsEntryPoint, "");
  Expect(root, "", "", "CBiosTables::GetAnySMBiosFromSysfs() Could not read SMBios entry file.");
}

TEST_F(BiosTables, MemoryIsReadThroughTheSystemTable) {
  const auto size = static_cast<uint16_t>(Table().size());
  const std::string entry64 = EntryPoint64(0xE1234, size + 100U);
  root.WriteFile(kSystab, "no key\nMPS=0xf1280\nSMBIOS3=0xf0480\nSMBIOS3=0x1\nSMBIOS=0xf0000\n");
  WriteMemory(root, entry64);
  Expect(root, entry64, Table() + std::string(100, '\0'), "CBiosTables::GetSmbiosData() : Found in memory.");

  const std::string entry32 = EntryPoint32(0xE1234, size, 3);
  WriteMemory(root, entry32);
  root.WriteFile(kSystab, "SMBIOS3=0x0\n smbios=1\nSMBIOS=984192\n");
  Expect(root, entry32, Table(), "SMBiosTableFromMemory::GetUEFIAddress() : SMBIOS3 address NOT found!");
  root.Remove(kSystab);
  root.WriteFile("/proc/efi/systab", "SMBIOS=0xf0480");
  Expect(root, entry32, Table(), "SMBiosTableFromMemory::GetUEFIAddress() : SMBIOS address found : 0x000000000f0480");
}

TEST_F(BiosTables, MemoryThatCannotBeReadIsRefused) {
  const std::string failed = "SMBiosTableFromMemory::GetBiosData() : ERROR # mmap failed : (errno=";
  const std::string behindEnd = failed + "6) No such device or address";
  const std::string tooWide = failed + "75) Value too large for defined data type";
  const std::tuple<std::string, off_t, std::string> rows[] = {
      {EntryPoint64(0xE1234, 100), 0xF0490, behindEnd},  // ends inside the entry point
      {EntryPoint64(0xFFFF0, 100), 0x100000, behindEnd},
      {EntryPoint64(0xFFFFFFFFFFFFF000, 0x1000), 0x100000, tooWide},
      {EntryPoint64(0xE1234, 0xFFFFFFFF), 0x100000, failed + "27) File too large"},  // would wrap with its offset
      {EntryPoint64(0xE1234, 0), 0x100000, "SMBiosTableFromMemory::GetBiosData() : SMBios table NOT found in memory."},
  };
  root.WriteFile(kSystab, "SMBIOS3=0xf0480\n");
  for (const auto& [entryPoint, memory, line] : rows) {
    WriteMemory(root, entryPoint, memory);
    Expect(root, "", "", line);
  }
  root.WriteFile(kSystab, "SMBIOS3=0xfffffffffffff480\n");
  Expect(root, "", "", "SMBiosTableFromMemory::GetUEFIAddress() : SMBIOS3 address found : 0xfffffffffffff480");
  root.Remove("/dev/mem");
  Expect(root, "", "",
         "SMBiosTableFromMemory::GetBiosData() : ERROR # Couldn't open /dev/mem : No such file or directory");
}

TEST_F(BiosTables, EsxDeviceIsReadBehindItsEntryPoint) {
  const std::string entry = EntryPoint32(0, static_cast<uint16_t>(Table().size()), 3);
  root.WriteFile(kEsxDevice, entry + Table());
  Expect(root, entry, Table(), "CBiosTables::GetSmbiosData() : ESXi specific SMBios found.");
  root.WriteFile(kEsxDevice, entry + Table() + std::string(50, 'x'));
  Expect(root, entry, Table() + std::string(32, 'x'), "CBiosTables::GetSmbiosData() : ESXi specific SMBios found.");

  std::string longEntry = entry;
  longEntry[5] = 90;
  root.WriteFile(kEsxDevice, longEntry + std::string(90 - 31, 'x') + Table());
  Expect(root, longEntry, Table(), "CBiosTables::GetSmbiosData() : ESXi specific SMBios found.");
  // The device ends before its own entry point.
  const std::string failed =
      "GetBiosTableESX        : ERROR: read SMBIOS header from " + std::string(kEsxDevice) + " failed! ";
  root.WriteFile(kEsxDevice, longEntry + Table().substr(0, 40));
  Expect(root, longEntry, "", failed + "(len = 0, BytesToRead = 19), Reason: Success");
  root.WriteFile(kEsxDevice, entry.substr(0, 30));
  Expect(root, "", "", failed + "(readlen = 30, hdrlen = 31), Reason: Success");
  for (const auto length : {Table().size(), size_t{0}}) {
    const std::string head = EntryPoint32(0, static_cast<uint16_t>(length), 3);
    root.WriteFile(kEsxDevice, head + Table().substr(0, length / 2));
    Expect(root, head, "",
           "GetBiosTableESX        : ERROR: read SMBIOS Table from " + std::string(kEsxDevice) +
               " failed! (len = " + std::to_string(length / 2) + ", TableLen = " + std::to_string(length) +
               "), Reason: no sufficiant data available");
  }
  root.Remove(kEsxDevice);
  root.MakeDirectory(kEsxDevice);
  Expect(root, "", "", failed + "(readlen = -1, hdrlen = 0), Reason: Is a directory");
}
