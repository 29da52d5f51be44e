#pragma once

#include <cctype>

#include "inventory/server_machine.h"
#include "ravctl/ravctl_runner.h"
#include "support/firmware_tables.h"

// A server with a card behind a bridge, a RAID controller with a disk, an NVMe drive and what is mounted of them. The
// hardware is written to a tree of its own, which the tool's root takes over by Install.
class ServerTree : public ServerMachine {
 public:
  ServerTree() {
    WriteSmbios(
        *this,
        SmbiosTable().AddSlot({.id = 3, .type = 6, .bus = 0x18}).AddSlot({.id = 4, .type = 6, .device = 1}).AddEnd());
    Add("0000:00:01.0", 0x8086F030, 0x060400, "", {.headerType = 0x81, .secondaryBus = 0x17});
    Add("0000:17:00.0", 0x80861521, 0x020000, "igb", {.headerType = 0x80, .subVendor = 0x1734, .subDevice = 1});
    Add("0000:18:00.0", 0x1000FF16, 0x010400, "megaraid_sas");
    Add("0000:5e:00.0", 0x144DFFA8, 0x010802, "nvme");
    MakeDirectory("/sys/bus/pci/devices");
    AddInterface("eth7", "02:00:00:00:00:01", "../../../0000:17:00.0");
    WriteFile("/etc/pelrix/Adapter.ini", "[8086]\nVendor=Kestrel\n1521=Quad \x1b[31mPort\n");
    List("scsi0 Channel: 02 Id: 00 Lun: 00", "RAVEN", "RAID 5 Volume", "1.03", "Direct-Access");
    AddLinked("0:2:0:0", "pci0000:17/0000:18:00.0/host0/target0:2:0/0:2:0:0");
    MakeDirectory(Device("0:2:0:0") + "/block/sda");
    List("scsi1 Channel: 00 Id: 03 Lun: 00", "KESTREL", "UBRIUM-TD4", "97F9", "Sequential-Access");
    MakeLink("/sys/class/scsi_device/1:0:3:0/device/tape", "scsi_tape/st0");
    MakeLink("/sys/block/nvme0n1", "../devices/pci0000:5d/0000:5e:00.0/nvme/nvme0/nvme0n1");
    WriteFile("/etc/mtab",
              "/dev/sda1 /system ext4 rw 0 0\n/dev/nvme0n1p2 /data xfs rw 0 0\nproc /proc proc rw 0 0\n"
              "/dev/sdaa1 /other ext4 rw 0 0\n");
  }

  // Copies the tree below that place of the tool's root.
  void Install(const ToolRoot& tool, const std::string& place = "/") const {
    namespace fs = std::filesystem;
    fs::copy(HostPath("/"), tool.HostPath(place),
             fs::copy_options::recursive | fs::copy_options::copy_symlinks | fs::copy_options::overwrite_existing);
  }
};

// The firmware tables of a machine with an identity of every kind.
inline SmbiosTable SecretSmbios() {
  // As the firmware stores it: the first three fields turned round.
  const std::string uuid("\x04\x03\x02\x01\x06\x05\x08\x07\x09\x0a\x0b\x0c\x0d\x0e\x0f\x10", 16);
  return SmbiosTable()
      .Add(1, std::string("\x01\x02\x03\x04", 4) + uuid + std::string(3, '\0'),
           {"Kestrel", "Perch 2", "1.0", "SGH512XK7Q"})
      .Add(2, std::string("\x01\x02\x00\x03\x04", 5), {"Kestrel", "Board", "PFE77Z0012345", "INV-0042-7"})
      .Add(11, "\x01", {"svc4711tag"})
      .Add(17, std::string(0x17 - 4 + 1, '\0') + "\x01\x02", {"3F1A09C7", "INV-0042-7"})
      .Add(0xD1, std::string("\x12\xa0\x36\x9f\x12\x34\x56", 7), {"svc4711tag"})
      .AddSlot({.id = 3, .bus = 0x18})
      .AddSlot({.id = 4, .bus = 0x00, .device = 1})
      .AddEnd();
}

inline std::string Lower(std::string text) {
  std::ranges::transform(text, text.begin(), [](unsigned char letter) { return std::tolower(letter); });
  return text;
}

// The values of a key, null as "-".
inline std::vector<std::string> Values(const nlohmann::json& rows, const char* key) {
  std::vector<std::string> values;
  for (const nlohmann::json& row : rows)
    values.push_back(row[key].is_string() ? row[key].get<std::string>() : row[key].is_null() ? "-" : row[key].dump());
  return values;
}
