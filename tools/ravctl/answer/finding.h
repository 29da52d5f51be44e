#pragma once

#include <string>
#include <vector>

#include "ravctl/answer/output.h"
#include "ravctl/base/exit_code.h"

namespace ravctl {

enum class Severity {
  kGood,     // "ok"
  kUnknown,  // "unknown": this user may not look there
  kNote,     // "note": what may surprise; nothing is lost
  kWarning,  // "warning": it works, but not as it should
  kBad,      // "bad": damage, or a door that stands open
};

// What a checker says about one place. All checkers speak in these, and doctor passes on what they say.
struct Finding {
  Severity severity = Severity::kBad;
  std::string check;  // what was looked at, a word for scripts: "checksum"
  std::string place;  // "/etc/pelrix/registry:17"
  std::string what;   // "readable by everybody"
  std::string toDo = {};
};
using Findings = std::vector<Finding>;

// kGood when there is none.
Severity WorstOf(const Findings& findings);

Color SeverityColor(const Json& severity);
inline constexpr auto kFindingFields = std::to_array<Field>({
    {"severity", Choice("ok|unknown|note|warning|bad"), "how bad it is", {.color = SeverityColor}},
    {"check", kText, "what was looked at, a word for scripts"},
    {"place", kText, "the file, device or setting"},
    {"finding", kText, "how it is"},
    {"todo", kTextOrNull, "what helps", {.heading = "TO DO"}},
});

Table FindingTable(const Findings& findings);

// Prints them all. kInputDamaged when one is bad; for what is less than that, kDone.
ExitCode PrintFindings(const Schema& schema, const Findings& findings, Output& out);

}  // namespace ravctl
