// What the commands of the inventory share.

#include "ravctl/commands/inventory/group.h"

#include "ravctl/answer/json.h"
#include "ravctl/base/text.h"

namespace ravctl {

namespace {

constexpr size_t kLongestText = 120;  // bytes
constexpr std::string_view kGap = "...";
constexpr unsigned int kFullPercent = 90;
constexpr unsigned int kVeryFullPercent = 98;

}  // namespace

void AddAllOption(Command& command, InventoryOptions& options) {
  command.AddFlag("-a,--all", &options.all, "Also the kernel's file systems, such as proc, and unknown ISA devices");
}

InventoryRecords ReadInventory(unsigned int parts, bool all, Output& out) {
  InventoryRecords records = ReadInventory(parts);
  WarnAboutRights(records, out);
  if (!all) records.volumes = WithoutKernelVolumes(records.volumes);
  if (!all) records.adapters = WithoutUnknownDevices(records.adapters);
  return records;
}

Json WithoutUnknownDevices(const Json& adapters) {
  Json kept = Json::array();
  for (const Json& adapter : adapters) {
    if (adapter.value("is_known", true)) kept.push_back(adapter);
  }
  return kept;
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

std::string LineText(const Json& text) {
  constexpr auto isInside = [](char byte) { return (static_cast<unsigned char>(byte) & 0xC0) == 0x80; };  // of UTF-8
  const std::string& whole = text.get_ref<const std::string&>();
  if (whole.size() <= kLongestText) return whole;
  size_t head = (kLongestText - kGap.size()) / 2, tail = whole.size() - head;
  while (head > 0 && isInside(whole[head]))
    --head;
  while (tail < whole.size() && isInside(whole[tail]))
    ++tail;
  return whole.substr(0, head) + std::string(kGap) + whole.substr(tail);
}

std::string KibText(const Json& kib) {
  return HumanSize(kib.get<uint64_t>() * 1024);
}

std::string PercentText(const Json& percent) {
  return percent.dump() + " %";
}

Color FullnessColor(const Json& percent) {
  return percent < kFullPercent ? Color::kNone : percent < kVeryFullPercent ? Color::kYellow : Color::kRed;
}

}  // namespace ravctl
