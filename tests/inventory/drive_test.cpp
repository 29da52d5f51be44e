#include "inventory/drive_links.h"
#include "inventory/fake_drives.h"
#include "inventory/system_drive.h"
#include "support/trace_capture.h"

namespace {

std::string PciText(const CPciAddress& pci) {
  char text[40] = {};
  std::snprintf(text, sizeof text, "%04x:%02x:%02x.%d", pci.segment, pci.bus, pci.device, pci.function);
  return pci.IsValid() ? text : "no adapter";
}

// Every field that a scan fills but the drive number.
std::string Describe(const CSystemDrive& drive) {
  std::ostringstream text;
  text << drive.DeviceIdText() << '|' << drive.VendorName << '|' << drive.DeviceName << '|' << drive.DeviceRevision
       << '|' << drive.SerialNumber << '|' << drive.OsDeviceName << '|' << drive.GetFunctionalDeviceObjectName() << '|'
       << PciText(drive.GetPciAddress()) << '|' << drive.GetScsiAddressText();
  const std::string lines = drive.toString();
  text << '|' << drive.GetBusType() << ' ' << lines[lines.find("Type ") + 5] << ' ' << drive.GetDeviceType()
       << (drive.IsMediaRemoveable() ? " removable" : "") << (drive.IsMpdDrive() ? " multipath" : "");
  return text.str();
}

using Machine = DriveMachine;

const char* const kExpected[] = {
    "SCSI\\DISK-RAVEN   RAID 5 Volume   1.03|RAVEN   |RAID 5 Volume   |1.03|RAID0042|sda|sda|0000:03:00.0|0:2:0:0|"
    "1 1 0 removable",
    "SCSI\\DISK-KESTREL UBRIUM-TD4      97F9|KESTREL |UBRIUM-TD4      |97F9||nst0|nst0|0000:04:00.1|1:0:3:0|1 0 31",
    "SCSI\\DISK-WDC     Virtual DVD     SB01|WDC     |Virtual DVD     |SB01||sr0|sr0|no adapter|2:0:0:0|1 2 5",
    "SCSI\\DISK-ATA     PATH DISK       2   |ATA     |PATH DISK       |2   ||sdb|sdb|0000:81:00.1|4:0:0:7|"
    "1 1 0 removable multipath",
    "SCSI\\DISK-MO      OPTICAL JUKEBOX 0001|MO      |OPTICAL JUKEBOX |0001||sdc|sdc|0001:40:02.3|5:0:2:1|1 3 7",
    "SCSI\\DISK-PROC    ENCLOSURE       0002|PROC    |ENCLOSURE       |0002||sg4|sg4|0000:03:00.0|6:0:9:0|1 0 31",
    "Fusion-io SSD fct0|Fusion|ioDrive 1.2TB||1149D0969|ioDrive 1.2TB|fioa|0000:0b:10.1||0 1 0 removable",
    "Fusion-io SSD fct1||||||fiob|no adapter||0 1 0 removable",
    "Intel SSD nvme0n1|NVMe|FLASH 4|||nvme0n1|nvme0n1|0001:5e:00.0||0 1 0 removable",
    "Intel SSD nvme1n1|||||nvme1n1|nvme1n1|no adapter||0 1 0 removable",
};

TEST(SystemDrive, WholeMachineIsRecordedFieldByField) {
  Machine machine;
  machine.List("scsi0 Channel: 02 Id: 00 Lun: 00", "RAVEN", "RAID 5 Volume", "1.03", "Direct-Access");
  machine.AddLinked("0:2:0:0", "pci0000:00/0000:00:03.0/0000:03:00.0/host0/target0:2:0/0:2:0:0");
  machine.MakeDirectory(Machine::Device("0:2:0:0") + "/block/sda");
  machine.MakeDirectory(Machine::Device("0:2:0:0") + "/block:sdz");  // the newer layout wins
  machine.List("scsi1 Channel: 00 Id: 03 Lun: 00", "KESTREL", "UBRIUM-TD4", "97F9", "Sequential-Access");
  machine.AddLinked("1:0:3:0", "pci0000:00/0000:04:00.1/host1");
  machine.MakeLink(Machine::Device("1:0:3:0") + "/tape", "scsi_tape/st0");
  machine.List("scsi2 Channel: 00 Id: 00 Lun: 00", "WDC", "Virtual DVD", "SB01", "CD-ROM");
  machine.MakeDirectory(Machine::Device("2:0:0:0") + "/block/sr0");  // no links at all
  machine.ListText("Host: scsiX Channel: 00 Id: 00 Lun: 00\n");
  machine.List("scsi4 Channel: 00 Id: 00 Lun: 07", "ATA", "PATH DISK", "2", "Direct-Access");
  machine.AddLinked("4:0:0:7", "mpdx/mpdh12/target4:0:0/4:0:0:7");
  machine.MakeDirectory(Machine::Device("4:0:0:7") + "/block/sdb");
  machine.WriteFile("/sys/devices/mpdx/mpdh12/mpdh_path_0", "/devices/pci0000:80/0000:80:02.0/0000:81:00.1/x\nnext\n");
  machine.List("scsi5 Channel: 00 Id: 02 Lun: 01", "MO", "OPTICAL JUKEBOX", "0001", "Optical Device");
  machine.MakeDirectory("/sys/devices/pci0001:40/0001:40:02.3/5:0:2:1/block:sdc");  // an older kernel
  machine.MakeLink(Machine::Device("5:0:2:1"), "../../../devices/pci0001:40/0001:40:02.3/5:0:2:1");
  machine.List("scsi6 Channel: 00 Id: 09 Lun: 00", "PROC", "ENCLOSURE", "0002", "Enclosure");
  machine.AddLinked("6:0:9:0", "pci0000:00/0000:03:00.0/host6/" + std::string(200, 'x') + "/" + std::string(200, 'y'));
  machine.MakeDirectory(Machine::Device("6:0:9:0") + "/block/sdx");  // two: neither is taken
  machine.MakeDirectory(Machine::Device("6:0:9:0") + "/block/sdy");
  machine.MakeLink("/sys/class/scsi_generic/sg4/device", "../../../6:0:9:0");
  machine.MakeLink("/sys/class/scsi_generic/sg3/device", "../../../16:0:9:0");
  machine.MakeLink("/sys/class/scsi_generic/sg2/device", "../../6:0:9:0/6:0:9:01");
  machine.List("scsi8 Channel: 00 Id: 00 Lun: 00", "NAMELESS", "", "", "Sequential-Access");
  machine.WriteFile("/proc/fusion/fct0/nand_dev/channels/0/client", "fioa\n");
  machine.WriteFile("/proc/fusion/fct0/nand_dev/bus_id", "0000:0b:10.1\n");
  machine.WriteFile("/proc/fusion/iodrive/fct0/board_info",
                    " Fusion card\nx\nProduct: ioDrive 1.2TB \n SN:1149D0969\n");
  machine.WriteFile("/proc/fusion/fct1/nand_dev/channels/0/client", "fiob");
  machine.WriteFile("/proc/fusion/fct1/bus_id", "0000:0b");
  machine.MakeLink("/sys/block/nvme0n1", "../devices/pci0001:5d/0001:5d:01.0/0001:5e:00.0/nvme/nvme0/nvme0n1");
  machine.MakeDirectory("/sys/block/nvme1n1");
  machine.MakeDirectory("/sys/block/sda");
  for (const char* node : {"/dev/sda", "/dev/nvme0n1"})
    machine.WriteFile(node, "");
  RunTraced(machine, 5, [](TraceCapture& trace) {
    const FakeDrives devices({{"/dev/sda", {"", "", "RAID0042"}}, {"/dev/nvme0n1", {"NVMe", "FLASH 4", "S-1"}}});
    CSystemDriveList drives;
    CSystemDrive::ScanSystemDrives(drives, true, false);
    ASSERT_EQ(drives.size(), std::size(kExpected));
    if (drives[8].OsDeviceName == "nvme1n1") std::swap(drives[8], drives[9]);  // no order in a directory
    for (size_t i = 0; i < drives.size(); ++i) {
      EXPECT_EQ(Describe(drives[i]), kExpected[i]) << i;
      EXPECT_TRUE(i >= 8 || drives[i].GetDriveNo() == static_cast<int>(i) + 1);
    }
    EXPECT_EQ(drives[8].GetDriveNo() + drives[9].GetDriveNo(), 19);
    EXPECT_EQ(trace.Count("'/proc/scsi/scsi' from line 'Host: scsiX Channel: 00 Id: 00 Lun: 00'."), 1);
    EXPECT_TRUE(drives[0].IsDiskDrive() && drives[8].IsDiskDrive() && !drives[2].IsDiskDrive());
    EXPECT_EQ(drives[2].GetVendorName(), "WDC     ");
    drives[2].VendorName = "WDC";
    EXPECT_TRUE(drives[2].toString().starts_with(
        "Name:  \"Virtual DVD     \" Vendor: \"Western Digital\" Rev: \"SB01\" \nBus:   SCSI\nDevice No: 3 - Type 2 ( ) \n"));
    trace.Clear();
    CSystemDrive::Dump(3, drives[0]);
    EXPECT_EQ(trace.Lines().size(), 11U);
    EXPECT_TRUE(trace.Has("CSystemDrive        : Enumerator      : SCSI"));
  });
}

TEST(SystemDrive, DamagedSourcesEndOnlyThemselves) {
  Machine machine;
  machine.MakeDirectory("/sys/block/nvme0n1");
  const auto scan = [&machine](size_t count) {
    machine.Run([count] {
      CSystemDriveList drives;
      CSystemDrive::ScanSystemDrives(drives, false, false);
      ASSERT_EQ(drives.size(), count);
      EXPECT_STREQ(drives.back().DeviceIdText(), "Intel SSD nvme0n1");
      EXPECT_TRUE(count == 1 ||
                  (drives[0].DeviceName == "A disk" && drives[0].OsDeviceName == "sda" && drives[0].GetPortNo() == 0));
    });
  };
  scan(1);                                   // no list
  machine.ListText(std::string(9000, 'H'));  // no host, no newline
  scan(1);
  machine.MakeDirectory(Machine::Device("256:0:0:44") + "/block/sda");
  machine.MakeDirectory(Machine::Device("0:0:0:44") + "/block/sdb");  // another drive
  machine.ListText("\n  Host: scsi0 Channel: 0 Id: 0 Lun: 0\nHost: scsi256 Channel: 0 Id: 0 Lun: 44\n");
  scan(1);  // ends behind a host line
  machine.ListText("  Vendor: V        Model: A disk");
  scan(1);
  machine.ListText("\n\n");
  scan(2);
  machine.WriteFile("/proc/fusion/fct0/channels/0/client", "");  // no first line
  scan(2);
}

TEST(SystemDrive, PciAddressesOfAPathAreWhole) {
  const std::pair<const char*, std::string> rows[] = {
      {"../devices/pci0000:00/0000:00:1d.0/0000:02:00.1/nvme", "0000:00:1d.0 0000:02:00.1 "},
      {"ffff:ff:1f.7", "ffff:ff:1f.7 "},
      {"0000:00:1F.0", ""},
      {"0000:00:1c.0/0000:00:1f.a", "0000:00:1c.0 no adapter "},
      {"0000:00:1f.", ""},
      {"0000:00:0e.0/pci10000:e0/10000:e1:00.0/nvme", "0000:00:0e.0 "},
  };
  for (const auto& [path, addresses] : rows) {
    std::string found;
    for (const CPciAddress& each : FindPciAddresses(path))
      found += PciText(each) + " ";
    EXPECT_EQ(found, addresses) << path;
  }
}

}  // namespace
