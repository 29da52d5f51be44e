// report: a page of a machine for people to look at, made of what the other commands answer.

#include "ravctl/commands/report.h"

#include <unistd.h>

#include <algorithm>

#include "ravctl/answer/json.h"
#include "ravctl/base/child.h"
#include "ravctl/base/json_reader.h"
#include "ravctl/base/text.h"
#include "ravctl/commands/all_commands.h"
#include "ravctl/commands/trace/group.h"
#include "ravctl/line/command.h"
#include "ravctl/line/parse.h"
#include "ravctl/report/answer_collector.h"
#include "ravctl/report/machine_facts.h"
#include "ravctl/report/new_page.h"
#include "ravctl/report/page.h"
#include "ravctl/trace/entry_writer.h"
#include "ravctl/trace/kept_runs.h"
#include "ravctl/trace/trace_entry.h"
#include "ravctl/trace/trace_file.h"
#include "ravctl/tree/enter.h"

namespace ravctl {

namespace {

constexpr int kMostSeconds = 900;
constexpr size_t kMostKeptRuns = 3;  // the newest ones; their traces are in the page as well
constexpr const char* kLive = "live";

constexpr auto kMissingAnswerFields = std::to_array<Field>({
    {"answer", kText, "what the page calls it"},
    {"reason", kText, "why"},
});
constexpr auto kReportFields = std::to_array<Field>({
    {"page", kText, "the file that was made"},
    {"bytes", kCount, "how large it is"},
    {"answers", kCount, "how many answers of commands it shows"},
    {"missing", ListOf(kMissingAnswerFields), "answers that could not be had"},
});
constexpr Schema kReport = {"report", 1, Record(kReportFields)};

struct ReportOptions {
  std::string tree;     // empty: this machine
  std::string against;  // empty: no comparison
  std::string out;
  size_t last = 0;  // entries of a trace, 0 for all
};

// An answer of the page, and the command that gives it.
struct AnswerRow {
  const char* id;
  const char* command;
};

constexpr auto kAnswers = std::to_array<AnswerRow>({
    {"status", "daemon status"},
    {"doctor", "doctor"},
    {"inventory", "inventory"},
    {"slots", "slots --onboard"},
    {"memory", "smbios show 17"},
    {"net", "net list"},
    {"runs", "trace list"},
});
constexpr const char* kLiveLoad = "perf --interval 0.2 --count 6";

std::string Dump(const Json& json) {
  return json.dump(-1, ' ', false, Json::error_handler_t::replace);
}

// As the command line would run it.
void RunCommand(std::vector<std::string> words, Output& out) {
  Command root({"ravctl", ""}, "");
  AddAllCommands(root);
  std::vector<char*> argv{const_cast<char*>("ravctl")};
  for (std::string& word : words)
    argv.push_back(word.data());
  argv.push_back(nullptr);
  const ParsedLine line = ParseLine(root, static_cast<int>(argv.size()) - 1, argv.data());
  if (line.kind != ParsedLine::Kind::kCommand) throw CommandError(ExitCode::kInternal, line.text, "", "");
  const std::string name = line.command->FullName();
  if (IsInSysroot() && line.command->Text().effect != Effect::kReads) {
    throw CommandError(ExitCode::kInputMissing, name + ": a captured tree does not tell", "",
                       "ask on the machine itself");
  }
  try {
    line.command->Run(out);
  } catch (const CommandError& error) {
    throw CommandError(error.Code(), name + ": " + error.what(), "", "");
  }
}

// Where the entries of a file of a run begin and end, by which the page shows what a wrap has overwritten.
Json SpanOf(const TraceFile& file, size_t& entries) {
  std::string_view first, last;
  for (const std::string_view part : file.Layout().parts) {
    ForEachEntry(part, [&](std::string_view whole) {
      last = whole.substr(0, kTimeLength);
      if (first.empty()) first = last;
      ++entries;
      return true;
    });
  }
  return {{"file", file.Path()}, {"wrapped", file.Layout().hasWrapped}, {"first", first}, {"last", last}};
}

// A line with the spans of the files, and the answer of `trace show`, of one reading: traces are large.
void WriteTrace(const TraceSource& source, size_t most, Output& out) {
  const std::vector<TraceFile> files = ReadTraceFiles(source);
  Json spans = Json::array();
  size_t entries = 0;
  for (const TraceFile& file : files)
    spans.push_back(SpanOf(file, entries));
  Output({}).Write(Dump(spans) + "\n");
  size_t passedOver = most == 0 || entries <= most ? 0 : entries - most;
  EntryWriter writer(out, kTraceShow, false);
  writer.Begin();
  for (const TraceFile& file : files) {
    WarnAboutDamage(file, out);
    for (const std::string_view part : file.Layout().parts) {
      ForEachEntry(part, [&](std::string_view whole) {
        if (passedOver == 0) {
          writer.Write(whole);
        } else {
          --passedOver;
        }
        return !out.IsClosed();
      });
    }
  }
  writer.End();
}

size_t CountKeptRuns() try {
  return std::min(FindKeptRuns(DirectoryOf(TraceSource())).size(), kMostKeptRuns);
} catch (const CommandError&) {
  return 0;  // the list of the runs says why
}

void StartCommand(const std::string& id, const std::vector<std::string>& words, AnswerCollector& answers) {
  answers.Start(id, [words](Output& out) { RunCommand(words, out); });
}

void StartTrace(size_t run, const ReportOptions& options, AnswerCollector& answers) {
  answers.Start("trace-" + std::to_string(run), [run, most = options.last](Output& out) {
    TraceSource source;
    source.run = run;
    WriteTrace(source, most, out);
  });
}

Json FactsFor(const ReportOptions& options) {
  Json facts = ReadMachineFacts();
  facts["against"] = options.against.empty() ? Json() : Json(options.against);
  facts["of"] = options.tree.empty() ? Json() : Json(options.tree);
  return facts;
}

// Entering a tree is for good, and the comparison enters its own: that is started before. The load of this machine is
// measured before this command makes some, and one trace after the other held in memory.
Json WritePage(const ReportOptions& options, int fd) {
  PageWriter page(fd, options.out);
  AnswerCollector answers(page);
  const bool isOfTree = !options.tree.empty();
  if (!isOfTree) {
    StartCommand("perf", SplitList(kLiveLoad, ' '), answers);
    answers.Collect();
  }
  if (!options.against.empty()) {
    StartCommand("changes", {"inventory", "diff", options.against, isOfTree ? options.tree : kLive}, answers);
  }
  if (isOfTree) {
    EnterSysroot(options.tree);
    answers.SetRoot(options.tree);
    StartCommand("perf", {"perf"}, answers);
  }
  for (const AnswerRow& row : kAnswers)
    StartCommand(row.id, SplitList(row.command, ' '), answers);
  const Json facts = FactsFor(options);
  answers.Collect();
  page.BeginAnswer("facts");
  page.AddJson(Dump(facts));
  page.AddScripts();
  const size_t kept = CountKeptRuns();
  for (size_t run = 0; run <= kept; ++run) {
    StartTrace(run, options, answers);
    answers.Collect();
  }
  page.End();
  return {{"bytes", page.Bytes()}, {"answers", answers.Count()}, {"missing", answers.Missing()}};
}

int ReportPage(const ReportOptions& options, int fd, int reportFd) {
  Json report;
  try {
    report["data"] = WritePage(options, fd);
  } catch (const CommandError& error) {
    report = {{"code", static_cast<int>(error.Code())}, {"error", error.what()}};
  }
  const std::string text = Dump(report);
  return ::write(reportFd, text.data(), text.size()) == static_cast<ssize_t>(text.size()) ? 0 : 1;
}

// Made by a child, which enters the tree; a bundle comes from a stranger and may be meant to bring down who reads it.
Json MakePage(const ReportOptions& options) {
  NewPage page(options.out);
  KeptChild child([&](int reportFd) { return ReportPage(options, page.Get(), reportFd); },
                  [&] { ::unlink(options.out.c_str()); });
  const ChildResult result = child.Wait(kMostSeconds);
  std::string why;
  std::optional<Json> report = ReadJson(result.report, why);
  if (result.isTimeout || !report || !report->is_object()) {
    throw CommandError(ExitCode::kInputDamaged, result.isTimeout ? "it took too long" : "it could not be made",
                       options.tree.empty() ? options.out : options.tree, "try ravctl inventory");
  }
  if (report->contains("error")) {
    throw CommandError(static_cast<ExitCode>((*report)["code"].get<int>()), (*report)["error"].get<std::string>(), "",
                       "");
  }
  page.Finish();
  return std::move((*report)["data"]);
}

ExitCode RunReport(const ReportOptions& options, Output& out) {
  Json made = MakePage(options);
  for (const Json& missing : made["missing"])
    out.Warn("not in the report", missing["reason"].get<std::string>());
  const std::string text = Printable(options.out) + ": " + made["answers"].dump() + " answers, " +
                           HumanSize(made["bytes"].get<uint64_t>()) + "; open it in a browser\n";
  Json data = {{"page", options.out}};
  data.update(made);
  out.Print(kReport, text, data);
  return ExitCode::kDone;
}

}  // namespace

void AddReport(Command& root) {
  auto options = std::make_shared<ReportOptions>();
  Command& report = root.Add(
      {"report",
       "Make a page of a machine to look at in a browser: slots, drives, load, findings and traces, in one file",
       {{"ravctl report -o machine.html", "of this machine; as root: everything"},
        {"ravctl report server7.tar.zst -o server7.html", "of a bundle"},
        {"ravctl report server7.tar.zst --against older.tar.zst -o server7.html", "with what changed since"}},
       Effect::kChanges},
      [options](Output& out) { return RunReport(*options, out); });
  report.Answers({&kReport});
  report.AddWord("BUNDLE", &options->tree, "A bundle or a directory, as --sysroot takes it; usually this machine");
  report.AddOption("-o,--out", &options->out, "FILE", "The new page; a file that exists is left alone").isRequired =
      true;
  report.AddOption("--against", &options->against, "OLDER",
                   "Show what changed since then: a bundle, a directory or a saved ravctl inventory --json");
  report.AddOption("-n,--last", &options->last, "N", "The newest N entries of each trace; usually all of them",
                   Above(0));
}

}  // namespace ravctl
