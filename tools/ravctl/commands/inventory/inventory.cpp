// inventory: adapters, drives and volumes, and how they hang together.

#include <algorithm>
#include <map>
#include <set>

#include "ravctl/answer/json.h"
#include "ravctl/commands/inventory/group.h"
#include "ravctl/hardware/record.h"

namespace ravctl {

namespace {

const Json& FirstOf(const Json& record, std::initializer_list<const char*> keys) {
  static const Json none;
  for (const char* key : keys) {
    if (!record[key].is_null()) return record[key];
  }
  return none;
}

Json AdapterRow(const Json& adapter) {
  return {{"device", FirstOf(adapter, {"address", "name"})},
          {"kind", "adapter"},
          {"type", adapter["class"]},
          {"name", AdapterTitle(adapter)},
          {"driver", Joined(adapter["driver"], adapter["interface"], " ")},
          {"slot", adapter["slot"]},
          {"identity", FirstOf(adapter, {"mac", "wwn"})}};
}

Json DriveRow(const Json& drive) {
  return {{"device", FirstOf(drive, {"device", "id"})},
          {"kind", "drive"},
          {"type", drive["type"]},
          {"name", Joined(drive["vendor"], drive["name"], " ")},
          {"identity", drive["serial"]},
          {"size_kb", drive["size_kb"]}};
}

Json PartitionRow(const Json& partition) {
  return {{"device", partition["device"]}, {"kind", "partition"}, {"size_kb", partition["size_kb"]}};
}

Json VolumeRow(const Json& volume) {
  return {{"device", volume["mount_point"]}, {"kind", "volume"},
          {"type", volume["type"]},          {"name", volume["device"]},
          {"size_kb", volume["size_kb"]},    {"used_percent", volume["used_percent"]}};
}

std::string Key(const Json& value) {
  return value.is_string() ? value.get<std::string>() : "";
}

// Rows by what records below them name; "" is what hangs on nothing.
class TreeBuilder {
 public:
  explicit TreeBuilder(const InventoryRecords& records) {
    std::set<std::string> adapters;
    for (const Json& adapter : records.adapters)
      adapters.insert(Key(adapter["address"]));
    for (const Json& drive : records.drives) {
      const std::string above = Key(drive["adapter"]);
      m_Drives[adapters.contains(above) ? above : ""].push_back(&drive);
    }
    for (const Json& volume : records.volumes)
      PlaceVolume(volume, records.drives);
    for (const Json& adapter : records.adapters)
      AddDrives(Key(adapter["address"]), m_Table.Add(AdapterRow(adapter)));
    AddDrives("", std::nullopt);
    AddVolumes("", std::nullopt);
  }

  const Table& Result() const { return m_Table; }

 private:
  // On each of its partitions and drives.
  void PlaceVolume(const Json& volume, const Json& drives) {
    bool isPlaced = false;
    for (const Json& drive : drives) {
      if (std::ranges::find(volume["drives"], drive["device"]) == volume["drives"].end()) continue;
      isPlaced = true;
      bool isOnPartition = false;
      for (const Json& partition : drive["partitions"]) {
        if (std::ranges::find(volume["on"], partition["device"]) == volume["on"].end()) continue;
        m_Volumes[Key(partition["device"])].push_back(&volume);
        isOnPartition = true;
      }
      if (!isOnPartition) m_Volumes[Key(drive["device"])].push_back(&volume);
    }
    if (!isPlaced) m_Volumes[""].push_back(&volume);
  }

  void AddDrives(const std::string& adapter, std::optional<size_t> parent) {
    if (adapter.empty() && parent) return;  // an ISA device has no address that a drive could name
    for (const Json* drive : m_Drives[adapter]) {
      const size_t row = m_Table.Add(DriveRow(*drive), parent);
      for (const Json& partition : (*drive)["partitions"])
        AddVolumes(Key(partition["device"]), m_Table.Add(PartitionRow(partition), row));
      AddVolumes(Key((*drive)["device"]), row);
    }
  }

  void AddVolumes(const std::string& device, std::optional<size_t> parent) {
    if (device.empty() && parent) return;
    for (const Json* volume : m_Volumes[device])
      m_Table.Add(VolumeRow(*volume), parent);
  }

  Table m_Table{kInventory};
  std::map<std::string, std::vector<const Json*>> m_Drives, m_Volumes;
};

// What matches, what it hangs on and what hangs on it.
class Selection {
 public:
  Selection(const InventoryRecords& records, const RecordFilter& filter) : m_Records(records) {
    for (const Json& adapter : records.adapters)
      Mark(adapter, "address", filter.Matches(adapter), false);
    for (const Json& drive : records.drives)
      Mark(drive, "device", filter.Matches(drive), m_Whole.contains(Key(drive["adapter"])));
    for (const Json& volume : records.volumes)
      Mark(volume, "mount_point", filter.Matches(volume), IsBelow(volume["drives"]));
  }

  InventoryRecords Result() const {
    InventoryRecords kept;
    std::set<std::string> wanted;  // by those below
    Take(m_Records.volumes, "", "drives", kept.volumes, wanted);
    Take(m_Records.drives, "device", "adapter", kept.drives, wanted);
    Take(m_Records.adapters, "address", "", kept.adapters, wanted);
    return kept;
  }

 private:
  bool IsBelow(const Json& drives) const {
    return std::ranges::any_of(drives, [this](const Json& drive) { return m_Whole.contains(Key(drive)); });
  }

  void Mark(const Json& record, const char* key, bool isMatch, bool isBelow) {
    if (!isMatch && !isBelow) return;
    m_Kept.insert(&record);
    if (record[key].is_string()) m_Whole.insert(Key(record[key]));
  }

  void Take(const Json& records, const std::string& key, const std::string& aboveKey, Json& kept,
            std::set<std::string>& wanted) const {
    for (const Json& record : records) {
      if (!m_Kept.contains(&record) && (key.empty() || !wanted.contains(Key(record[key])))) continue;
      kept.push_back(record);
      if (aboveKey.empty()) continue;
      for (const Json& above : record[aboveKey].is_array() ? record[aboveKey] : Json::array({record[aboveKey]}))
        wanted.insert(Key(above));
    }
  }

  const InventoryRecords& m_Records;
  std::set<const Json*> m_Kept;
  std::set<std::string> m_Whole;  // what is kept with all below it
};

ExitCode Run(const InventoryOptions& options, Output& out) {
  // The table does not show what only JSON and a comparison have.
  const unsigned int parts = out.IsJson() ? kAllRecords : kAllRecords & ~kMachineRecords;
  InventoryRecords records = ReadInventory(parts, options.all, out);
  if (!options.filter.IsEmpty()) records = Selection(records, options.filter).Result();
  const TreeBuilder tree(records);
  out.Print(kInventory, tree.Result(), records.ToJson());
  return tree.Result().Size() > 0 ? ExitCode::kDone : ExitCode::kNothingOrDifferent;
}

}  // namespace

Command& AddInventory(Command& root) {
  auto options = std::make_shared<InventoryOptions>();
  Command& inventory = root.Add({"inventory",
                                 "Show the adapters, their drives, and the volumes on them",
                                 {{"ravctl inventory", "everything, as a tree"},
                                  {"ravctl inventory --match nvme", "what matches, with what it hangs on"},
                                  {"ravctl inventory --json > before.json", "to compare with later"}},
                                 Effect::kReads,
                                 "drive inquiries, sizes of volumes, what network drivers say of themselves"},
                                [options](Output& out) { return Run(*options, out); });
  inventory.Answers({&kInventory});
  options->filter.AddMatchOption(inventory);
  AddAllOption(inventory, *options);
  return inventory;
}

}  // namespace ravctl
