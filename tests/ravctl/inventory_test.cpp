// The inventory commands over made-up machines.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <tuple>

#include "ravctl/tool_machine.h"

namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;

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
            "0000:18:00.0   adapter 3    -                 RAID controller 1000:0016\n"
            "└─/dev/sda     drive   -    -                 RAVEN RAID 5 Volume\n"
            "  └─/system    volume  -    -                 /dev/sda1\n"
            "0000:5e:00.0   adapter -    -                 Mass storage controller 144d:a808\n"
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
  after.Add("0000:5e:00.0", 0x144DA808, 0x010802, "nvme", {.revision = 2});
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
  EXPECT_EQ(trees.out,
            "moved   adapter 0000:19:00.0 eth8 0000:19:00.0 address     0000:17:00.0 0000:19:00.0\n"
            "changed adapter 0000:19:00.0 eth8 0000:19:00.0 interface   eth7         eth8\n"
            "changed adapter 0000:19:00.0 eth8 0000:19:00.0 slot        4            -\n"
            "changed adapter 0000:5e:00.0 nvme 0000:5e:00.0 revision    00           02\n"
            "removed drive   /dev/nvme0n1 -                 -           /dev/nvme0n1 -\n"
            "added   drive   0:2:1:0      RAID 1 Volume     -           -            0:2:1:0\n"
            "changed volume  /system      /dev/sda1         type        ext4         xfs\n"
            "moved   volume  /elsewhere   /dev/sdaa1        mount_point /other       /elsewhere\n"
            "removed volume  /data        /dev/nvme0n1p2    -           /data        -\n");
  for (const char* from : {"live", "-", "/before.json"})
    EXPECT_EQ(machine.Ravctl({"inventory", "diff", from, "/after", "--no-headings"}, {}, kNetwork).out, trees.out);
  EXPECT_EQ(machine.Json("inventory diff /after /before", 1)["data"].size(), 9U);
  ASSERT_EQ(machine.Ravctl("bundle /bundle.tar.gz", {}, kNetwork).status, 0);
  EXPECT_EQ(machine.Ravctl("inventory diff /bundle.tar.gz /after --no-headings").out, trees.out);
}

TEST(InventoryDiff, SidesThatCannotBeRead) {
  const ToolRoot machine;
  machine.WriteFile("/text", "no inventory");
  machine.WriteFile("/cut.json", "{\"schema\":\"ravctl/inventory\",");
  machine.WriteFile("/other.json", R"({"schema":"ravctl/pci","data":[]})");
  machine.WriteFile("/odd.json", R"({"schema":"ravctl/inventory","data":{"adapters":[7],"drives":[],"volumes":[]}})");
  machine.WriteFile("/bare.json",
                    R"({"schema":"ravctl/inventory","data":{"adapters":[{}],"drives":[],"volumes":[{}]}})");
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
