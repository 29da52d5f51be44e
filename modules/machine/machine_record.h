#pragma once

#include <string>
#include <string_view>
#include <utility>
#include <vector>

// What the program ravd-machine tells of a machine: one record a line, which the modules read back. The hardware is
// looked at in that process, not in the daemon, since a drive or mount that does not answer holds up whoever asks, and
// a process can be ended at any time.
//
//   drive <TAB> sda <TAB> model=X200 <TAB> size=4000787030016
//
// Kinds: machine, slot, adapter, dimm, drive, volume, scan. A field that is not known is left out. In names and values
// a backslash, tab or newline stands as \\, \t or \n.

struct MachineRecord {
  std::string kind;
  std::string key;  // what tells it from its like from one scan to the next: address, locator, serial number, ...
  std::vector<std::pair<std::string, std::string>> fields;

  // An empty value adds nothing.
  MachineRecord& Add(const char* name, const std::string& value);
  // "" for a field that is not there.
  const std::string& Get(std::string_view name) const;

  bool operator==(const MachineRecord&) const = default;
};

using MachineRecords = std::vector<MachineRecord>;

// The line that ends an answer: one without it was cut short.
inline constexpr std::string_view kEndLine = "end\n";

std::string ToText(const MachineRecords& records);

// False, and records unchanged, for a text that is cut short. Lines that are no records are passed over.
bool ParseRecords(std::string_view text, MachineRecords& records);

// One difference between two looks at a machine.
struct MachineChange {
  enum Kind { kAdded, kRemoved, kChanged };
  Kind change;
  std::string kind;    // of the record
  std::string key;     // of the record
  std::string name;    // for people: the device's, where the key says little
  std::string slot;    // where that is known
  std::string field;   // kChanged alone: which
  std::string before;  // kChanged alone: "" when it was not known
  std::string after;   // kChanged alone: "" when it is not known
};
const char* ToText(MachineChange::Kind change);

// What is of lasting interest: all records but scan and volume, all fields but those that are readings.
std::vector<MachineChange> CompareMachines(const MachineRecords& before, const MachineRecords& after);
