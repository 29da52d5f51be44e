// What the answers of the trace commands hold.

#include "ravctl/answer/finding.h"
#include "ravctl/answer/formats.h"
#include "ravctl/commands/trace/group.h"
#include "ravctl/trace/entry_writer.h"

namespace ravctl {

constexpr auto kRunFields = std::to_array<Field>({
    {"run", kCount, "0 is the present run, 1 the last of those that were kept"},
    {"time", kTime, "when it ended; of the present run, when it last wrote"},
    {"result", kTextOrNull, "how it ended, in the service manager's word"},
    {"status", kCountOrNull, "its exit status"},
    {"signal", kTextOrNull, "what killed it"},
    {"pid", kCountOrNull, "its process number", kOnRequest},
    {"size", kCount, "bytes of its trace files", {.format = SizeText}},
    {"path", kText, "the directory where they are"},
});
constexpr Schema kTraceList = {"trace-list", 1, ListOf(kRunFields)};

constexpr Schema kTraceShow = {"trace-show", 1, ListOf(kEntryFields)};
constexpr Schema kTraceEntry = {"trace-entry", 1, Record(kEntryFields), kEntryFields};

constexpr auto kHeaderFields = std::to_array<Field>({
    {"file", kText, "the trace; shown when there are several", kOnRequest},
    {"section", Choice("command line|environment|configuration|ini file|internal"), "part of the header block"},
    {"name", kText, "name of the variable or setting"},
    {"value", kTextOrNull, "its value when the application started; null when it was not set"},
});
constexpr Schema kTraceHeader = {"trace-header", 1, ListOf(kHeaderFields)};

constexpr auto kStatsFields = std::to_array<Field>({
    {"file", kText, "the trace; shown when there are several", kOnRequest},
    {"group", Choice("all|tag|source|thread"), "what the entries have in common"},
    {"name", kText, "the tag, source or thread; empty for all"},
    {"entries", kCount, "how many there are"},
    {"bytes", kCount, "how long they are", {.heading = "SIZE", .format = SizeText}},
    {"errors", kCount, "those with ERROR or FAILED"},
    {"warnings", kCount, "those of the others with WARNING"},
    {"first", kTextOrNull, "time of the oldest"},
    {"last", kTextOrNull, "time of the newest"},
    {"wrapped", kBoolean, "whether older ones were overwritten", kOnRequest},
});
constexpr Schema kTraceStats = {"trace-stats", 1, ListOf(kStatsFields)};

constexpr Schema kTraceVerify = {"trace-verify", 2, ListOf(kFindingFields)};

constexpr auto kSettingFields = std::to_array<Field>({
    {"name", kText, "the setting", {.heading = "SETTING"}},
    {"value", kText, "what counts"},
    {"source", Choice("environment|file|default|computed"), "what says so"},
    {"from", kTextOrNull, "the variable or file"},
    {"comment", kTextOrNull, "what else there is to say"},
});

constexpr auto kConfigFileFields = std::to_array<Field>({
    {"path", kText, "the configuration file"},
    {"used", kBoolean, "whether it counts for the application"},
    {"reason", kText, "why"},
});

constexpr auto kConfigFields = std::to_array<Field>({
    {"application", kText, "whose settings these are"},
    {"tracing", kBoolean, "whether it traces"},
    {"environment", kText, "whose environment counted"},
    {"settings", ListOf(kSettingFields), "every setting"},
    {"files", ListOf(kConfigFileFields), "the files that were looked at"},
});

constexpr Schema kTraceConfig = {"trace-config", 1, Record(kConfigFields), kSettingFields};

constexpr auto kToggleFields = std::to_array<Field>({
    {"pid", kCount, "process of the daemon"},
    {"tracing", OrNull(kBoolean), "whether it traces now; null when it has not answered yet"},
});

constexpr auto kLevelFields = std::to_array<Field>({
    {"path", kText, "the file that was written"},
    {"level", kCount, "what it says now"},
    {"effective_level", kCount, "what a start would use"},
});

constexpr Schema kTraceToggle = {"trace-toggle", 1, Record(kToggleFields)};
constexpr Schema kTraceLevel = {"trace-level", 1, Record(kLevelFields)};

}  // namespace ravctl
