// What the answers of the registry commands hold.

#include "ravctl/answer/finding.h"
#include "ravctl/answer/json.h"
#include "ravctl/commands/registry/group.h"

namespace ravctl {

namespace {

constexpr Type kEntryType = Choice("string|expand|number|binary|key");

Color ChangeColor(const Json& change) {
  if (change == "added") return Color::kGreen;
  return change == "removed" ? Color::kRed : Color::kYellow;
}

}  // namespace

constexpr auto kEntryFields = std::to_array<Field>({
    {"key", kText, "path of the key"},
    {"name", kText, "name of the value, or of the key itself"},
    {"type", kEntryType, "what it is"},
    {"value", kText, "the value as text; of a key how much is in it"},
    {"number", kCountOrNull, "the value of a number", kOnRequest},
});
constexpr Schema kRegistryGet = {"registry-get", 1, ListOf(kEntryFields)};
constexpr Schema kRegistryList = {"registry-list", 1, ListOf(kEntryFields)};
constexpr Schema kRegistryFind = {"registry-find", 1, ListOf(kEntryFields)};

constexpr auto kTreeFields = std::to_array<Field>({
    {"name", kText, "name of the key or value"},
    {"type", kEntryType, "what it is"},
    {"value", kText, "the value as text; of a key how much is in it"},
    {"key", kText, "path of the key", kOnRequest},
    {"number", kCountOrNull, "the value of a number", kInJson},
    {"parent", kCountOrNull, "which of the records it is below, from 0", kInJson},
});
constexpr Schema kRegistryTree = {"registry-tree", 1, ListOf(kTreeFields)};

constexpr auto kChangeFields = std::to_array<Field>({
    {"change", Choice("added|removed|changed"), "what happens", {.color = ChangeColor}},
    {"key", kText, "path of the key"},
    {"name", kTextOrNull, "name of the value; null for the key itself"},
    {"old_type", kTextOrNull, "type before", kOnRequest},
    {"old_value", kTextOrNull, "value before"},
    {"type", kTextOrNull, "type after", kOnRequest},
    {"value", kTextOrNull, "value after"},
});
constexpr Schema kRegistryDiff = {"registry-diff", 1, ListOf(kChangeFields)};

constexpr auto kEditFields = std::to_array<Field>({
    {"written", kBoolean, "whether the registry was written"},
    {"file", kText, "the file of the registry"},
    {"changes", ListOf(kChangeFields), "what changed in it"},
});

constexpr auto kCopyFields = std::to_array<Field>({
    {"file", kText, "what was replaced"},
    {"copy", kText, "where it is kept"},
});

constexpr auto kRecoverFields = std::to_array<Field>({
    {"recovered", kBoolean, "whether the file became the registry"},
    {"from", kText, "the file that was chosen"},
    {"copies", ListOf(kCopyFields), "what is kept of what was replaced"},
    {"changes", ListOf(kChangeFields), "against the registry that was there"},
});

constexpr auto kFileFields = std::to_array<Field>({
    {"file", kText, "a file of the registry"},
    {"exists", kBoolean, "whether it is there"},
    {"bytes", kCountOrNull, "its size; null when it cannot be read"},
    {"modified", kTimeOrNull, "when it was written"},
    {"keys", kCountOrNull, "keys in it"},
    {"values", kCountOrNull, "values in it"},
    {"damage", kCountOrNull, "places in it that are damaged"},
    {"loaded", kBoolean, "whether a start would load it"},
    {"reason", kText, "why"},
});

constexpr auto kVerifyFields = std::to_array<Field>({
    {"files", ListOf(kFileFields), "the files in the order in which a start looks at them"},
    {"findings", ListOf(kFindingFields), "what was found in them"},
});

constexpr Schema kRegistrySet = {"registry-set", 1, Record(kEditFields), kChangeFields};
constexpr Schema kRegistryDel = {"registry-del", 1, Record(kEditFields), kChangeFields};
constexpr Schema kRegistryImport = {"registry-import", 1, Record(kEditFields), kChangeFields};

constexpr auto kRecoverStepFields = std::to_array<Field>({
    {"action", kText, "what was done: copied, recovered or chosen"},
    {"file", kText, "to which file"},
    {"to", kText, "where it went"},
});
constexpr Schema kRegistryRecover = {"registry-recover", 1, Record(kRecoverFields), kRecoverStepFields};

constexpr Schema kRegistryVerify = {"registry-verify", 2, Record(kVerifyFields), kFindingFields};

}  // namespace ravctl
