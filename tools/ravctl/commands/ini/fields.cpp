// What the answers of the ini commands hold.

#include "ravctl/answer/finding.h"
#include "ravctl/commands/ini/group.h"

namespace ravctl {

constexpr auto kValueFields = std::to_array<Field>({
    {"file", kText, "the file that was asked"},
    {"section", kText, "the section that was asked for"},
    {"key", kText, "the key that was asked for"},
    {"value", kTextOrNull, "what a reader gets"},
    {"source", Choice("file|default|none"), "where it comes from"},
});

constexpr auto kChangeFields = std::to_array<Field>({
    {"file", kText, "the file that was to change"},
    {"action", Choice("set|del"), "what was asked for"},
    {"section", kText, "the section that was meant"},
    {"key", kTextOrNull, "the key that was meant; null for the whole section"},
    {"dry_run", kBoolean, "whether it was only tried"},
    {"changed", kBoolean, "whether the file is different now, or would be"},
    {"created", kBoolean, "whether there was no such file"},
    {"diff", kText, "the change as a unified diff"},
});

constexpr auto kSectionFields = std::to_array<Field>({
    {"section", kText, "name of the section"},
    {"line", kCount, "where it begins"},
    {"keys", kCount, "how many keys it has"},
    {"read", kBoolean, "whether a reader gets it"},
});
constexpr Schema kIniSections = {"ini-sections", 1, ListOf(kSectionFields)};

constexpr auto kKeyFields = std::to_array<Field>({
    {"section", kText, "the section that it stands in"},
    {"key", kText, "name of the key"},
    {"value", kText, "its value"},
    {"line", kCount, "where it stands"},
    {"read", kBoolean, "whether a reader gets it"},
});
constexpr Schema kIniKeys = {"ini-keys", 1, ListOf(kKeyFields)};

constexpr Schema kIniGet = {"ini-get", 1, Record(kValueFields)};
constexpr Schema kIniChange = {"ini-change", 1, Record(kChangeFields)};
constexpr Schema kIniCheck = {"ini-check", 2, ListOf(kFindingFields)};

}  // namespace ravctl
