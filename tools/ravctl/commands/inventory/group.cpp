// What the commands of the inventory share.

#include "ravctl/commands/inventory/group.h"

#include <map>

#include "ravctl/answer/json.h"
#include "ravctl/base/text.h"
#include "ravctl/tree/enter.h"
#include "ravctl/tree/live_answers.h"

namespace ravctl {

namespace {

constexpr size_t kLongestText = 120;  // bytes
constexpr std::string_view kGap = "...";
constexpr unsigned int kFullPercent = 90;
constexpr unsigned int kVeryFullPercent = 98;

std::string PlaceOf(const Json& record, const char* place, const char* otherPlace) {
  return record[place].dump(-1, ' ', false, Json::error_handler_t::replace) +
         record[otherPlace].dump(-1, ' ', false, Json::error_handler_t::replace);
}

// What is not known from the files of the tree and was captured. The two places tell which record it is of.
void FillIn(const Schema& schema, const char* place, const char* otherPlace, Json& records) {
  std::optional<Json> captured = records.empty() ? std::nullopt : FindCapturedAnswer(schema);
  if (!captured) return;
  std::map<std::string, Json*> byPlace;
  for (Json& record : *captured)
    byPlace.emplace(PlaceOf(record, place, otherPlace), &record);
  for (Json& record : records) {
    const auto found = byPlace.find(PlaceOf(record, place, otherPlace));
    if (found == byPlace.end()) continue;
    Json& known = *found->second;
    for (auto& [key, value] : record.items()) {
      if (!value.is_null() || known[key].is_null()) continue;
      value = known[key];
      if (known["sources"].contains(key)) record["sources"][key] = known["sources"][key];
    }
  }
}

}  // namespace

void AddAllOption(Command& command, InventoryOptions& options) {
  command.AddFlag("-a,--all", &options.all, "Also the kernel's file systems, such as proc, and unknown ISA devices");
}

InventoryRecords ReadRecords(unsigned int parts) {
  InventoryRecords records = ReadInventory(parts);
  if (!IsInSysroot()) return records;
  FillIn(kInventoryAdapters, "address", "name", records.adapters);
  FillIn(kInventoryDrives, "device", "scsi", records.drives);
  FillIn(kInventoryVolumes, "mount_point", "device", records.volumes);
  return records;
}

Json ReadInventoryAdapters() {
  return ReadInventory(kAdapterRecords).adapters;
}

Json ReadInventoryDrives() {
  return ReadInventory(kDriveRecords).drives;
}

Json ReadInventoryVolumes() {
  return ReadInventory(kVolumeRecords).volumes;
}

InventoryRecords ReadInventory(unsigned int parts, bool all, Output& out) {
  InventoryRecords records = ReadRecords(parts);
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
