#pragma once

#include <optional>

#include "ravctl/answer/output.h"
#include "ravctl/hardware/inventory_records.h"
#include "ravctl/line/command.h"
#include "ravctl/line/record_filter.h"

namespace ravctl {

// ravctl inventory, and what is below it
Command& AddInventory(Command& root);
void AddInventoryAdapters(Command& inventory);
void AddInventoryDrives(Command& inventory);
void AddInventoryVolumes(Command& inventory);
void AddInventoryDiff(Command& inventory);
void AddInventoryWatch(Command& inventory);

// What they answer.
extern const Schema kInventory, kInventoryAdapters, kInventoryDrives, kInventoryVolumes, kInventoryDiff,
    kInventoryWatch;

// The whole answers of the running machine, for a bundle. Throw CommandError.
Json ReadInventoryAdapters();
Json ReadInventoryDrives();
Json ReadInventoryVolumes();

// What the commands share

struct InventoryOptions {
  RecordFilter filter;
  bool all = false;  // also what nobody stores data on or plugs in
};

void AddAllOption(Command& command, InventoryOptions& options);

// The records; in the tree of a bundle with what it holds of the answers that only the running machine gave. Throws
// CommandError.
InventoryRecords ReadRecords(unsigned int parts);
// The records, with a warning for what this user may not see.
InventoryRecords ReadInventory(unsigned int parts, bool all, Output& out);
Json WithoutKernelVolumes(const Json& volumes);
Json WithoutUnknownDevices(const Json& adapters);

// The product, else what kind of function it is with its IDs, else the name of an ISA device.
Json AdapterTitle(const Json& adapter);
// The two texts with the separator between them, or the one that is there.
std::string Joined(const Json& first, const Json& second, const char* separator);

// A path or a name as a table shows it: one that is longer than a line without its middle.
std::string LineText(const Json& text);
// How a size in KiB, a percentage and the use of a volume are shown.
std::string KibText(const Json& kib);
std::string PercentText(const Json& percent);
Color FullnessColor(const Json& percent);

}  // namespace ravctl
