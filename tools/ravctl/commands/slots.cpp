// slots: the card slots of the machine as its firmware describes them.

#include "ravctl/commands/slots.h"

#include "ravctl/answer/json.h"
#include "ravctl/hardware/record.h"
#include "ravctl/hardware/slot_records.h"
#include "ravctl/line/command.h"
#include "ravctl/line/record_filter.h"

namespace ravctl {

namespace {

constexpr Schema kSlots = {"slots", 1, ListOf(kSlotFields)};

struct Options {
  RecordFilter filter;
  bool withOnboard = false;
};

// "x8 PCIe 3", and "PCIe 3 x16" alone where the type has the width in its name.
Json TypeCell(const Json& slot) {
  if (slot["type"].is_null() || slot["width"].is_null()) return slot["type"];
  const std::string type = slot["type"], width = slot["width"];
  return !width.starts_with("x") || type.ends_with(" " + width) ? type : width + " " + type;
}

ExitCode RunSlots(const Options& options, Output& out) {
  const Json all = ReadSlotRecords(options.withOnboard);
  WarnWithoutSlots(out);
  if (all.empty() && out.Warnings() == 0) out.Warn("no table of the firmware describes a slot", "SMBIOS and $PIR");
  const Json slots = options.filter.Select(all);
  Table table(kSlots);
  for (const Json& slot : slots) {
    Json row = slot;
    row["type_text"] = TypeCell(slot);
    table.Add(std::move(row));
  }
  out.Print(kSlots, table, slots);
  return table.Size() > 0 ? ExitCode::kDone : ExitCode::kNothingOrDifferent;
}

}  // namespace

void AddSlots(Command& root) {
  auto options = std::make_shared<Options>();
  Command& slots = root.Add({"slots",
                             "Show the card slots, what is in them, and which firmware table says so",
                             {{"ravctl slots", "number, type, use and card of each slot"},
                              {"ravctl slots --usage Available", "where a card could go"},
                              {"ravctl slots --onboard -o +functions", "the devices of the board too"}}},
                            [options](Output& out) { return RunSlots(*options, out); });
  slots.Answers({&kSlots});
  slots.AddFlag("--onboard", &options->withOnboard, "The devices of the board too, which have no slot");
  options->filter.AddOption(slots, "--usage", "usage", "Only in this use: 'In use', Available, Unavailable");
  options->filter.AddOption(slots, "--type", "type", "Only of this type: 'PCIe*'");
  options->filter.AddMatchOption(slots);
}

}  // namespace ravctl
