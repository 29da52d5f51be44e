// inventory: adapters, drives and volumes, and how they hang together.

#include "ravctl/commands/inventory/group.h"

#include <map>
#include <set>

#include "ravctl/answer/record.h"
#include "ravctl/base/text.h"
#include "ravctl/hardware/inventory_records.h"
#include "ravctl/line/command.h"

namespace ravctl {

namespace {

constexpr unsigned int kFullPercent = 90;
constexpr unsigned int kVeryFullPercent = 98;

struct Options {
  RecordFilter filter;
  bool all = false;
};

std::string Size(const Json& kib) {
  return HumanSize(kib.get<uint64_t>() * 1024);
}

std::string Percent(const Json& percent) {
  return percent.dump() + " %";
}

// Slot 0 is the board itself.
std::string Slot(const Json& slot) {
  return slot == 0 ? "onboard" : slot.dump();
}

Color Fullness(const Json& row) {
  const Json used = row.value("used_percent", Json());
  if (!used.is_number() || used < kFullPercent) return Color::kNone;
  return used < kVeryFullPercent ? Color::kYellow : Color::kRed;
}

std::vector<Column> AdapterColumns() {
  return {{.key = "address", .heading = "ADDRESS"},
          {.key = "class", .heading = "CLASS"},
          {.key = "driver", .heading = "DRIVER"},
          {.key = "interface", .heading = "INTERFACE"},
          {.key = "mac", .heading = "MAC"},
          {.key = "slot", .heading = "SLOT", .format = Slot},
          {.key = "title", .heading = "PRODUCT"},
          {.key = "product", .heading = "PRODUCT NAME", .isUsual = false},
          {.key = "name", .heading = "NAME", .isUsual = false},
          {.key = "vendor", .heading = "VENDOR", .isUsual = false},
          {.key = "permanent_mac", .heading = "PERMANENT MAC", .isUsual = false},
          {.key = "wwn", .heading = "WWN", .isUsual = false},
          {.key = "id", .heading = "ID", .isUsual = false},
          {.key = "vendor_id", .heading = "VENDOR ID", .isUsual = false},
          {.key = "device_id", .heading = "DEVICE ID", .isUsual = false},
          {.key = "subvendor_id", .heading = "SUBVENDOR ID", .isUsual = false},
          {.key = "subdevice_id", .heading = "SUBDEVICE ID", .isUsual = false},
          {.key = "revision", .heading = "REVISION", .isUsual = false},
          {.key = "base_class", .heading = "BASE CLASS", .isUsual = false},
          {.key = "sub_class", .heading = "SUB CLASS", .isUsual = false},
          {.key = "driver_version", .heading = "DRIVER VERSION", .isUsual = false},
          {.key = "firmware", .heading = "FIRMWARE", .isUsual = false},
          {.key = "irq", .heading = "IRQ", .isRight = true, .isUsual = false},
          {.key = "ports", .heading = "PORTS", .isUsual = false},
          {.key = "memory", .heading = "MEMORY", .isUsual = false}};
}

std::vector<Column> DriveColumns() {
  return {{.key = "device", .heading = "DEVICE"},
          {.key = "type", .heading = "TYPE"},
          {.key = "bus", .heading = "BUS"},
          {.key = "vendor", .heading = "VENDOR"},
          {.key = "name", .heading = "NAME"},
          {.key = "revision", .heading = "REVISION"},
          {.key = "serial", .heading = "SERIAL"},
          {.key = "adapter", .heading = "ADAPTER"},
          {.key = "scsi", .heading = "SCSI"},
          {.key = "number", .heading = "NUMBER", .isRight = true, .isUsual = false},
          {.key = "os_device", .heading = "OS DEVICE", .isUsual = false},
          {.key = "id", .heading = "ID", .isUsual = false},
          {.key = "is_disk", .heading = "DISK", .isUsual = false},
          {.key = "is_removable", .heading = "REMOVABLE", .isUsual = false},
          {.key = "is_hotplug", .heading = "HOTPLUG", .isUsual = false},
          {.key = "is_multipath", .heading = "MULTIPATH", .isUsual = false}};
}

std::vector<Column> VolumeColumns() {
  return {{.key = "mount_point", .heading = "MOUNT POINT"},
          {.key = "device", .heading = "DEVICE"},
          {.key = "type", .heading = "TYPE"},
          {.key = "size_kb", .heading = "SIZE", .isRight = true, .format = Size},
          {.key = "available_kb", .heading = "AVAILABLE", .isRight = true, .format = Size},
          {.key = "used_percent", .heading = "USED", .isRight = true, .format = Percent, .color = Fullness},
          {.key = "kind", .heading = "KIND"},
          {.key = "drive", .heading = "DRIVE"},
          {.key = "blocks", .heading = "BLOCKS", .isRight = true, .isUsual = false},
          {.key = "available_blocks", .heading = "AVAILABLE BLOCKS", .isRight = true, .isUsual = false},
          {.key = "block_size", .heading = "BLOCK SIZE", .isRight = true, .isUsual = false},
          {.key = "type_flags", .heading = "TYPE FLAGS", .isRight = true, .isUsual = false},
          {.key = "source", .heading = "SOURCE", .isUsual = false}};
}

Json WithoutKernelVolumes(const Json& volumes) {
  Json kept = Json::array();
  for (const Json& volume : volumes) {
    if (!IsKernelVolume(volume)) kept.push_back(volume);
  }
  return kept;
}

InventoryRecords Read(unsigned int parts, bool allVolumes, Output& out) {
  InventoryRecords records = ReadInventory(parts);
  WarnAboutRights(records, out);
  if (!allVolumes) records.volumes = WithoutKernelVolumes(records.volumes);
  return records;
}

ExitCode Done(bool isFound) {
  return isFound ? ExitCode::kDone : ExitCode::kNothingOrDifferent;
}

// ---- one kind

std::string Joined(const Json& first, const Json& second, const char* separator) {
  const std::string left = first.is_string() ? first.get<std::string>() : "";
  const std::string right = second.is_string() ? second.get<std::string>() : "";
  return left.empty() || right.empty() ? left + right : left + separator + right;
}

const Json& FirstOf(const Json& record, std::initializer_list<const char*> keys) {
  static const Json none;
  for (const char* key : keys) {
    if (!record[key].is_null()) return record[key];
  }
  return none;
}

// The product, else what kind of function it is with its IDs, else the name of an ISA device.
Json AdapterTitle(const Json& adapter) {
  if (!adapter["product"].is_null()) return Joined(adapter["vendor"], adapter["product"], " ");
  if (adapter["vendor_id"].is_null()) return adapter["name"];
  return Joined(adapter["sub_class"], Joined(adapter["vendor_id"], adapter["device_id"], ":"), " ");
}

ExitCode PrintList(const Schema& schema, std::vector<Column> columns, const Json& records, Output& out) {
  Table table(std::move(columns));
  for (const Json& record : records)
    table.Add(record);
  out.Print(schema, table);
  return Done(table.Size() > 0);
}

ExitCode RunAdapters(const Options& options, Output& out) {
  const Json adapters = options.filter.Select(Read(kAdapterRecords, true, out).adapters);
  Table table(AdapterColumns());
  for (const Json& adapter : adapters) {
    Json row = adapter;
    row["title"] = AdapterTitle(adapter);
    table.Add(std::move(row));
  }
  out.Print({"inventory-adapters"}, table, adapters);
  return Done(table.Size() > 0);
}

ExitCode RunDrives(const Options& options, Output& out) {
  const InventoryRecords records = Read(kDriveRecords, true, out);
  return PrintList({"inventory-drives"}, DriveColumns(), options.filter.Select(records.drives), out);
}

ExitCode RunVolumes(const Options& options, Output& out) {
  InventoryRecords records = Read(kVolumeRecords, options.all, out);
  return PrintList({"inventory-volumes"}, VolumeColumns(), options.filter.Select(records.volumes), out);
}

// ---- everything

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
          {"identity", drive["serial"]}};
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
    std::set<std::string> adapters, drives;
    for (const Json& adapter : records.adapters)
      adapters.insert(Key(adapter["address"]));
    for (const Json& drive : records.drives) {
      drives.insert(Key(drive["device"]));
      const std::string above = Key(drive["adapter"]);
      m_Drives[adapters.contains(above) ? above : ""].push_back(&drive);
    }
    for (const Json& volume : records.volumes) {
      const std::string above = Key(volume["drive"]);
      m_Volumes[drives.contains(above) ? above : ""].push_back(&volume);
    }
    for (const Json& adapter : records.adapters)
      AddDrives(Key(adapter["address"]), m_Table.Add(AdapterRow(adapter)));
    AddDrives("", std::nullopt);
    AddVolumes("", std::nullopt);
  }

  const Table& Result() const { return m_Table; }

 private:
  void AddDrives(const std::string& adapter, std::optional<size_t> parent) {
    if (adapter.empty() && parent) return;  // an ISA device has no address that a drive could name
    for (const Json* drive : m_Drives[adapter])
      AddVolumes(Key((*drive)["device"]), m_Table.Add(DriveRow(*drive), parent));
  }

  void AddVolumes(const std::string& drive, std::optional<size_t> parent) {
    if (drive.empty() && parent) return;
    for (const Json* volume : m_Volumes[drive])
      m_Table.Add(VolumeRow(*volume), parent);
  }

  Table m_Table{{{.key = "device", .heading = "DEVICE"},
                 {.key = "kind", .heading = "KIND"},
                 {.key = "type", .heading = "TYPE"},
                 {.key = "driver", .heading = "DRIVER"},
                 {.key = "slot", .heading = "SLOT", .format = Slot},
                 {.key = "identity", .heading = "MAC/WWN/SERIAL"},
                 {.key = "size_kb", .heading = "SIZE", .isRight = true, .format = Size},
                 {.key = "used_percent", .heading = "USED", .isRight = true, .format = Percent, .color = Fullness},
                 {.key = "name", .heading = "NAME"}}};
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
      Mark(volume, "mount_point", filter.Matches(volume), m_Whole.contains(Key(volume["drive"])));
  }

  InventoryRecords Result() const {
    InventoryRecords kept;
    std::set<std::string> wanted;  // by those below
    Take(m_Records.volumes, "", "drive", kept.volumes, wanted);
    Take(m_Records.drives, "device", "adapter", kept.drives, wanted);
    Take(m_Records.adapters, "address", "", kept.adapters, wanted);
    return kept;
  }

 private:
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
      if (!aboveKey.empty() && record[aboveKey].is_string()) wanted.insert(Key(record[aboveKey]));
    }
  }

  const InventoryRecords& m_Records;
  std::set<const Json*> m_Kept;
  std::set<std::string> m_Whole;  // what is kept with all below it
};

ExitCode RunAll(const Options& options, Output& out) {
  InventoryRecords records = Read(kAllRecords, options.all, out);
  if (!options.filter.IsEmpty()) records = Selection(records, options.filter).Result();
  const TreeBuilder tree(records);
  out.Print({"inventory"}, tree.Result(), records.ToJson());
  return Done(tree.Result().Size() > 0);
}

void AddAllOption(CLI::App& command, Options& options) {
  command.add_flag("-a,--all", options.all, "The file systems of the kernel too, such as proc and sysfs");
}

constexpr const char* kLiveOnly = "drive inquiries, sizes of volumes, what network drivers say of themselves";

CLI::App& AddList(CLI::App& inventory, const CommandText& text, ExitCode (*run)(const Options&, Output&),
                  const std::shared_ptr<Options>& options) {
  CLI::App& command = AddCommand(inventory, text, [options, run](Output& out) { return run(*options, out); });
  options->filter.AddMatchOption(command);
  return command;
}

void AddAdapters(CLI::App& inventory) {
  auto options = std::make_shared<Options>();
  CLI::App& command =
      AddList(inventory,
              {"adapters",
               "List the adapters: PCI functions but for bridges, and ISA devices",
               {{"ravctl inventory adapters --class net -o address,interface,mac,firmware", "the network adapters"},
                {"ravctl inventory adapters --driver 'mpt*' --driver megaraid_sas", "two families of controllers"}},
               Effect::kReads,
               "what network drivers say of themselves"},
              RunAdapters, options);
  options->filter.AddOption(command, "--class", "class", "Only this class: net, SCSIAdapter, Display...");
  options->filter.AddOption(command, "--driver", "driver", "Only with this kernel driver");
  options->filter.AddOption(command, "--interface", "interface", "Only with this network interface");
  options->filter.AddOption(command, "--address", "address", "Only at this PCI address: 0000:02:00.0, *:02:*");
  options->filter.AddOption(command, "--slot", "slot", "Only in this slot; 0 is the board itself");
  options->filter.AddOption(command, "--vendor", "vendor_id", "Only of this vendor: 8086");
}

void AddDrives(CLI::App& inventory) {
  auto options = std::make_shared<Options>();
  CLI::App& command = AddList(inventory,
                              {"drives",
                               "List the drives: SCSI devices, Fusion-io cards and NVMe disks",
                               {{"ravctl inventory drives --type disk -o device,serial", "serial numbers of the disks"},
                                {"ravctl inventory drives --adapter 0000:18:00.0", "what one controller has"}},
                               Effect::kReads,
                               "drive inquiries"},
                              RunDrives, options);
  options->filter.AddOption(command, "--type", "type", "Only this type: disk, cdrom, optical, tape, other");
  options->filter.AddOption(command, "--bus", "bus", "Only on this bus: SCSI, SAS...");
  options->filter.AddOption(command, "--vendor", "vendor", "Only of this vendor");
  options->filter.AddOption(command, "--serial", "serial", "Only with this serial number");
  options->filter.AddOption(command, "--adapter", "adapter", "Only at the adapter with this PCI address");
}

void AddVolumes(CLI::App& inventory) {
  auto options = std::make_shared<Options>();
  CLI::App& command =
      AddList(inventory,
              {"volumes",
               "List the mounted file systems",
               {{"ravctl inventory volumes --kind local", "those on the disks of this machine"},
                {"ravctl inventory volumes --json | jq '.data[] | select(.used_percent > 90)'", "those that run full"}},
               Effect::kReads,
               "sizes of volumes"},
              RunVolumes, options);
  AddAllOption(command, *options);
  options->filter.AddOption(command, "--type", "type", "Only this type of file system: ext4, xfs...");
  options->filter.AddOption(command, "--kind", "kind", "Only this kind: local, fat, network, optical, memory, other");
  options->filter.AddOption(command, "--device", "device", "Only from this device");
  options->filter.AddOption(command, "--drive", "drive", "Only on this drive: /dev/sda");
}

}  // namespace

void RegisterInventory(CLI::App& root) {
  auto options = std::make_shared<Options>();
  CLI::App& inventory = AddCommand(root,
                                   {"inventory",
                                    "Show the adapters, their drives, and the volumes on them",
                                    {{"ravctl inventory", "everything, as a tree"},
                                     {"ravctl inventory --match nvme", "what matches, with what it hangs on"},
                                     {"ravctl inventory --json > before.json", "to compare with later"}},
                                    Effect::kReads,
                                    kLiveOnly},
                                   [options](Output& out) { return RunAll(*options, out); });
  options->filter.AddMatchOption(inventory);
  AddAllOption(inventory, *options);
  AddAdapters(inventory);
  AddDrives(inventory);
  AddVolumes(inventory);
  AddInventoryDiff(inventory);
}

}  // namespace ravctl
