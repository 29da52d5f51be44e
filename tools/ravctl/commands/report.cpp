// report: a page of a machine for people to look at, made of what the other commands answer.

#include "ravctl/commands/report.h"

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>

#include "platform/descriptor_io.h"
#include "platform/unique_fd.h"
#include "ravctl/answer/json.h"
#include "ravctl/base/child.h"
#include "ravctl/base/json_reader.h"
#include "ravctl/base/text.h"
#include "ravctl/commands/all_commands.h"
#include "ravctl/commands/trace/group.h"
#include "ravctl/line/command.h"
#include "ravctl/line/parse.h"
#include "ravctl/report/machine_facts.h"
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

// Runs commands as the command line would with --json, each in a child of its own beside the others, and puts their
// answers into the page in the order in which they were started. Nothing is said on the standard error: a failure and
// each warning are part of the answer.
class AnswerCollector {
 public:
  explicit AnswerCollector(PageWriter& page) : m_Page(page) {
    const UniqueFd null(::open("/dev/null", O_WRONLY | O_CLOEXEC));
    if (null) ::dup2(null.Get(), STDERR_FILENO);
  }

  void SetRoot(const std::string& root) { m_Root = root; }

  void Start(const std::string& id, const std::vector<std::string>& words) {
    Start(id, [words](Output& out) { RunCommand(words, out); });
  }

  // A CommandError of what writes the answer becomes the answer.
  void Start(const std::string& id, const std::function<void(Output& out)>& write) {
    std::array<int, 2> ends{};
    if (::pipe2(ends.data(), O_CLOEXEC) != 0) throw SystemFailure("cannot collect the answers", "pipe", errno);
    Started started{id, UniqueFd(ends[0]), -1};
    const UniqueFd writer(ends[1]);
    ::fcntl(writer.Get(), F_SETPIPE_SZ, kPipeSize);  // as far as the system gives it
    started.child = ::fork();
    if (started.child < 0) throw SystemFailure("cannot collect the answers", "fork", errno);
    if (started.child == 0) ::_exit(::dup2(writer.Get(), STDOUT_FILENO) >= 0 && IsWritten(write) ? 0 : 1);
    m_Started.push_back(std::move(started));
  }

  size_t Count() const { return m_Started.size(); }
  // Up to that number of those that were started.
  void Collect(size_t end) {
    for (; m_Collected < end; ++m_Collected) {
      Started& started = m_Started[m_Collected];
      const std::string head = TakeOver(started);
      started.reader.Reset();
      int status = 0;
      ::waitpid(started.child, &status, 0);
      if (status != 0) m_Missing.push_back({{"answer", started.id}, {"reason", ReasonIn(head)}});
    }
  }

  const Json& Missing() const { return m_Missing; }

 private:
  static constexpr int kPipeSize = 1 << 20;

  struct Started {
    std::string id;
    UniqueFd reader;
    pid_t child;
  };

  // Its first piece.
  std::string TakeOver(const Started& started) {
    std::vector<char> bytes(kPipeSize);
    std::string head;
    m_Page.BeginAnswer(started.id);
    for (ssize_t got = 0; (got = ReadSome(started.reader.Get(), bytes.data(), bytes.size())) > 0;) {
      const std::string_view piece(bytes.data(), static_cast<size_t>(got));
      if (head.empty()) head = piece;
      m_Page.AddJson(piece);
    }
    return head;
  }

  static std::string ReasonIn(const std::string& answer) {
    std::string why;
    const std::optional<Json> object = ReadJson(answer, why);
    const Json error = object && object->is_object() ? object->value("error", Json()) : Json();
    return error.is_object() ? error["message"].get<std::string>() : "the answer breaks off";
  }

  // In the child; false when the answer is a failure.
  bool IsWritten(const std::function<void(Output& out)>& write) const {
    OutputOptions options;
    options.json = true;
    Output out(options);
    out.SetRoot(m_Root);
    try {
      write(out);
      return true;
    } catch (const CommandError& error) {
      out.PrintError(static_cast<int>(error.Code()), error.what());
    } catch (const std::exception& error) {
      out.PrintError(static_cast<int>(ExitCode::kInternal), error.what());
    }
    return false;
  }

  PageWriter& m_Page;
  std::string m_Root = "/";
  std::vector<Started> m_Started;
  size_t m_Collected = 0;
  Json m_Missing = Json::array();
};

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

// Of the present run, and of those that were kept.
void StartTraces(const ReportOptions& options, AnswerCollector& answers) {
  const size_t kept = CountKeptRuns();
  for (TraceSource source; source.run <= kept; ++source.run) {
    answers.Start("trace-" + std::to_string(source.run),
                  [source, most = options.last](Output& out) { WriteTrace(source, most, out); });
  }
}

// Entering a tree is for good, and the comparison enters its own: that is started before. The load of this machine is
// measured before this command makes some.
Json WritePage(const ReportOptions& options, int fd) {
  PageWriter page(fd, options.out);
  AnswerCollector answers(page);
  const bool isOfTree = !options.tree.empty();
  if (!isOfTree) {
    answers.Start("perf", SplitList(kLiveLoad, ' '));
    answers.Collect(answers.Count());
  }
  if (!options.against.empty()) {
    answers.Start("changes", {"inventory", "diff", options.against, isOfTree ? options.tree : kLive});
  }
  if (isOfTree) {
    EnterSysroot(options.tree);
    answers.SetRoot(options.tree);
    answers.Start("perf", {"perf"});
  }
  for (const AnswerRow& row : kAnswers)
    answers.Start(row.id, SplitList(row.command, ' '));
  const size_t small = answers.Count();
  StartTraces(options, answers);
  Json facts = ReadMachineFacts();
  facts["against"] = options.against.empty() ? Json() : Json(options.against);
  facts["of"] = isOfTree ? Json(options.tree) : Json();
  page.BeginAnswer("facts");
  page.AddJson(Dump(facts));
  answers.Collect(small);
  page.AddScripts();
  answers.Collect(answers.Count());
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

// A new file that its owner alone can read, for a report shows what root alone may know; it is whole or not there.
class NewPage {
 public:
  explicit NewPage(const std::string& path)
      : m_Path(path), m_File(::open(path.c_str(), O_CREAT | O_EXCL | O_WRONLY | O_CLOEXEC | O_NOFOLLOW, 0600)) {
    if (!m_File && errno == EEXIST) {
      throw CommandError(ExitCode::kUsage, "the file exists and is not overwritten", path, "choose another name");
    }
    if (!m_File) throw SystemFailure("cannot create the report", path, errno);
  }
  ~NewPage() {
    if (!m_IsWhole) ::unlink(m_Path.c_str());
  }
  NewPage(const NewPage&) = delete;
  NewPage& operator=(const NewPage&) = delete;

  int Get() const { return m_File.Get(); }
  void Finish() {
    if (::fsync(m_File.Get()) != 0) throw SystemFailure("cannot write the report", m_Path, errno);
    m_IsWhole = true;
  }

 private:
  std::string m_Path;
  UniqueFd m_File;
  bool m_IsWhole = false;
};

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
