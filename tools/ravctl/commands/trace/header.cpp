// trace header: what the header block of a trace tells about the application's start.

#include <array>

#include "ravctl/answer/json.h"
#include "ravctl/commands/trace/group.h"
#include "ravctl/line/command.h"
#include "ravctl/trace/trace_entry.h"

namespace ravctl {

namespace {

struct Section {
  std::string_view title;  // as the line of the header has it, or its end
  std::string_view name;
  bool isByColon;  // "name : value" rather than "name=value"
};

constexpr auto kSections = std::to_array<Section>({
    {" Command Line Options:", "command line", false},
    {"Quennet Environment:", "environment", false},
    {"Quennet Configuration File:", "configuration", false},
    {"Debug values from ini file :", "ini file", true},
    {"Internal Debug values      :", "internal", true},
});

std::string_view Trim(std::string_view text) {
  while (text.starts_with(' '))
    text.remove_prefix(1);
  while (text.ends_with(' '))
    text.remove_suffix(1);
  return text;
}

// "PID       : 7" or "PID=7" or "argv[0] = \"x\"" => name and value
void AddLine(const std::string& file, const Section& section, std::string_view text, Table& table) {
  const size_t split = text.find(section.isByColon ? ':' : '=');
  if (split == std::string_view::npos) return;
  std::string_view value = Trim(text.substr(split + 1));
  const bool isSet = value != "NotSet" || section.isByColon;
  if (section.name == "command line" && value.size() >= 2 && value.starts_with('"')) {
    value = value.substr(1, value.size() - 2);
  }
  table.Add({{"file", file},
             {"section", section.name},
             {"name", Trim(text.substr(0, split))},
             {"value", isSet ? Json(value) : Json()}});
}

void AddHeader(const TraceFile& file, bool wantsUnset, Table& table) {
  const Section* section = nullptr;
  ForEachEntry(file.Layout().header, [&](std::string_view whole) {
    const std::string_view text = ParseEntry(whole).text;
    for (const Section& candidate : kSections) {
      if (!text.ends_with(candidate.title)) continue;
      section = &candidate;
      return true;
    }
    if (section != nullptr && (wantsUnset || !text.ends_with("=NotSet"))) AddLine(file.Path(), *section, text, table);
    return true;
  });
}

ExitCode RunHeader(const TraceSource& source, bool wantsAll, Output& out) {
  const std::vector<TraceFile> files = ReadTraceFiles(source);
  Table table(kTraceHeader);
  table.SetUsual("file", files.size() > 1);
  bool isDamaged = false;
  for (const TraceFile& file : files) {
    isDamaged = WarnAboutDamage(file, out) || isDamaged;
    AddHeader(file, wantsAll || out.IsJson(), table);
    if (file.Layout().header.empty()) {
      out.Warn("no header block", file.Path(), "a log file has one when NoHeaderToStderr is 0");
    } else if (!file.Layout().hasHeaderEnd) {
      out.Warn("the header block is not complete", file.Path());
      isDamaged = true;
    }
  }
  out.Print(kTraceHeader, table);
  if (isDamaged) return ExitCode::kInputDamaged;
  return table.Size() > 0 ? ExitCode::kDone : ExitCode::kNothingOrDifferent;
}

}  // namespace

void AddTraceHeader(Command& trace) {
  struct Options {
    TraceSource source;
    bool wantsAll = false;
  };
  auto options = std::make_shared<Options>();
  Command& header =
      trace.Add({"header",
                 "Show how the application was started: command line, environment, configuration, trace state",
                 {{"ravctl trace header", "of the daemon's ring buffers, without what was not set"},
                  {"ravctl trace header -p run --all", "every name of the run-time ring buffer's header"}}},
                [options](Output& out) { return RunHeader(options->source, options->wantsAll, out); });
  header.Answers({&kTraceHeader});
  AddSourceOptions(header, options->source);
  header.AddFlag("-a,--all", &options->wantsAll, "The variables that were not set too");
}

}  // namespace ravctl
