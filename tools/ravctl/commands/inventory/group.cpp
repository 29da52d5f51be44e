// What the commands of the inventory share.

#include "ravctl/commands/inventory/group.h"

#include "ravctl/answer/json.h"
#include "ravctl/base/text.h"

namespace ravctl {

namespace {

constexpr unsigned int kFullPercent = 90;
constexpr unsigned int kVeryFullPercent = 98;

}  // namespace

void AddAllVolumesOption(Command& command, InventoryOptions& options) {
  command.AddFlag("-a,--all", &options.all, "The file systems of the kernel too, such as proc and sysfs");
}

InventoryRecords ReadInventory(unsigned int parts, bool allVolumes, Output& out) {
  InventoryRecords records = ReadInventory(parts);
  WarnAboutRights(records, out);
  if (!allVolumes) records.volumes = WithoutKernelVolumes(records.volumes);
  return records;
}

Json WithoutKernelVolumes(const Json& volumes) {
  Json kept = Json::array();
  for (const Json& volume : volumes) {
    if (!IsKernelVolume(volume)) kept.push_back(volume);
  }
  return kept;
}

std::string Joined(const Json& first, const Json& second, const char* separator) {
  const std::string left = first.is_string() ? first.get<std::string>() : "";
  const std::string right = second.is_string() ? second.get<std::string>() : "";
  return left.empty() || right.empty() ? left + right : left + separator + right;
}

Json AdapterTitle(const Json& adapter) {
  if (!adapter["product"].is_null()) return Joined(adapter["vendor"], adapter["product"], " ");
  if (adapter["vendor_id"].is_null()) return adapter["name"];
  return Joined(adapter["sub_class"], Joined(adapter["vendor_id"], adapter["device_id"], ":"), " ");
}

std::string KibText(const Json& kib) {
  return HumanSize(kib.get<uint64_t>() * 1024);
}

std::string PercentText(const Json& percent) {
  return percent.dump() + " %";
}

Color FullnessColor(const Json& row) {
  const Json used = row.value("used_percent", Json());
  if (!used.is_number() || used < kFullPercent) return Color::kNone;
  return used < kVeryFullPercent ? Color::kYellow : Color::kRed;
}

}  // namespace ravctl
