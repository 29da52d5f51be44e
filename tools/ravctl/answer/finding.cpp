#include "ravctl/answer/finding.h"

#include <algorithm>
#include <array>

#include "ravctl/answer/json.h"

namespace ravctl {

namespace {

struct SeverityRow {
  const char* name;
  Color color;
};

// By the number of the severity.
constexpr auto kSeverities = std::to_array<SeverityRow>({
    {"ok", Color::kGreen},
    {"unknown", Color::kYellow},
    {"note", Color::kYellow},
    {"warning", Color::kYellow},
    {"bad", Color::kRed},
});

}  // namespace

Color SeverityColor(const Json& severity) {
  return std::ranges::find(kSeverities, severity.get_ref<const std::string&>(), &SeverityRow::name)->color;
}

Severity WorstOf(const Findings& findings) {
  Severity worst = Severity::kGood;
  for (const Finding& finding : findings)
    worst = std::max(worst, finding.severity);
  return worst;
}

Table FindingTable(const Findings& findings) {
  Table table(kFindingFields);
  for (const Finding& finding : findings) {
    table.Add({{"severity", kSeverities[static_cast<size_t>(finding.severity)].name},
               {"check", finding.check},
               {"place", finding.place},
               {"finding", finding.what},
               {"todo", finding.toDo.empty() ? Json() : Json(finding.toDo)}});
  }
  return table;
}

ExitCode PrintFindings(const Schema& schema, const Findings& findings, Output& out) {
  out.Print(schema, FindingTable(findings));
  return WorstOf(findings) == Severity::kBad ? ExitCode::kInputDamaged : ExitCode::kDone;
}

}  // namespace ravctl
