// What the answers of the inventory commands hold.

#include <algorithm>
#include <array>

#include "ravctl/answer/json.h"
#include "ravctl/commands/inventory/group.h"
#include "ravctl/hardware/record.h"
#include "ravctl/hardware/slot_records.h"

namespace ravctl {

namespace {

constexpr Type kHardwareAddress = OrNull(Like("^([0-9a-f]{2}:)*[0-9a-f]{2}$"));
constexpr Type kId = OrNull(Like("^[0-9a-f]{4}$"));

Color ChangeColor(const Json& change) {
  if (change == "added") return Color::kGreen;
  if (change == "removed") return Color::kRed;
  return change == "moved" ? Color::kBlue : Color::kYellow;
}

}  // namespace

constexpr auto kFcHostFields = std::to_array<Field>({
    {"host", kText, "name of the port in the kernel"},
    {"port_name", kTextOrNull, "worldwide name of the port"},
    {"node_name", kTextOrNull, "worldwide name of the node"},
});

constexpr auto kAdapterFields = std::to_array<Field>({
    {"address", OrNull(kPciAddress), "PCI address; null for an ISA device"},
    {"class", kTextOrNull, "what it is for: net, SCSIAdapter, Display"},
    {"driver", kTextOrNull, "kernel driver"},
    {"interface", kTextOrNull, "network interface"},
    {"mac", kHardwareAddress, "hardware address of the interface"},
    {"slot", kCountOrNull, "number of the slot; 0 is the board itself", {.format = SlotText, .isWord = true}},
    {"title",
     kTextOrNull,
     "maker and product, else what kind of device it is",
     {.heading = "PRODUCT", .where = Where::kTable}},
    {"product", kTextOrNull, "name of the product", {"PRODUCT NAME", false}},
    {"name", kTextOrNull, "name of the record", kOnRequest},
    {"vendor", kTextOrNull, "name of the maker", kOnRequest},
    {"subsystem", kTextOrNull, "name of the card", kOnRequest},
    {"names_from", OrNull(Choice("Adapter.ini|pci.ids")), "where the names are from", kOnRequest},
    {"permanent_mac", kHardwareAddress, "hardware address that the card was made with", kOnRequest},
    {"wwn", kHardwareAddress, "worldwide name of a Fibre Channel port", kOnRequest},
    {"id", kTextOrNull, "what the library calls it", kOnRequest},
    {"vendor_id", kId, "number of the maker", kOnRequest},
    {"device_id", kId, "the maker's number of the device", kOnRequest},
    {"subvendor_id", kId, "number of the maker of the card", kOnRequest},
    {"subdevice_id", kId, "that maker's number of the card", kOnRequest},
    {"revision", OrNull(Like("^[0-9a-f]{2}$")), "revision of the device", kOnRequest},
    {"base_class", kTextOrNull, "base class of the PCI function", kOnRequest},
    {"sub_class", kTextOrNull, "sub-class of the PCI function", kOnRequest},
    {"driver_version", kTextOrNull, "version that the driver tells", kOnRequest},
    {"firmware", kTextOrNull, "version of the firmware that the driver tells", kOnRequest},
    {"irq", kCountOrNull, "interrupt", kOnRequest},
    {"ports", kTexts, "ranges of ports", kOnRequest},
    {"memory", kTexts, "ranges of memory", kOnRequest},
    {"ranges_from", OrNull(Choice("kernel|registers")),
     "where ports and memory are from: what the kernel set up, or the registers by the library's rule", kOnRequest},
    {"interfaces", kTexts, "all network interfaces of the function, the same first", kOnRequest},
    {"fc_hosts", ListOf(kFcHostFields), "its Fibre Channel ports", kInJson},
    {"is_known", kBoolean, "false for an ISA device that no table knows", {"KNOWN", false}},
});
constexpr Schema kInventoryAdapters = {"inventory-adapters", 1, ListOf(kAdapterFields)};

constexpr auto kPartitionFields = std::to_array<Field>({
    {"device", kText, "device node"},
    {"size_kb", kCountOrNull, "size in KiB"},
});
constexpr auto kSourceFields = std::to_array<Field>({
    {"*", Choice("library|sysfs|udev|pci.ids"), "where the value of that key is from"},
});

constexpr auto kDriveFields = std::to_array<Field>({
    {"device", kTextOrNull, "device node"},
    {"type", Choice("disk|cdrom|optical|tape|other"), "what kind of drive it is"},
    {"bus", kTextOrNull, "how it is attached"},
    {"vendor", kTextOrNull, "name of the maker"},
    {"name", kTextOrNull, "name of the model"},
    {"revision", kTextOrNull, "revision of its firmware"},
    {"serial", kTextOrNull, "serial number"},
    {"size_kb", kCountOrNull, "size in KiB", {.heading = "SIZE", .format = KibText}},
    {"adapter", OrNull(kPciAddress), "PCI address of the adapter that it is attached to"},
    {"scsi", OrNull(Like("^[0-9]+:[0-9]+:[0-9]+:[0-9]+$")), "host, channel, target and unit"},
    {"number", kInteger, "number in the order of the scan", kOnRequest},
    {"os_device", kTextOrNull, "device node of the SCSI generic driver", kOnRequest},
    {"id", kTextOrNull, "what the library calls it", kOnRequest},
    {"is_disk", kBoolean, "whether it is a disk", {"DISK", false}},
    {"is_removable", kBoolean, "as the record of the library says: set for every disk", {"REMOVABLE", false}},
    {"is_hotplug", kBoolean, "whether it can be changed while the machine runs", {"HOTPLUG", false}},
    {"is_multipath", kBoolean, "whether several ways lead to it", {"MULTIPATH", false}},
    {"paths", kTexts, "device nodes of the ways that the device mapper makes one drive of, the same first", kOnRequest},
    {"partition_names",
     kTexts,
     "device nodes of its partitions",
     {.heading = "PARTITIONS", .isUsual = false, .where = Where::kTable}},
    {"partitions", ListOf(kPartitionFields), "its partitions", kInJson},
    {"sources", Record(kSourceFields), "where the values of these keys are from", kOnRequest},
});
constexpr Schema kInventoryDrives = {"inventory-drives", 1, ListOf(kDriveFields)};

constexpr auto kVolumeFields = std::to_array<Field>({
    {"mount_point", kText, "where it is mounted", {.format = LineText}},
    {"device", kTextOrNull, "what is mounted", {.format = LineText}},
    {"type", kTextOrNull, "type of the file system"},
    {"size_kb", kCountOrNull, "size in KiB", {.heading = "SIZE", .format = KibText}},
    {"available_kb", kCountOrNull, "what users can still write, in KiB", {.heading = "AVAILABLE", .format = KibText}},
    {"used_percent",
     kCountOrNull,
     "how full it is",
     {.heading = "USED", .format = PercentText, .color = FullnessColor}},
    {"kind", Choice("local|fat|network|optical|memory|other"), "where its data are"},
    {"drives", kTexts, "device nodes of the drives that it lies on"},
    {"drive", kTextOrNull, "the first of drives", {"FIRST DRIVE", false}},
    {"on", kTexts, "its partitions and whole drives", kOnRequest},
    {"layers", kTexts, "what is in between, from above", kOnRequest},
    {"blocks", kCountOrNull, "size in blocks", kOnRequest},
    {"available_blocks", kCountOrNull, "what users can still write, in blocks", kOnRequest},
    {"block_size", kCountOrNull, "bytes of a block", kOnRequest},
    {"type_flags", kCount, "the library's flags of the type", kOnRequest},
    {"source", Choice("mounted|vmfs"), "what tells of it", kOnRequest},
});
constexpr Schema kInventoryVolumes = {"inventory-volumes", 1, ListOf(kVolumeFields)};

constexpr auto kTreeFields = std::to_array<Field>({
    {"device",
     kTextOrNull,
     "address of an adapter, device node of a drive, mount point of a volume",
     {.format = LineText}},
    {"kind", Choice("adapter|drive|partition|volume"), "what it is"},
    {"type", kTextOrNull, "its class or type"},
    {"driver", kTextOrNull, "kernel driver and network interface of an adapter"},
    {"slot", kCountOrNull, "slot of an adapter; 0 is the board itself", {.format = SlotText, .isWord = true}},
    {"identity", kTextOrNull, "what tells it from others of its model", {.heading = "MAC/WWN/SERIAL"}},
    {"size_kb", kCountOrNull, "size in KiB", {.heading = "SIZE", .format = KibText}},
    {"used_percent",
     kCountOrNull,
     "how full a volume is",
     {.heading = "USED", .format = PercentText, .color = FullnessColor}},
    {"name", kTextOrNull, "its model, or what is mounted", {.format = LineText}},
});

constexpr auto kFactFields = std::to_array<Field>({
    {"*", kTextOrNull, "one fact"},
});
constexpr Type kFacts =
    OrNull(ListOf(kFactFields));  // null where the machine, or what was captured of it, does not tell

constexpr auto kInventoryFields = std::to_array<Field>({
    {"adapters", ListOf(kAdapterFields), "as ravctl inventory adapters has them"},
    {"drives", ListOf(kDriveFields), "as ravctl inventory drives has them"},
    {"volumes", ListOf(kVolumeFields), "as ravctl inventory volumes has them"},
    {"firmware", kFacts, "version and date of the firmware"},
    {"processors", kFacts, "the processors"},
    {"memory", kFacts, "the memory modules"},
    {"slots", OrNull(ListOf(kSlotFields)), "as ravctl slots has them"},
    {"interfaces", kFacts, "the network interfaces"},
    {"kernel", kFacts, "the kernel"},
});

constexpr Schema kInventory = {"inventory", 1, Record(kInventoryFields), kTreeFields};

constexpr auto kDiffFields = std::to_array<Field>({
    {"change", Choice("added|removed|moved|changed"), "what happened", {.color = ChangeColor, .width = 7}},
    {"kind",
     Choice("adapter|drive|volume|slot|memory|processor|firmware|kernel|interface|trace|registry"),
     "to what",
     {.width = 9}},
    {"where", kText, "where it sits", {.width = 12}},
    {"slot", kTextOrNull, "the slot of the adapter that it hangs on"},
    {"name", kTextOrNull, "its name", {.width = 20}},
    {"field", kTextOrNull, "the key that changed", {.width = 12}},
    {"old", kTextOrNull, "its value before", {.width = 20}},
    {"new", kTextOrNull, "its value after"},
});
constexpr Schema kInventoryDiff = {"inventory-diff", 1, ListOf(kDiffFields)};

// The same with the time in front.
constexpr auto kWatchFields = [] {
  std::array<Field, kDiffFields.size() + 1> fields{
      {{"time", kTime, "local time at which the change was seen", {.width = 23}}}};
  std::ranges::copy(kDiffFields, fields.begin() + 1);
  return fields;
}();
constexpr Schema kInventoryWatch = {"inventory-watch", 1, Record(kWatchFields), kWatchFields};

}  // namespace ravctl
