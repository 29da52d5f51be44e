// What the answers of the module commands hold.

#include "ravctl/answer/finding.h"
#include "ravctl/commands/module/group.h"

namespace ravctl {

constexpr auto kStepFields = std::to_array<Field>({
    {"step", kText, "what was done"},
    {"good", kBoolean, "whether it went well"},
});

constexpr auto kEntryFields = std::to_array<Field>({
    {"time", kText, "local time, yyyy-mm-dd hh:mm:ss.mmm"},
    {"thread", kText, "number of the thread"},
    {"text", kText, "the message"},
});

constexpr auto kRunFields = std::to_array<Field>({
    {"library", kText, "the switch, or the module of --module"},
    {"good", kBoolean, "whether all went well"},
    {"errors", kCount, "entries of the trace that tell of one"},
    {"steps", ListOf(kStepFields), "what was done, in order"},
    {"trace", ListOf(kEntryFields), "what was traced meanwhile"},
});

constexpr Schema kModuleCheck = {"module-check", 2, ListOf(kFindingFields)};
constexpr Schema kModuleRun = {"module-run", 1, Record(kRunFields)};

}  // namespace ravctl
