// The inventory commands over made-up machines.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sstream>
#include <tuple>

#include "ravctl/tool_machine.h"

namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using namespace std::string_literals;

constexpr auto kNetwork = FixtureRoot::kNetwork;

TEST(Inventory, TreeLinksAdaptersDrivesAndVolumes) {
  const ToolRoot machine;
  ServerTree().Install(machine);
  const ToolResult result = machine.Ravctl("inventory -o device,kind,slot,identity,name", {}, kNetwork);
  EXPECT_EQ(result.status, 0) << result.err;
  EXPECT_EQ(result.err, "");
  EXPECT_EQ(result.out,
            "DEVICE         KIND    SLOT MAC/WWN/SERIAL    NAME\n"
            "0000:17:00.0   adapter 4    02:00:00:00:00:01 Kestrel Quad \\x1b[31mPort\n"
            "0000:18:00.0   adapter 3    -                 RAID controller 1000:ff16\n"
            "└─/dev/sda     drive   -    -                 RAVEN RAID 5 Volume\n"
            "  └─/system    volume  -    -                 /dev/sda1\n"
            "0000:5e:00.0   adapter -    -                 Mass storage controller 144d:ffa8\n"
            "└─/dev/nvme0n1 drive   -    -                 -\n"
            "  └─/data      volume  -    -                 /dev/nvme0n1p2\n"
            "/dev/nst0      drive   -    -                 KESTREL UBRIUM-TD4\n"
            "/other         volume  -    -                 /dev/sdaa1\n");

  const nlohmann::json data = machine.Json("inventory --all", 0, {}, kNetwork)["data"];
  EXPECT_THAT(Values(data["adapters"], "driver"), ElementsAre("igb", "megaraid_sas", "nvme"));
  EXPECT_THAT(Values(data["drives"], "type"), ElementsAre("disk", "tape", "disk"));
  EXPECT_THAT(Values(data["drives"], "adapter"), ElementsAre("0000:18:00.0", "-", "0000:5e:00.0"));
  EXPECT_THAT(Values(data["volumes"], "drive"), ElementsAre("/dev/nvme0n1", "-", "-", "/dev/sda"));
}

TEST(Inventory, FiltersKeepWhatMatchesAndWhatItHangsOn) {
  const std::tuple<const char*, const char*, std::vector<std::string>> rows[] = {
      {"adapters --class NET --class scsi*", "address", {"0000:17:00.0", "0000:18:00.0"}},
      {"adapters --driver mega", "address", {}},
      {"adapters --slot 4", "interface", {"eth7"}},
      {"adapters -m quad", "vendor", {"Kestrel"}},
      {"drives --adapter *:18:*", "scsi", {"0:2:0:0"}},
      {"drives --type tape --vendor kestrel", "device", {"/dev/nst0"}},
      {"volumes --drive /dev/sda", "mount_point", {"/system"}},
      {"volumes --type proc", "mount_point", {}},
      {"volumes --type proc --all", "mount_point", {"/proc"}},
      {"volumes --kind local -m /d*", "mount_point", {"/data", "/other", "/system"}},
  };
  const ToolRoot machine;
  ServerTree().Install(machine);
  for (const auto& [words, key, values] : rows) {
    const nlohmann::json answer = machine.Json(CommandLine("inventory") + words, values.empty() ? 1 : 0, {}, kNetwork);
    EXPECT_EQ(Values(answer["data"], key), values) << words;
  }
  EXPECT_EQ(machine.Ravctl("inventory -m RAVEN -o device --no-headings").out,
            "0000:18:00.0\n└─/dev/sda\n  └─/system\n");
  EXPECT_EQ(machine.Ravctl("inventory -m nvme0n1p2 -o device --no-headings").out,
            "0000:5e:00.0\n└─/dev/nvme0n1\n  └─/data\n");
}

TEST(Inventory, BareMachineAndCapturedTree) {
  const ToolRoot machine;
  EXPECT_EQ(machine.Ravctl("inventory").status, 1);
  ServerTree().Install(machine, "/captured");
  nlohmann::json answer = machine.Json("inventory --sysroot /captured");
  EXPECT_THAT(answer["warnings"][0]["where"].get<std::string>(), HasSubstr("drive inquiries"));
  const ToolRoot live;
  ServerTree().Install(live);
  EXPECT_EQ(answer["data"], live.Json("inventory", 0, {}, kNetwork)["data"]);
}

// What only the running machine answered stands in a bundle and is filled in where the files of the tree do not tell.
TEST(Inventory, CapturedAnswersAreFilledIn) {
  const ToolRoot machine;
  ServerTree().Install(machine);
  machine.MakeDirectory("/system");
  ASSERT_EQ(machine.Ravctl("bundle /b.tar.gz").status, 0);
  const nlohmann::json captured = machine.Json("inventory --sysroot /b.tar.gz");
  EXPECT_EQ(captured["warnings"].size(), 0U);
  const std::string size = "volumes/2/mount_point volumes/2/size_kb volumes/0/size_kb";
  EXPECT_EQ(Members(captured["data"], size), Members(machine.Json("inventory")["data"], size));
  EXPECT_TRUE(captured["data"]["volumes"][2]["size_kb"].is_number()) << captured["data"]["volumes"];

  ServerTree().Install(machine, "/tree");
  nlohmann::json drives = machine.Json("inventory drives");
  drives["data"][2].update({{"serial", "S4 NV-77/1"}, {"name", "RAVEN NV-2000"}, {"sources", {{"serial", "library"}}}});
  machine.WriteFile("/tree/ravctl/inventory-drives.json", drives.dump());
  EXPECT_EQ(machine.Ravctl("inventory drives --sysroot /tree -o device,name,serial --no-headings").out,
            "/dev/sda     RAID 5 Volume -\n/dev/nst0    UBRIUM-TD4    -\n/dev/nvme0n1 RAVEN NV-2000 S4 NV-77/1\n");
  const Fault faults[] = {
      {"net list", 4, "...the tree does not hold what only a running machine tells: /ravctl/net-list.json..."},
      {"inventory drives", 5,
       "...the captured answer is damaged: /ravctl/inventory-drives.json: it is no ravctl/inv..."},
      {"perf", 5, "...the captured answer is damaged: /ravctl/perf-sample.json..."}};
  drives["data"][0]["size_kb"] = "large";
  machine.WriteFile("/tree/ravctl/inventory-drives.json", drives.dump());
  machine.WriteFile("/tree/ravctl/perf-sample.json", "{");
  ExpectFaults(machine, "--sysroot /tree", faults);
}

// What the library leaves out or has wrong by its own rules.
TEST(Inventory, SysfsTellsWhatIsTrue) {
  const ToolRoot machine;
  ServerTree tree;
  tree.Add("0000:03:00.0", 0x15B3FF01, 0x020700, "mlx5_core");
  tree.Add("0000:04:00.0", 0x1077FF02, 0x0C0400, "qla2xxx", {.addresses = {0xFB00000C, 0x00000001}});
  tree.Install(machine);
  const auto text = [&machine](const std::string& path, const std::string& content) {
    machine.WriteFile("/sys/" + path, content + "\n");
  };
  text("bus/pci/devices/10000:e1:00.0/config",
       BuildHeader({.vendor = 0x144D, .device = 0xFFA9, .classCode = 0x010802}));
  machine.MakeLink("/sys/bus/pci/devices/10000:e1:00.0/driver", "../../../../bus/pci/drivers/nvme");
  text("bus/pci/devices/0000:04:00.0/resource",
       "0x000000fb00000000 0x000000fb00ffffff 0x000000000014220c\n0x0000000000000000 0x0000000000000000 0x0\n"
       "0x000000000000e000 0x000000000000e0ff 0x0000000000040101");
  const std::string port = "devices/pci0000:00/0000:00:02.0/0000:03:00.0/";
  for (const auto& [name, address, number] : {std::tuple{"ib1", "00:00:10:86", "1"}, {"ib0", "00:00:10:85", "0"}}) {
    text(port + "net/" + name + "/address", address);
    text(port + "net/" + name + "/dev_port", number);
    machine.MakeLink(std::string("/sys/class/net/") + name, "../../" + port + "net/" + name);
  }
  machine.MakeLink("/sys/class/net/enx0",
                   "../../devices/pci0000:00/0000:00:04.0/0000:18:00.0/usb1/1-1/1-1:1.0/net/enx0");
  const std::string hba = "devices/pci0000:00/0000:04:00.0/host9/";
  for (const auto& [name, path] : {std::pair{"host9", hba}, {"host11", hba + "vport-9:0-0/host11/"}}) {
    text(path + "fc_host/" + name + "/port_name", std::string("0x2100000e1e00000") + name[4]);
    machine.MakeLink(std::string("/sys/class/fc_host/") + name, "../../" + path + "fc_host/" + name);
  }
  machine.WriteFile("/proc/interrupts",
                    "     CPU0\n  2:   5   IO-APIC   2-edge      timer\n  8:  1  IO-APIC  8-edge  rtc0\n"
                    " 11:  0   IO-APIC  11-fasteoi   virtio0\n");
  const nlohmann::json adapters = machine.Json("inventory adapters --address *:*")["data"];
  EXPECT_THAT(Values(adapters, "address"), ElementsAre("0000:03:00.0", "0000:04:00.0", "0000:17:00.0", "0000:18:00.0",
                                                       "0000:5e:00.0", "10000:e1:00.0"));
  EXPECT_EQ(Members(adapters, "0/interface 0/interfaces 0/mac 0/ranges_from"),
            "ib0, [\"ib0\",\"ib1\"], 00:00:10:85, registers");
  EXPECT_EQ(Members(adapters, "1/wwn 1/fc_hosts/0/host 1/fc_hosts/1 1/memory/0 1/ports/0 1/ranges_from"),
            "21:00:00:0e:1e:00:00:09, host9, none, 0xfb00000000-0xfb00ffffff, 0xe000, kernel");
  EXPECT_EQ(Members(adapters, "3/address 3/interface"), "0000:18:00.0, -");
  EXPECT_EQ(Members(adapters, "5/class 5/driver 5/id"),
            "Non-Volatile-Memory, nvme, PCI\\VEN_144d&DEV_ffa9&SUBSYS_00000000&REV_00");
  EXPECT_EQ(machine.Ravctl("inventory adapters -m *timer -o class,name,title --no-headings").out,
            "Other Controller timer ISA system timer\n");
  EXPECT_EQ(machine.Ravctl("inventory adapters -m virtio0").status, 1);
  EXPECT_EQ(machine.Ravctl("inventory adapters -m virtio0 -o name,driver --no-headings --all").out, "virtio0 -\n");
}

// Drives that the library does not look for or knows by name alone, and what is stacked on them. Each is shown once,
// however many ways lead to it and whatever areas the kernel makes of it.
TEST(Inventory, DrivesPartitionsAndStacks) {
  const ToolRoot machine;
  DriveMachine tree;
  tree.List("scsi0 Channel: 00 Id: 00 Lun: 00", "ATA", "RAVEN SSD 480", "0104", "Direct-Access");
  const auto text = [&machine](const std::string& path, const std::string& content) {
    machine.WriteFile("/sys/" + path, content + "\n");
  };
  const std::string sata = "pci0000:00/0000:00:17.0/ata1/host0/target0:0:0/0:0:0:0/";
  const std::string vmd = "pci0000:00/0000:00:0e.0/pci10000:e0/10000:e1:00.0/nvme/nvme1/";
  const std::string virtio = "pci0000:00/0000:00:05.0/virtio2/";
  const auto drive = [&](const std::string& name, const std::string& place, const std::string& sectors) {
    text("devices/" + place + "block/" + name + "/size", sectors);
    machine.MakeLink("/sys/devices/" + place + "block/" + name + "/device", "../..");
    machine.MakeLink("/sys/block/" + name, "../devices/" + place + "block/" + name);
    machine.MakeLink("/sys/class/block/" + name, "../../devices/" + place + "block/" + name);
  };
  const auto partition = [&](const std::string& name, const std::string& disk, const std::string& sectors) {
    text(disk + "/" + name + "/size", sectors);
    text(disk + "/" + name + "/partition", "1");
    machine.MakeLink("/sys/class/block/" + name, "../../" + disk + "/" + name);
  };
  const auto stacked = [&](const std::string& name, const std::vector<std::string>& slaves,
                           const std::string& mapName) {
    text("devices/virtual/block/" + name + "/size", "2048");
    if (!mapName.empty()) text("devices/virtual/block/" + name + "/dm/name", mapName);
    for (const std::string& slave : slaves)
      machine.MakeLink("/sys/devices/virtual/block/" + name + "/slaves/" + slave, "../../" + slave);
    machine.MakeLink("/sys/class/block/" + name, "../../devices/virtual/block/" + name);
    machine.MakeLink("/sys/block/" + name, "../devices/virtual/block/" + name);
  };
  drive("sda", sata, "937703088");
  drive("nvme1n1", vmd, "4096");
  drive("vda", virtio, "8192");
  for (const char* part : {"sda1", "sda2", "sda10"})
    partition(part, "devices/" + sata + "block/sda", "2048");
  partition("vda1", "devices/" + virtio + "block/vda", "4096");
  stacked("md127", {"sda2", "vda1"}, "");
  stacked("dm-0", {"md127"}, "vg--a-root");
  stacked("dm-1", {"sda10"}, "crypt");
  stacked("dm-2", {"dm-2", "dm-1"}, "circle");
  for (const std::string host : {"1", "2"}) {
    const std::string place = "pci0000:00/0000:00:1a." + host + "/host" + host + "/target/" + host + ":0:0:0/";
    drive(host == "1" ? "sdb" : "sdc", place, "4096");
    machine.WriteFile("/sys/devices/" + place + "vpd_pg80", std::string("\0\x80\0\x05", 4) + "LUN77");
  }
  stacked("dm-3", {"sdb", "sdc"}, "mpatha");
  text("devices/virtual/block/dm-3/dm/uuid", "mpath-3600508b1001c4d7a8b9c0d1e2f304152");
  stacked("dm-4", {"dm-3"}, "mpatha-part1");
  const std::string subsystem = "virtual/nvme-subsystem/nvme-subsys0/";
  const std::string controller = "pci0000:00/0000:00:1b.0/nvme/nvme0/";
  drive("nvme0n1", subsystem, "2048");
  partition("nvme0n1p1", "devices/" + subsystem + "block/nvme0n1", "1024");
  text("devices/" + subsystem + "model", "RAVEN MP-500");
  text("devices/" + subsystem + "serial", "MP77");
  machine.MakeLink("/sys/devices/" + subsystem + "nvme0", "../../../" + controller);
  drive("nvme0c0n1", controller, "2048");
  text("devices/" + controller + "block/nvme0c0n1/hidden", "1");
  const std::string card = "pci0000:00/0000:00:1d.0/mmc_host/mmc0/mmc0:0001/";
  drive("mmcblk0", card, "1024");
  partition("mmcblk0p2", "devices/" + card + "block/mmcblk0", "512");
  text("devices/" + card + "name", "RV32G");
  text("devices/" + card + "serial", "0x1a2b3c4d");
  machine.MakeLink("/sys/devices/" + card + "block/mmcblk0/mmcblk0boot0/device", "../../mmcblk0");
  for (const char* list : {"class/block", "block"})
    machine.MakeLink(std::string("/sys/") + list + "/mmcblk0boot0",
                     "../devices/" + card + "block/mmcblk0/mmcblk0boot0");
  machine.MakeLink("/sys/class/scsi_device/0:0:0:0", "../../devices/" + sata + "scsi_device/0:0:0:0");
  machine.MakeDirectory("/sys/devices/" + sata + "scsi_device/0:0:0:0/device/block/sda");
  machine.WriteFile("/proc/scsi/scsi", tree.ReadFile("/proc/scsi/scsi"));
  machine.WriteFile("/sys/devices/" + sata + "vpd_pg80", std::string("\0\x80\0\x10", 4) + "  RV-480 00017X  ");
  text("devices/" + vmd + "model", "RAVEN NV-2000   ");
  text("devices/" + vmd + "serial", "S4 NV-77/1");
  text("devices/" + vmd + "firmware_rev", "1B2QEXP7");
  text("devices/" + virtio + "block/vda/dev", "254:0");
  machine.WriteFile("/run/udev/data/b254:0",
                    "S:x\nE:ID_MODEL_ENC=Virtual\\x20Disk\\x20\\x20\nE:ID_SERIAL_SHORT=vol-0042\n");
  machine.WriteFile(
      "/etc/mtab",
      "/dev/sda1 /boot ext4 rw 0 0\n/dev/mapper/vg--a-root / xfs rw 0 0\n/dev/mapper/circle /odd ext4 rw 0 0\n"
      "/dev/vg-a/root /again xfs rw 0 0\n/dev/mapper/mpatha-part1 /lun xfs rw 0 0\n/dev/nvme0n1p1 /nvme ext4 rw 0 0\n"
      "/dev/mmcblk0p2 /card ext4 rw 0 0\n");
  const nlohmann::json data = machine.Json("inventory")["data"];
  const nlohmann::json& drives = data["drives"];
  EXPECT_THAT(Values(drives, "device"),
              ElementsAre("/dev/sda", "/dev/nvme0n1", "/dev/nvme1n1", "/dev/mmcblk0", "/dev/sdb", "/dev/vda"));
  EXPECT_THAT(Values(drives, "name"),
              ElementsAre("RAVEN SSD 480", "RAVEN MP-500", "RAVEN NV-2000", "RV32G", "-", "Virtual Disk"));
  EXPECT_THAT(Values(drives, "serial"),
              ElementsAre("RV-480 00017X", "MP77", "S4 NV-77/1", "0x1a2b3c4d", "LUN77", "vol-0042"));
  EXPECT_THAT(Values(drives, "size_kb"), ElementsAre("468851544", "1024", "2048", "512", "2048", "4096"));
  EXPECT_THAT(Values(drives, "adapter"), ElementsAre("0000:00:17.0", "0000:00:1b.0", "10000:e1:00.0", "0000:00:1d.0",
                                                     "0000:00:1a.1", "0000:00:05.0"));
  EXPECT_THAT(Values(drives, "bus"), ElementsAre("SCSI", "NVMe", "NVMe", "MMC", "SCSI", "virtio"));
  EXPECT_EQ(Members(drives, "0/sources/name 0/sources/serial 2/sources/serial 5/sources/serial 4/paths"),
            "library, sysfs, sysfs, udev, [\"/dev/sdb\",\"/dev/sdc\"]");
  EXPECT_EQ(machine.Ravctl("inventory volumes -o mount_point,drives,layers --no-headings").out,
            "/           /dev/sda, /dev/vda vg--a-root, md127\n"
            "/again      /dev/sda, /dev/vda vg--a-root, md127\n"
            "/boot       /dev/sda           -\n"
            "/card       /dev/mmcblk0       -\n"
            "/lun        /dev/sdb           mpatha-part1, mpatha\n"
            "/nvme       /dev/nvme0n1       -\n"
            "/odd        /dev/sda           circle, crypt\n");
  EXPECT_EQ(machine.Ravctl("inventory -o device,kind --no-headings").out,
            "/dev/sda            drive\n"
            "├─/dev/sda1         partition\n"
            "│ └─/boot           volume\n"
            "├─/dev/sda2         partition\n"
            "│ ├─/               volume\n"
            "│ └─/again          volume\n"
            "└─/dev/sda10        partition\n"
            "  └─/odd            volume\n"
            "/dev/nvme0n1        drive\n"
            "└─/dev/nvme0n1p1    partition\n"
            "  └─/nvme           volume\n"
            "/dev/nvme1n1        drive\n"
            "/dev/mmcblk0        drive\n"
            "├─/dev/mmcblk0p2    partition\n"
            "│ └─/card           volume\n"
            "└─/dev/mmcblk0boot0 partition\n"
            "/dev/sdb            drive\n"
            "└─/lun              volume\n"
            "/dev/vda            drive\n"
            "└─/dev/vda1         partition\n"
            "  ├─/               volume\n"
            "  └─/again          volume\n");
  ASSERT_EQ(machine.Ravctl("bundle /b.tar.gz").status, 0);
  const CommandLine listed = "inventory drives -o device,name,serial,adapter,paths";
  EXPECT_EQ(machine.Ravctl(listed + "--sysroot /b.tar.gz").out, machine.Ravctl(listed).out);
  machine.WriteFile("/etc/mtab", "/dev/sda1 /" + std::string(15000, 'x') + " ext4 rw 0 0\n");
  for (const char* command : {"inventory", "inventory volumes"}) {
    std::stringstream lines(machine.Ravctl(command).out);
    for (std::string line; std::getline(lines, line);)
      EXPECT_LT(line.size(), 300U) << command;
  }
}

// Two machines that differ in one thing of each kind.
TEST(InventoryDiff, EveryKindOfChangeFromEverySource) {
  const ToolRoot machine;
  ServerTree before;
  before.Install(machine, "/before");
  ServerTree after;
  before.Install(machine);  // the live machine is the one before
  for (const char* gone : {"/proc/bus/pci/17", "/sys/class/net/eth7", "/sys/block/nvme0n1"})
    std::filesystem::remove_all(after.HostPath(gone));
  after.Add("0000:19:00.0", 0x80861521, 0x020000, "igb", {.headerType = 0x80, .subVendor = 0x1734, .subDevice = 1});
  after.AddInterface("eth8", "02:00:00:00:00:01", "../../../0000:19:00.0");
  after.Add("0000:5e:00.0", 0x144DFFA8, 0x010802, "nvme", {.revision = 2});
  after.List("scsi0 Channel: 02 Id: 01 Lun: 00", "RAVEN", "RAID 1 Volume", "1.03", "Direct-Access");
  after.AddLinked("0:2:1:0", "pci0000:17/0000:18:00.0/host0/target0:2:1/0:2:1:0");
  after.MakeDirectory(DriveMachine::Device("0:2:1:0") + "/block/sdb");
  after.WriteFile("/etc/mtab", "/dev/sda1 /system xfs rw 0 0\n/dev/sdaa1 /elsewhere ext4 rw 0 0\n");
  after.Install(machine, "/after");
  machine.WriteFile("/before.json", machine.Ravctl("inventory --json", {}, kNetwork).out);

  EXPECT_EQ(machine.Ravctl("inventory diff /before /before.json", {}, kNetwork).out, "");
  EXPECT_EQ(machine.Json("inventory diff live /before", 0, {}, kNetwork)["data"].size(), 0U);
  const ToolResult trees = machine.Ravctl("inventory diff /before /after --no-headings", {}, kNetwork);
  EXPECT_EQ(trees.status, 1) << trees.err;
  EXPECT_EQ(
      trees.out,
      "moved   adapter   0000:19:00.0 -    eth8 0000:19:00.0 address     0000:17:00.0                  0000:19:00.0\n"
      "changed adapter   0000:19:00.0 -    eth8 0000:19:00.0 interface   eth7                          eth8\n"
      "changed adapter   0000:19:00.0 -    eth8 0000:19:00.0 slot        4                             -\n"
      "changed adapter   0000:5e:00.0 -    nvme 0000:5e:00.0 revision    00                            02\n"
      "removed drive     /dev/nvme0n1 -    -                 -           /dev/nvme0n1                  -\n"
      "added   drive     0:2:1:0      3    RAID 1 Volume     -           -                             0:2:1:0\n"
      "changed volume    /system      3    /dev/sda1         type        ext4                          xfs\n"
      "moved   volume    /elsewhere   -    /dev/sdaa1        mount_point /other                        /elsewhere\n"
      "removed volume    /data        -    /dev/nvme0n1p2    -           /data                         -\n"
      "changed slot      4            4    Slot              card        Quad \\x1b[31mPort [8086:1521] -\n"
      "moved   interface eth8         -    0000:19:00.0      name        eth7                          eth8\n"
      "changed interface eth8         -    0000:19:00.0      address     0000:17:00.0                  0000:19:00.0\n");
  for (const char* from : {"live", "-", "/before.json"})
    EXPECT_EQ(machine.Ravctl({"inventory", "diff", from, "/after", "--no-headings"}, {}, kNetwork).out, trees.out);
  EXPECT_EQ(machine.Json("inventory diff /after /before", 1)["data"].size(), 12U);
  ASSERT_EQ(machine.Ravctl("bundle /bundle.tar.gz", {}, kNetwork).status, 0);
  EXPECT_EQ(machine.Ravctl("inventory diff /bundle.tar.gz /after --no-headings").out, trees.out);
}

// The rest of a machine: memory, firmware, kernel, settings.
TEST(InventoryDiff, WhatIsNoDevice) {
  const ToolRoot machine;
  const auto install = [&machine](const std::string& place, bool isAfter) {
    const auto module = [](uint64_t mib) {
      return std::string(8, 0) + LittleEndian(mib, 2) + "\x09\0\x01\0\x1a"s + std::string(5, 0) + "\x02\0\x03"s;
    };
    // Cores, those that are switched on, and threads; a byte is too small for what the second one has.
    const auto processor = [](const char* cores, uint64_t threads) {
      return "\x01\x03\xB3\x02"s + std::string(8, 0) + "\x03"s + std::string(7, 0) + "\x41"s + std::string(7, 0) +
             "\x04"s + std::string(2, 0) + std::string(cores, 2) + LittleEndian(std::min<uint64_t>(threads, 255), 1) +
             std::string(8, 0) + LittleEndian(threads, 2);
    };
    const std::string empty = "\x01\x03\xB3\x02"s + std::string(16, 0) + std::string(20, 0);
    FixtureRoot tree;
    WriteSmbios(
        tree, SmbiosTable()
                  .Add(0, "\x01\x02\0\0\x03\0"s + std::string(8, 0), {"Kestrel", isAfter ? "2.1" : "2.0", "01/02/2026"})
                  .Add(17, module(16384), {"DIMM A1", isAfter ? "S9" : "S1", "RV-16G"})
                  .Add(17, module(isAfter ? 0 : 8192), {"DIMM B1", "S2", "RV-8G"})
                  .Add(4, processor(isAfter ? "\x40\x3F" : "\x40\x40", isAfter ? 384 : 256),
                       {"CPU1", "Kestrel", "Wing 9", "P1"})
                  .Add(4, isAfter ? empty : processor("\x20\x20", 64), {"CPU2", "Kestrel", "Wing 7", "P2"})
                  .AddSlot({.id = 4, .usage = static_cast<uint8_t>(isAfter ? 4 : 3), .bus = 0x17})
                  .AddEnd());
    if (isAfter) AddFunction(tree, {.bus = "17", .device = 0x1111, .classCode = 0x020000});
    tree.WriteFile("/proc/sys/kernel/osrelease", isAfter ? "6.12.9\n" : "6.1.0\n");
    tree.WriteFile("/sys/class/net/eth0/address", "02:00:00:00:00:01\n");
    tree.WriteFile("/sys/class/net/eth0/mtu", isAfter ? "9000\n" : "1500\n");
    tree.WriteFile("/etc/pelrix/registry",
                   std::string("[HKEY_LOCAL_MACHINE]\nPath=s=/opt/") + (isAfter ? "y" : "x") + "\n\n\n");
    tree.WriteFile("/etc/norrow/QuennetSuite/TraceConfig/ravd.ini",
                   std::string("[ravd]\nFileDebugLevel=") + (isAfter ? "5" : "2") + "\n[EndOfFile]\n");
    std::filesystem::copy(tree.HostPath("/"), machine.HostPath(place), std::filesystem::copy_options::recursive);
  };
  install("/before", false);
  install("/after", true);
  std::string lines;
  const nlohmann::json diff = machine.Json("inventory diff /before /after", 1);
  for (const nlohmann::json& row : diff["data"])
    lines += Members(row, "change kind where slot name field old new") + "\n";
  EXPECT_EQ(lines,
            "added, adapter, 0000:17:00.0, 4, ethx 0000:17:00.0, -, -, 0000:17:00.0\n"
            "changed, slot, 4, 4, Slot, usage, Available, In use\n"
            "changed, slot, 4, 4, Slot, card, -, Ethernet controller [8086:1111]\n"
            "removed, memory, DIMM A1, DIMM A1, RV-16G, -, DIMM A1, -\n"
            "removed, memory, DIMM B1, DIMM B1, RV-8G, -, DIMM B1, -\n"
            "added, memory, DIMM A1, DIMM A1, RV-16G, -, -, DIMM A1\n"
            "changed, processor, CPU1, CPU1, Wing 9, cores_enabled, 64, 63\n"
            "changed, processor, CPU1, CPU1, Wing 9, threads, 256, 384\n"
            "removed, processor, CPU2, CPU2, Wing 7, -, CPU2, -\n"
            "changed, firmware, BIOS, -, -, version, 2.0, 2.1\n"
            "changed, kernel, kernel, -, kernel, release, 6.1.0, 6.12.9\n"
            "changed, interface, eth0, -, -, mtu, 1500, 9000\n"
            "changed, trace, level, -, file, value, 2, 5\n"
            "changed, registry, HKEY_LOCAL_MACHINE, -, Path, -, /opt/x, /opt/y\n");
  EXPECT_EQ(machine.Json("inventory diff /before /before")["data"].size(), 0U);
  // What was saved as JSON holds no settings, and what older versions saved no memory: it is said.
  machine.WriteFile("/old.json", R"({"schema":"ravctl/inventory","data":{"adapters":[],"drives":[],"volumes":[]}})");
  const nlohmann::json old = machine.Json("inventory diff /old.json /before");
  EXPECT_EQ(
      old["warnings"][0]["what"],
      "not compared: card slots, memory modules, processors, BIOS and system, kernel, network interfaces, trace settings, registry");
  EXPECT_EQ(machine.Json("registry diff /before /after", 1)["data"][0]["value"], "/opt/y");
  EXPECT_EQ(machine.Ravctl("registry diff /before /before/etc/pelrix/registry").status, 0);
}

// However often it looked meanwhile, each change follows from the one before.
TEST(InventoryWatch, TellsEachChange) {
  const ToolRoot machine;
  ServerTree().Install(machine);
  machine.Run(FixtureRoot::kUsr | kNetwork, [] {
    ::alarm(100);
    const auto setMtu = [](bool isLarge) { WriteWholeFile("/sys/class/net/eth7/mtu", isLarge ? "9000\n" : "1500\n"); };
    const auto lines = [] {
      const std::string out = ReadWholeFile("/tmp/out");
      return std::ranges::count(out, '\n');
    };
    setMtu(false);
    EXPECT_EQ(RunRavctl("inventory watch -i 0.1 -n 2").out, "");
    const pid_t watch = StartRavctl("inventory watch -i 0.1 --json");
    for (bool isLarge = true; lines() < 3; isLarge = !isLarge) {
      setMtu(isLarge);
      ::usleep(300000);
    }
    ::kill(watch, SIGINT);
    EXPECT_EQ(WaitForRavctl(watch).status, 0);
  });
  std::istringstream lines(machine.ReadFile("/tmp/out"));
  std::string before;
  for (std::string line; std::getline(lines, line);) {
    const nlohmann::json answer = nlohmann::json::parse(line);
    ExpectValid(answer);
    if (before.empty()) before = answer["data"]["old"];
    EXPECT_EQ(Members(answer["data"], "change kind slot where field old"),
              "changed, interface, 4, eth7, mtu, " + before);
    before = before == "1500" ? "9000" : "1500";
    EXPECT_EQ(answer["data"]["new"], before);
  }
}

TEST(InventoryDiff, SidesThatCannotBeRead) {
  const ToolRoot machine;
  machine.WriteFile("/text", "no inventory");
  machine.WriteFile("/cut.json", "{\"schema\":\"ravctl/inventory\",");
  machine.WriteFile("/other.json", R"({"schema":"ravctl/pci","data":[]})");
  machine.WriteFile("/odd.json", R"({"schema":"ravctl/inventory","data":{"adapters":[7],"drives":[],"volumes":[]}})");
  machine.WriteFile(
      "/bare.json",
      R"({"schema":"ravctl/inventory","data":{"adapters":[{}],"drives":[],"volumes":[{}],"registry":7}})");
  const Fault faults[] = {
      {"/none", 4, "...cannot open: /none..."},
      {"/text", 5, "...the bundle is damaged: /text..."},
      {"/cut.json", 5, "...neither JSON nor a captured tree: /cut.json..."},
      {"/other.json", 5, "...not an inventory: /other.json..."},
      {"/odd.json", 5, "...not an inventory: /odd.json..."},
      {"", 2, "..."},
  };
  ExpectFaults(machine, "inventory diff live", faults);
  EXPECT_EQ(machine.Ravctl("inventory diff live /bare.json").status, 1);
}

}  // namespace
