#include "ravctl/hardware/machine_records.h"

#include <unistd.h>

#include <algorithm>
#include <array>
#include <string>
#include <vector>

#include "platform/directory.h"
#include "platform/file.h"
#include "ravctl/hardware/pci_sysfs.h"
#include "ravctl/hardware/record.h"
#include "ravctl/hardware/slot_records.h"
#include "ravctl/hardware/smbios_image.h"
#include "ravctl/hardware/smbios_names.h"

namespace ravctl {

namespace {

constexpr const char* kKernelRelease = "/proc/sys/kernel/osrelease";
constexpr const char* kInterfaces = "/sys/class/net";
constexpr const char* kLoopback = "lo";

struct FieldRow {
  const char* key;
  const char* field;           // of DecodeSmbiosFields
  const char* wide = nullptr;  // that counts where it is there: the other one is too small for its value
};

struct StructureRow {
  uint8_t type;
  const char* list;
  const char* what;    // names the record where there is one of it; null elsewhere
  const char* isGone;  // begins the value of the last field where nothing is there; null: always there
  std::vector<FieldRow> fields;
};

const std::vector<StructureRow>& Structures() {
  static const std::vector<StructureRow> rows = {
      {0,
       "firmware",
       "BIOS",
       nullptr,
       {{"vendor", "Vendor"}, {"version", "Version"}, {"date", "Release Date"}, {"release", "Firmware Release"}}},
      {1,
       "firmware",
       "system",
       nullptr,
       {{"vendor", "Manufacturer"},
        {"product", "Product Name"},
        {"version", "Version"},
        {"serial", "Serial Number"},
        {"uuid", "UUID"}}},
      {2,
       "firmware",
       "board",
       nullptr,
       {{"vendor", "Manufacturer"}, {"product", "Product Name"}, {"version", "Version"}, {"serial", "Serial Number"}}},
      {3,
       "firmware",
       "chassis",
       nullptr,
       {{"vendor", "Manufacturer"}, {"version", "Version"}, {"serial", "Serial Number"}, {"asset_tag", "Asset Tag"}}},
      {4,
       "processors",
       nullptr,
       "Socket empty",
       {{"socket", "Socket"},
        {"vendor", "Manufacturer"},
        {"version", "Version"},
        {"serial", "Serial Number"},
        {"cores", "Cores", "Cores (16 bit)"},
        {"cores_enabled", "Cores Enabled", "Cores Enabled (16 bit)"},
        {"threads", "Threads", "Threads (16 bit)"},
        {"maximum_speed", "Maximum Speed"},
        {"status", "Status"}}},
      {17,
       "memory",
       nullptr,
       "No module installed",
       {{"locator", "Locator"},
        {"bank", "Bank Locator"},
        {"type", "Type"},
        {"speed", "Speed"},
        {"configured_speed", "Configured Speed"},
        {"vendor", "Manufacturer"},
        {"part_number", "Part Number"},
        {"serial", "Serial Number"},
        {"size", "Size"}}},
  };
  return rows;
}

Json StructureRecord(const SmbiosStructure& structure, const StructureRow& row) {
  const std::vector<SmbiosField> fields = DecodeSmbiosFields(structure);
  Json record;
  if (row.what != nullptr) record["what"] = row.what;
  const auto value = [&fields](const char* name) {
    const auto field = std::ranges::find(fields, name, &SmbiosField::name);
    return field == fields.end() ? Json() : TextOrNull(field->value);
  };
  for (const FieldRow& each : row.fields) {
    const Json wide = each.wide == nullptr ? Json() : value(each.wide);
    record[each.key] = wide.is_null() ? value(each.field) : wide;
  }
  return record;
}

bool IsThere(const Json& record, const StructureRow& row) {
  const Json& last = record.back();
  return row.isGone == nullptr || !last.is_string() || !last.get_ref<const std::string&>().starts_with(row.isGone);
}

void AddStructures(Json& machine) {
  SmbiosImage image;
  if (!FindSmbiosImage(image)) return;
  for (const char* list : {"firmware", "processors", "memory"})
    machine[list] = Json::array();
  for (const SmbiosStructure& structure : image.structures) {
    const auto row = std::ranges::find(Structures(), structure.type, &StructureRow::type);
    if (row == Structures().end()) continue;
    Json record = StructureRecord(structure, *row);
    if (IsThere(record, *row)) machine[row->list].push_back(std::move(record));
  }
  machine["slots"] = ReadSlotRecords(false);
}

Json InterfaceRecords() {
  if (::access(kInterfaces, F_OK) != 0) return nullptr;
  std::vector<std::string> names;
  CDirectory::GetDirectoryContent(names, kInterfaces, false);
  std::ranges::sort(names);
  Json records = Json::array();
  for (const std::string& name : names) {
    const std::string path = std::string(kInterfaces) + "/" + name;
    if (name == kLoopback || ::access((path + "/address").c_str(), F_OK) != 0) continue;
    const auto place = InterfacePlace(name);
    records.push_back({{"name", name},
                       {"mac", TextOrNull(ReadAttribute(path + "/address"))},
                       {"mtu", TextOrNull(ReadAttribute(path + "/mtu"))},
                       {"address", place ? Json(place->Text()) : Json()}});
  }
  return records;
}

}  // namespace

Json ReadMachineRecords() {
  Json machine = {{"firmware", nullptr}, {"processors", nullptr}, {"memory", nullptr},
                  {"slots", nullptr},    {"interfaces", nullptr}, {"kernel", nullptr}};
  AddStructures(machine);
  machine["interfaces"] = InterfaceRecords();
  const std::string release = ReadAttribute(kKernelRelease);
  if (!release.empty()) machine["kernel"] = Json::array({{{"what", "kernel"}, {"release", release}}});
  return machine;
}

}  // namespace ravctl
