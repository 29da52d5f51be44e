// What the answers of the module commands hold.

#include "ravctl/answer/finding.h"
#include "ravctl/answer/json.h"
#include "ravctl/commands/module/group.h"

namespace ravctl {

namespace {

Color StateColor(const Json& value) {
  return value == "running" ? Color::kGreen : value == "failed" || value == "lost" ? Color::kRed : Color::kNone;
}

}  // namespace

constexpr auto kModuleFields = std::to_array<Field>({
    {"name", kText, "what it is called"},
    {"state", kText, "running, stopped, failed, or lost: it did not come back from a call", {.color = StateColor}},
    {"since", kTimeOrNull, "local time at which the state began"},
    {"version", kTextOrNull, "the version that it tells"},
    {"build_id", kTextOrNull, "of its shared object, in hexadecimal digits", {"BUILD ID", false}},
    {"file", kTextOrNull, "its shared object", kOnRequest},
    {"reason", kTextOrNull, "why it failed"},
});

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

constexpr Schema kModuleList = {"module-list", 1, ListOf(kModuleFields)};
constexpr Schema kModuleCheck = {"module-check", 2, ListOf(kFindingFields)};
constexpr Schema kModuleRun = {"module-run", 1, Record(kRunFields)};

}  // namespace ravctl
