// ravctl smbios over sound and damaged tables.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "ravctl/tool_machine.h"
#include "support/firmware_tables.h"

namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;

std::string Bytes(std::initializer_list<unsigned int> values) {
  std::string bytes;
  for (const unsigned int value : values)
    bytes += static_cast<char>(value);
  return bytes;
}

// The system, a memory module and a slot.
SmbiosTable SoundTable() {
  const std::string uuid = Bytes({0x33, 0x22, 0x11, 0x00, 0x55, 0x44, 0x77, 0x66, 8, 9, 10, 11, 12, 13, 14, 15});
  const std::string module = LittleEndian(0x1000, 2) + LittleEndian(0xFFFE, 2) + LittleEndian(72, 2) +
                             LittleEndian(64, 2) + LittleEndian(0x7FFF, 2) + Bytes({9, 0, 1, 0, 26, 0, 0}) +
                             LittleEndian(3200, 2) + Bytes({2, 0, 0, 3, 0}) + LittleEndian(65536, 4) +
                             LittleEndian(2933, 2);
  SmbiosTable table;
  table.Add(1, Bytes({1, 2, 0, 3}) + uuid + Bytes({6, 0, 0}), {"Kestrel", "Server \x1b[2J", "S-77"});
  table.Add(17, module, {"DIMM A1", "Raven", "RV-64G"});
  table.AddSlot({.id = 4, .type = 0xAA, .bus = 0x17});
  return table;
}

void Write(const ToolRoot& machine, const std::string& table, const std::string& entryPoint = "") {
  machine.WriteFile(kSysfsTable, table);
  machine.WriteFile(kSysfsEntryPoint,
                    entryPoint.empty() ? EntryPoint64(0, static_cast<uint32_t>(table.size())) : entryPoint);
}

// The values of these fields ("Size,Speed") of the last structure that is shown: "-" for one that has none.
std::string Fields(const ToolRoot& machine, const std::string& names) {
  const nlohmann::json fields = machine.Json("smbios show 1 4 17 38")["data"].back()["fields"];
  std::stringstream list(names);
  std::string values;
  for (std::string name; std::getline(list, name, ',');) {
    nlohmann::json value = "none";
    for (const nlohmann::json& field : fields) {
      if (field["name"] == name) value = field["value"].is_null() ? nlohmann::json("-") : field["value"];
    }
    values += (values.empty() ? "" : "|") + value.get<std::string>();
  }
  return values;
}

TEST(Smbios, ListAndShow) {
  const ToolRoot machine;
  Write(machine, SoundTable().Add(200, "\x01\x02", {"own"}).AddEnd().Bytes());
  EXPECT_EQ(machine.Ravctl("smbios list").out,
            "HANDLE TYPE LENGTH NAME               FIRST STRING\n"
            "0x0000    1     27 System Information Kestrel\n"
            "0x0001   17     34 Memory Device      DIMM A1\n"
            "0x0002    9     17 System Slot        Slot\n"
            "0x0003  200      6 OEM-specific       own\n"
            "0x0004  127      4 End Of Table       -\n");
  const std::string system = machine.Ravctl("smbios show 1").out;
  EXPECT_THAT(system, HasSubstr("0x0000  System Information  (type 1, 27 bytes)\n  Manufacturer   Kestrel\n"));
  EXPECT_THAT(system, HasSubstr("  Product Name   Server \\x1b[2J\n  Version        -\n  Serial Number  S-77\n"));
  EXPECT_THAT(system, HasSubstr("  UUID           00112233-4455-6677-0809-0a0b0c0d0e0f\n"));
  EXPECT_THAT(machine.Ravctl("smbios show 0x0003").out, HasSubstr("String 1   own\n  Bytes      C80603000102\n"));

  EXPECT_EQ(Fields(machine, "Size,Extended Size,Type,Speed"), "64G|64G|DDR4|3200 MT/s");
  EXPECT_EQ(Fields(machine, "Array Handle,Total Width,Part Number"), "0x1000|72 bit|RV-64G");
  EXPECT_EQ(Fields(machine, "Configured Voltage"), "none");  // behind the end of the structure
}

// Old versions, values that stand in another field or nowhere, and what dmidecode says of the same bytes.
TEST(Smbios, SaysWhatDmidecodeSays) {
  const std::string uuid = Bytes({0, 0x11, 0x22, 0x33, 0x44, 0x55, 0x66, 0x77, 8, 9, 10, 11, 12, 13, 14, 15});
  const std::string system = Bytes({0, 0, 0, 0}) + uuid + Bytes({6, 0, 0});
  const auto module = [](uint64_t size, uint64_t speed, const std::string& rest) {
    return LittleEndian(0x1000, 2) + LittleEndian(0xFFFE, 2) + LittleEndian(0, 4) + LittleEndian(size, 2) +
           Bytes({9, 0, 0, 0, 26, 0, 0}) + LittleEndian(speed, 2) + rest;
  };
  const std::string extended =
      Bytes({0, 0, 0, 0, 0}) + LittleEndian(131072, 4) + std::string(0x54 - 0x20, 0) + LittleEndian(70000, 4);
  const std::string processor = Bytes({0, 3, 1, 0}) + std::string(9, 0) + Bytes({3}) + std::string(10, 0);
  const std::string ipmi = Bytes({1, 0x20, 0x40, 0xFF}) + LittleEndian(0xCA3, 8);
  const struct {
    const char* version;
    SmbiosTable table;
    const char *fields, *ours, *dmidecode;
  } rows[] = {
      {"\x2\x4", SmbiosTable().Add(1, system), "UUID", "00112233-4455-6677-0809-0a0b0c0d0e0f",
       "UUID: 00112233-4455-6677-0809-0a0b0c0d0e0f"},
      {"\x2\x33", SmbiosTable().Add(1, system), "UUID", "33221100-5544-7766-0809-0a0b0c0d0e0f",
       "UUID: 33221100-5544-7766-0809-0a0b0c0d0e0f"},
      {"\x3\x2", SmbiosTable().Add(1, system), "UUID", "33221100-5544-7766-0809-0a0b0c0d0e0f",
       "UUID: 33221100-5544-7766-0809-0a0b0c0d0e0f"},
      {"\x3\x3", SmbiosTable().Add(17, module(0x7FFF, 0xFFFF, extended)),
       "Total Width,Size,Extended Size,Speed,Extended Speed", "-|128G|128G|70000 MT/s|70000 MT/s", "Size: 128 GB"},
      {"\x3\x2", SmbiosTable().Add(17, module(0x0800, 3200, "")), "Data Width,Size,Extended Size,Speed",
       "-|2.0G|none|3200 MT/s", "Total Width: Unknown"},
      {"\x3\x2", SmbiosTable().Add(4, processor), "Voltage", "5.0 V, 3.3 V", "Voltage: 5.0 V 3.3 V"},
      {"\x3\x2", SmbiosTable().Add(38, ipmi), "I2C Address,Base Address", "0x20|0x0000000000000CA2 (I/O)",
       "Base Address: 0x0000000000000CA2 (I/O)"},
      {"\x3\x2", SmbiosTable().Add(38, ipmi + "\x10"), "Base Address", "0x0000000000000CA3 (I/O)",
       "Base Address: 0x0000000000000CA3 (I/O)"},
  };
  for (const auto& [version, described, fields, ours, dmidecode] : rows) {
    SCOPED_TRACE(dmidecode);
    const ToolRoot machine;
    SmbiosTable table = described;
    const std::string bytes = table.AddEnd().Bytes();
    std::string entryPoint = version[0] == 3 ? EntryPoint64(0, 9000) : EntryPoint32(0, 9000, 2);
    entryPoint.replace(version[0] == 3 ? 7 : 6, 2, version);
    SetChecksum(entryPoint, version[0] == 3 ? 5 : 4, entryPoint.size());
    Write(machine, bytes, entryPoint);
    EXPECT_EQ(Fields(machine, fields), ours);
    ASSERT_EQ(machine.Ravctl("smbios dump --dump-bin /tmp/dump").status, 0);
    machine.Run([] { EXPECT_NE(std::system("/usr/sbin/dmidecode --from-dump /tmp/dump >/tmp/said 2>&1"), -1); },
                FixtureRoot::kUsr);
    if (machine.ReadFile("/tmp/said").find("not found") != std::string::npos) GTEST_SKIP() << "no dmidecode here";
    EXPECT_THAT(Lower(machine.ReadFile("/tmp/said")), HasSubstr(Lower(dmidecode)));
    EXPECT_THAT(machine.ReadFile("/tmp/said"), HasSubstr("End Of Table"));
  }
}

TEST(Smbios, DumpWritesNewFilesOfTheCallerAlone) {
  const ToolRoot machine;
  const std::string table = SoundTable().AddEnd().Bytes();
  Write(machine, table);
  EXPECT_EQ(machine.Ravctl("smbios dump --raw /tmp/t --entry-point /tmp/e").status, 0);
  EXPECT_EQ(machine.ReadFile("/tmp/t"), table);
  EXPECT_EQ(machine.ReadFile("/tmp/e"), machine.ReadFile(kSysfsEntryPoint));
  EXPECT_EQ(machine.Mode("/tmp/t") & 07777, 0600U);
  EXPECT_THAT(machine.Ravctl("smbios dump").out, HasSubstr("0000: 5F 53 4D 33 5F"));
  EXPECT_EQ(machine.Json("smbios dump")["data"]["table"].get<std::string>().size(), 2 * table.size());
}

TEST(Smbios, VerifyFindsEveryDamage) {
  const std::string sound = SoundTable().AddEnd().Bytes();
  const std::string entry32 = EntryPoint32(0, static_cast<uint16_t>(sound.size()), 4);
  const auto changed = [](std::string bytes, size_t at, char value) {
    bytes[at] = value;
    return bytes;
  };
  struct Row {
    std::string table, entryPoint;
    int status;
    const char* finding;  // of the first line that is not ok
  };
  const Row rows[] = {
      {sound, "", 0, nullptr},
      {sound, entry32, 0, nullptr},
      {sound, EntryPoint32(0, static_cast<uint16_t>(sound.size()), 5), 5, "announced 5 structures, found 4"},
      {sound, EntryPoint32(0, 9, 4), 5, "announced 9 bytes, found "},
      {sound, EntryPoint64(0, 40), 5, "announced at most 40 bytes, found "},
      {sound, changed(entry32, 30, 0), 5, "the bytes sum to 0x"},
      {sound, changed(entry32, 5, 99), 5, "says 99 bytes, 31 found"},
      {sound, "_XX_" + entry32.substr(4), 5, "neither _SM_ nor _SM3_"},
      {sound.substr(0, 60), "", 5, "SMBIOS structure pointer exceeds structure table end"},
      {SoundTable().Bytes(), "", 5, "the table does not end with a structure of type 127"},
      {changed(sound, 1, 3), "", 5, "says 3 bytes, less than its header"},
      {sound + "rest", EntryPoint64(0, 500), 0, "4 bytes behind the last structure"},
      {SmbiosTable().Add(1, Bytes({9, 0, 0, 0}), {"one"}).AddEnd().Bytes(), "", 0,
       "a field names string 9, there are 1"},
      {changed(sound, sound.size() - 4, 0), "", 0, "2 structures have this handle"},
  };
  for (const Row& row : rows) {
    const ToolRoot machine;
    Write(machine, row.table, row.entryPoint);
    const nlohmann::json answer = machine.Json("smbios verify", row.status);
    std::string findings;
    for (const nlohmann::json& line : answer["data"]) {
      if (line["severity"] != "ok") findings += line["finding"].get<std::string>() + "\n";
    }
    EXPECT_THAT(findings, row.finding == nullptr ? ::testing::Matcher<std::string>("") : HasSubstr(row.finding));
  }
}

TEST(Smbios, WhatCouldBeReadIsShownAndFaultsAreOneLine) {
  const ToolRoot machine;
  const std::string sound = SoundTable().AddEnd().Bytes();
  Write(machine, sound.substr(0, 60));
  const nlohmann::json answer = machine.Json("smbios list", 5);
  EXPECT_THAT(Values(answer["data"], "type"), ElementsAre("1", "17"));
  EXPECT_EQ(answer["warnings"][0]["what"], "the SMBIOS table is damaged");

  const Fault faults[] = {
      {"show 0x10000", 2, "smbios show: no handle, type or name of a type: 0x10000 (a handle is 0x0011, a type 17)"},
      {"list 256", 2, "smbios list: no handle, type or name of a type: 256 (a handle is 0x0011, a type 17)"},
      {"list Procesor", 2, "smbios list: no handle, type or name of a type: Procesor (did you mean Processor?)"},
      {"dump --raw /no/t", 4, "smbios dump: cannot create the file: /no/t: No such file or directory (check the path)"},
      {"dump --raw /old", 2, "smbios dump: the file exists and is not overwritten: /old (choose another name)"},
  };
  machine.WriteFile("/old", "old");
  ExpectFaults(machine, "smbios", faults);
  EXPECT_EQ(machine.ReadFile("/old"), "old");
  Write(machine, sound);
  EXPECT_EQ(machine.Ravctl("smbios show baseboard").status, 1);
}

}  // namespace
