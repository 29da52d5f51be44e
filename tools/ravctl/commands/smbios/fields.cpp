// What the answers of the smbios commands hold.

#include "ravctl/answer/finding.h"
#include "ravctl/commands/smbios/group.h"

namespace ravctl {

constexpr Type kHandle = Like("^0x[0-9A-F]{4}$");
constexpr Type kBytes = Like("^([0-9A-F]{2})*$");

constexpr auto kFieldFields = std::to_array<Field>({
    {"name", kText, "name of the field"},
    {"value", kTextOrNull, "what it says"},
});

constexpr auto kStructureFields = std::to_array<Field>({
    {"handle", kHandle, "handle of the structure"},
    {"type", kCount, "number of its type"},
    {"name", kText, "name of its type"},
    {"length", kCount, "bytes of its formatted area"},
    {"fields", ListOf(kFieldFields), "what is known of the formatted area"},
    {"strings", kTexts, "its strings"},
    {"bytes", kBytes, "the formatted area"},
});

constexpr auto kDumpFields = std::to_array<Field>({
    {"source", kText, "where the table was read"},
    {"entry_point", kBytes, "the entry point"},
    {"table", kBytes, "the structure table"},
    {"files", kTexts, "the files that were written"},
});

constexpr auto kSmbiosFields = std::to_array<Field>({
    {"handle", kHandle, "handle of the structure"},
    {"type", kCount, "number of its type"},
    {"length", kCount, "bytes of its formatted area"},
    {"name", kText, "name of its type"},
    {"first", kTextOrNull, "its first string", {.heading = "FIRST STRING"}},
    {"strings", kCount, "how many strings it has", kOnRequest},
});
constexpr Schema kSmbiosList = {"smbios-list", 1, ListOf(kSmbiosFields)};
constexpr Schema kSmbiosShow = {"smbios-show", 1, ListOf(kStructureFields)};
constexpr Schema kSmbiosDump = {"smbios-dump", 1, Record(kDumpFields)};
constexpr Schema kSmbiosVerify = {"smbios-verify", 2, ListOf(kFindingFields)};

}  // namespace ravctl
