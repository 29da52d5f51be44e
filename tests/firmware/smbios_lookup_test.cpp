#include "firmware/smbios_lookup.h"

#include "support/firmware_tables.h"
#include "support/trace_capture.h"

namespace {

struct Walk {
  explicit Walk(const std::string& bytes) : table(bytes.begin(), bytes.end()) {
    sound = WalkSmbiosStructures(table, index, walked, error);
    const unsigned char* end = table.data() + table.size();
    for (const auto& [type, list] : index) {
      for (const _DMI_20_HEADER* header : list) {
        EXPECT_LE(header->FormattedArea().data() + (sound ? header->length : sizeof(*header)), end);
        ++indexed;
      }
    }
  }

  const std::vector<unsigned char> table;
  SmbiosStructureIndex index;
  unsigned int walked = 0;
  unsigned int indexed = 0;
  std::string error;
  bool sound = false;
};

}  // namespace

TEST(SmbiosWalk, StepsOverEveryKindOfStructure) {
  SmbiosTable table;
  table.Add(0, std::string(20, '\1')).Add(9, "body", {"one", "two", "three"}).Add(1, "").Add(9, "").AddEnd();
  for (const char* behind : {"", "\x09\xFFignored"}) {
    const Walk walk(table.Bytes() + behind);
    EXPECT_TRUE(walk.sound) << walk.error;
    EXPECT_TRUE(walk.walked == 5 && walk.indexed == 5);
    ASSERT_EQ(walk.index.at(9).size(), 2U);
    EXPECT_EQ(walk.index.at(9)[1]->Handle(), 3U);
  }
  // Without an end-of-table structure the end of the table will do; lengths below 4 are taken as they are.
  EXPECT_EQ(Walk(SmbiosTable().Add(1, "").Add(2, "").Bytes()).walked, 2U);
  EXPECT_EQ(Walk(std::string("\1\2\0\0\1\2\0\0", 8)).walked, 2U);
}

TEST(SmbiosWalk, TruncatedTablesEndIt) {
  const std::string table = SmbiosTable().Add(1, "body", {"one"}).Add(2, "second").Bytes();
  const std::pair<size_t, const char*> rows[] = {
      {2, "reading struct header!\n   struct[0], type=0x01, handle=0"},
      {7, "going to struct end!\n   struct[0], last type=0x01, last handle=0\n   struct Offset 0x0000"},
      {8, "when string table end found!\n   struct[0], type=0x01, handle=0\n   struct Offset 0x0000"},
      {12, "when string table end found!\n   struct[0], type=0x01, handle=0\n   struct Offset 0x0000"},
      {15, "reading struct header!\n   struct[1], type=0x02, handle=0"},
      {20, "going to struct end!\n   struct[1], last type=0x02, last handle=1\n   struct Offset 0x000D"},
      {table.size() - 1, "when string table end found!\n   struct[1], type=0x02, handle=1\n   struct Offset 0x000D"},
  };
  for (const auto& [size, error] : rows) {
    const Walk walk(table.substr(0, size));
    EXPECT_FALSE(walk.sound) << size;
    EXPECT_EQ(walk.walked, size < 13 ? 0U : 1U) << size;
    EXPECT_EQ(walk.error,
              std::string("## FATAL ERROR! SMBIOS structure pointer exceeds structure table end while ") + error);
  }
}

TEST(Smbios, RevisionComesFromTheAnchor) {
  const std::tuple<std::string, int, int> rows[] = {{EntryPoint32(1, 1, 1), 2, 8},
                                                    {EntryPoint64(1, 1), 3, 2},
                                                    {"UEFI\x04\x03", 3, 4},
                                                    {"UEFI\x04", 0, 4},
                                                    {"_SM_", 0, 0},
                                                    {"_SM3x...", 0, 0}};
  for (const auto& [header, major, minor] : rows) {
    const FixtureRoot root;
    root.WriteFile(kSysfsEntryPoint, header);
    root.WriteFile(kSysfsTable, SmbiosTable().AddEnd().Bytes());
    RunTraced(root, 1, [major = major, minor = minor](TraceCapture& trace) {
      CSMBios smbios;
      EXPECT_TRUE(smbios.connect());
      EXPECT_TRUE(smbios.getRevisionMajor() == major && smbios.getRevisionMinor() == minor) << major << minor;
      EXPECT_EQ(trace.Count("Invalid SMBios version! (no anchor string matched)"), major + minor == 0);
      EXPECT_EQ(smbios.getStructureCount(), 1U);
      EXPECT_EQ(smbios.getStructuresByType(9), nullptr);
      EXPECT_NE(smbios.getStructuresByType(127), nullptr);
      smbios.disconnect();
      EXPECT_EQ(smbios.getRevisionMajor() + smbios.getRevisionMinor(), 0);
      EXPECT_EQ(smbios.getStructuresByType(127), nullptr);
    });
  }
}

TEST(Smbios, CorruptTableDoesNotConnect) {
  const FixtureRoot root;
  root.WriteFile(kSysfsEntryPoint, "x");
  root.WriteFile(kSysfsTable, SmbiosTable().AddSlot({}).Bytes() + "cut");
  root.Run([] {
    CSMBios smbios;
    EXPECT_FALSE(smbios.connect());
    EXPECT_EQ(smbios.getStructuresByType(9), nullptr);
    EXPECT_NE(smbios.getLastErrorText(), "");
  });
}

TEST(Smbios, ShadowAreaIsTheLastSource) {
  const std::string table = SmbiosTable().Add(1, "body", {"one"}).AddEnd().Bytes();
  const std::string entry = EntryPoint32(0xF1234, static_cast<uint16_t>(table.size()), 3);
  std::string olderEntry = entry;  // its sum covers no more than its length says
  olderEntry[5] = 30;
  SetChecksum(olderEntry, 4, 30);
  std::string badSum = entry;
  ++badSum[10];
  std::string tooLong = entry;
  tooLong[5] = '\xFF';
  SetChecksum(tooLong, 4, tooLong.size());
  const std::tuple<off_t, std::string, std::string> rows[] = {
      {0xE0010, entry, ""},  // connected
      {0xFFFE0, olderEntry, ""},
      {0xE0018, entry, "No SMBIOS structures found!"},  // not on a paragraph
      {0xFFFF0, entry.substr(0, 16), "No SMBIOS structures found!"},
      {0xE0010, badSum + '\0' + entry, "No SMBIOS structures found!"},  // the first one decides
      {0xFFFE0, tooLong, "No SMBIOS structures found!"},                // its length reaches behind the area
      {0xE0010, "_DMI_", "No SMBIOS structures found!"},
      {0xE0010, EntryPoint32(0, 10, 3), "No address for SMBIOS strucures detected!"},
      {0xE0010, EntryPoint32(0xFFFFF000, 10, 3),
       "Remapping of SMBIOS structure memory failed (LastError = 0x00000006)!"},
      {0xE0010, EntryPoint32(0xF1234, 0, 3), "Remapping of SMBIOS structure memory failed (LastError = 0x00000000)!"},
  };
  for (const auto& [place, bytes, error] : rows) {
    const FixtureRoot root;
    root.MakeSparseFile("/dev/mem", 0x100000);
    root.WriteAt("/dev/mem", 0xF1234, table);
    root.WriteAt("/dev/mem", place, bytes);
    const bool candidate = place % 16 == 0 && place != 0xFFFF0 && bytes.starts_with("_SM_");
    RunTraced(root, 3, [candidate, &error = error](TraceCapture& trace) {
      CSMBios smbios;
      EXPECT_EQ(smbios.connect(), error.empty());
      EXPECT_EQ(smbios.getLastErrorText(), error);
      EXPECT_EQ(trace.Count("ScanForSignature    : SMBIOS signature \"_SM_\" found"), candidate);
      EXPECT_NE(trace.Has("CSMBios (GetShadow) : ## ERROR! " + error), error.empty());
      if (!error.empty()) return;
      EXPECT_EQ(smbios.getRevisionMajor(), 2);
      EXPECT_EQ(smbios.getStructureCount(), 3U);  // the entry point's count stays, though there are two
      EXPECT_TRUE(
          trace.Has("BuildStructureList  : ## ERROR! Number of SMBIOS structures found (2) does not match to "
                    "number in header (3)!"));
    });
  }
}
