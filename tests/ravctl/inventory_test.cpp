// The inventory commands over made-up machines.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "ravctl/tool_machine.h"

namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using Arguments = std::vector<std::string>;

constexpr auto kNetwork = FixtureRoot::kNetwork;

TEST(Inventory, TreeLinksAdaptersDrivesAndVolumes) {
  const ToolRoot machine;
  ServerTree().Install(machine);
  const ToolResult result = machine.Ravctl({"inventory", "-o", "device,kind,slot,identity,name"}, {}, kNetwork);
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

  const nlohmann::json data = machine.Json({"inventory", "--all"}, 0, {}, kNetwork)["data"];
  EXPECT_THAT(Values(data["adapters"], "driver"), ElementsAre("igb", "megaraid_sas", "nvme"));
  EXPECT_THAT(Values(data["drives"], "type"), ElementsAre("disk", "tape", "disk"));
  EXPECT_THAT(Values(data["drives"], "adapter"), ElementsAre("0000:18:00.0", "-", "0000:5e:00.0"));
  EXPECT_THAT(Values(data["volumes"], "drive"), ElementsAre("/dev/sda", "/dev/nvme0n1", "-", "-"));
}

TEST(Inventory, FiltersKeepWhatMatchesAndWhatItHangsOn) {
  struct Row {
    Arguments arguments;
    const char* key;
    std::vector<std::string> values;
  };
  const Row rows[] = {
      {{"adapters", "--class", "NET", "--class", "scsi*"}, "address", {"0000:17:00.0", "0000:18:00.0"}},
      {{"adapters", "--driver", "mega"}, "address", {}},
      {{"adapters", "--slot", "4"}, "interface", {"eth7"}},
      {{"adapters", "-m", "quad"}, "vendor", {"Kestrel"}},
      {{"drives", "--adapter", "*:18:*"}, "scsi", {"0:2:0:0"}},
      {{"drives", "--type", "tape", "--vendor", "kestrel"}, "device", {"/dev/nst0"}},
      {{"volumes", "--drive", "/dev/sda"}, "mount_point", {"/system"}},
      {{"volumes", "--type", "proc"}, "mount_point", {}},
      {{"volumes", "--type", "proc", "--all"}, "mount_point", {"/proc"}},
      {{"volumes", "--kind", "local", "-m", "/d*"}, "mount_point", {"/system", "/data", "/other"}},
  };
  const ToolRoot machine;
  ServerTree().Install(machine);
  for (const Row& row : rows) {
    Arguments arguments = row.arguments;
    arguments.insert(arguments.begin(), "inventory");
    const nlohmann::json answer = machine.Json(arguments, row.values.empty() ? 1 : 0, {}, kNetwork);
    EXPECT_EQ(Values(answer["data"], row.key), row.values) << row.arguments[0] << ' ' << row.arguments[2];
  }
  EXPECT_EQ(machine.Ravctl({"inventory", "-m", "RAVEN", "-o", "device", "--no-headings"}).out,
            "0000:18:00.0\n└─/dev/sda\n  └─/system\n");
  EXPECT_EQ(machine.Ravctl({"inventory", "-m", "nvme0n1p2", "-o", "device", "--no-headings"}).out,
            "0000:5e:00.0\n└─/dev/nvme0n1\n  └─/data\n");
}

TEST(Inventory, BareMachineAndCapturedTree) {
  const ToolRoot machine;
  EXPECT_EQ(machine.Ravctl({"inventory"}).status, 1);
  ServerTree().Install(machine, "/captured");
  nlohmann::json answer = machine.Json({"inventory", "--sysroot", "/captured"});
  EXPECT_THAT(answer["warnings"][0]["where"].get<std::string>(), HasSubstr("drive inquiries"));
  const ToolRoot live;
  ServerTree().Install(live);
  EXPECT_EQ(answer["data"], live.Json({"inventory"}, 0, {}, kNetwork)["data"]);
}

}  // namespace
