// report: a page of a machine for people to look at, made of what the other commands answer.

#include "ravctl/commands/report.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

#include "platform/unique_fd.h"
#include "ravctl/answer/json.h"
#include "ravctl/base/child.h"
#include "ravctl/base/json_reader.h"
#include "ravctl/base/text.h"
#include "ravctl/commands/all_commands.h"
#include "ravctl/line/command.h"
#include "ravctl/line/parse.h"
#include "ravctl/report/machine_facts.h"
#include "ravctl/report/page.h"
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
    {"answer", kText, "the command whose answer is not there"},
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

// An answer of the page, and the command that gives it: of this machine, and of a captured tree.
struct AnswerRow {
  const char* id;
  const char* command;
  const char* inTree;
};

constexpr auto kAnswers = std::to_array<AnswerRow>({
    {"status", "daemon status", "daemon status"},
    {"doctor", "doctor", "doctor"},
    {"inventory", "inventory", "inventory"},
    {"slots", "slots --onboard", "slots --onboard"},
    {"pci", "pci", "pci"},
    {"memory", "smbios show 17", "smbios show 17"},
    {"net", "net list", "net list"},
    {"perf", "perf --interval 0.2 --count 6", "perf"},
    {"runs", "trace list", "trace list"},
});

// What was written to a file in memory, without a copy: a trace is large.
class MappedAnswer {
 public:
  MappedAnswer(int fd, size_t size)
      : m_Size(size), m_Bytes(size == 0 ? nullptr : ::mmap(nullptr, size, PROT_READ, MAP_SHARED, fd, 0)) {
    if (m_Bytes == MAP_FAILED) throw SystemFailure("cannot collect the answers", "mmap", errno);
  }
  ~MappedAnswer() {
    if (m_Bytes != nullptr) ::munmap(m_Bytes, m_Size);
  }
  MappedAnswer(const MappedAnswer&) = delete;
  MappedAnswer& operator=(const MappedAnswer&) = delete;

  std::string_view Text() const { return {static_cast<const char*>(m_Bytes), m_Size}; }

 private:
  size_t m_Size;
  void* m_Bytes;
};

// Runs commands as the command line would with --json, and puts their answers into the page. The standard output of
// the process is where they write from then on, and nothing is said on its standard error: a failure and each warning
// are part of the answer.
class AnswerCollector {
 public:
  explicit AnswerCollector(PageWriter& page) : m_Page(page), m_Answer(::memfd_create("answer", MFD_CLOEXEC)) {
    const UniqueFd null(::open("/dev/null", O_WRONLY | O_CLOEXEC));
    if (!m_Answer || !null || ::dup2(m_Answer.Get(), STDOUT_FILENO) < 0 || ::dup2(null.Get(), STDERR_FILENO) < 0) {
      throw SystemFailure("cannot collect the answers", "memfd", errno);
    }
  }

  void SetRoot(const std::string& root) { m_Root = root; }

  void Add(const std::string& id, std::vector<std::string> words) {
    Rewind();
    Run(words);
    const off_t size = ::lseek(m_Answer.Get(), 0, SEEK_END);
    const MappedAnswer json(m_Answer.Get(), size < 0 ? 0 : static_cast<size_t>(size));
    m_Page.AddAnswer(id, json.Text());
    ++m_Count;
  }

  size_t Count() const { return m_Count; }
  const Json& Missing() const { return m_Missing; }

 private:
  void Rewind() const {
    if (::ftruncate(m_Answer.Get(), 0) != 0 || ::lseek(m_Answer.Get(), 0, SEEK_SET) != 0) {
      throw SystemFailure("cannot collect the answers", "memfd", errno);
    }
  }

  void Run(std::vector<std::string>& words) {
    OutputOptions options;
    options.json = true;
    Output out(options);
    out.SetRoot(m_Root);
    Command root({"ravctl", ""}, "");
    AddAllCommands(root);
    std::vector<char*> argv{const_cast<char*>("ravctl")};
    for (std::string& word : words)
      argv.push_back(word.data());
    argv.push_back(nullptr);
    const ParsedLine line = ParseLine(root, static_cast<int>(argv.size()) - 1, argv.data());
    const std::string name = line.command->FullName();
    try {
      if (line.kind != ParsedLine::Kind::kCommand) throw CommandError(ExitCode::kInternal, line.text, "", "");
      if (IsInSysroot() && line.command->Text().effect != Effect::kReads) {
        throw CommandError(ExitCode::kInputMissing, "a captured tree does not tell", "", "ask on the machine itself");
      }
      line.command->Run(out);
    } catch (const CommandError& error) {
      Fail(error.Code(), name, error.what(), out);
    } catch (const std::exception& error) {
      Fail(ExitCode::kInternal, name, error.what(), out);
    }
  }

  void Fail(ExitCode code, const std::string& command, const std::string& why, Output& out) {
    out.PrintError(static_cast<int>(code), command + ": " + why);
    m_Missing.push_back({{"answer", command}, {"reason", why}});
  }

  PageWriter& m_Page;
  UniqueFd m_Answer;
  std::string m_Root = "/";
  size_t m_Count = 0;
  Json m_Missing = Json::array();
};

// Where the entries of each file of a run begin and end, by which the page shows what wraps have overwritten:
// [{file, wrapped, first, last}]. Why a file cannot be read, the answer of the entries says.
Json FilesOfRun(size_t number) try {
  Json files = Json::array();
  TraceSource source;
  source.run = number;
  for (const TraceFile& file : ReadTraceFiles(source)) {
    std::string_view first, last;
    for (const std::string_view part : file.Layout().parts) {
      ForEachEntry(part, [&](std::string_view whole) {
        last = whole.substr(0, kTimeLength);
        if (first.empty()) first = last;
        return true;
      });
    }
    if (first.empty()) continue;
    files.push_back({{"file", file.Path()}, {"wrapped", file.Layout().hasWrapped}, {"first", first}, {"last", last}});
  }
  return files;
} catch (const CommandError&) {
  return Json::array();
}

size_t CountKeptRuns() try {
  return std::min(FindKeptRuns(DirectoryOf(TraceSource())).size(), kMostKeptRuns);
} catch (const CommandError&) {
  return 0;  // the list of the runs says why
}

std::string Dump(const Json& json) {
  return json.dump(-1, ' ', false, Json::error_handler_t::replace);
}

// Of the present run, and of those that were kept.
void AddTraces(const ReportOptions& options, PageWriter& page, AnswerCollector& answers) {
  const size_t kept = CountKeptRuns();
  for (size_t number = 0; number <= kept; ++number) {
    const std::string run = std::to_string(number);
    page.AddAnswer("files-" + run, Dump({{"data", FilesOfRun(number)}, {"warnings", Json::array()}}));
    std::vector<std::string> show = {"trace", "show", "--run", run};
    if (options.last > 0) show.insert(show.end(), {"-n", std::to_string(options.last)});
    answers.Add("trace-" + run, show);
  }
}

// Entering a tree is for good, and the comparison enters its own: that comes first.
Json WritePage(const ReportOptions& options, int fd) {
  PageWriter page(fd, options.out);
  AnswerCollector answers(page);
  const bool isOfTree = !options.tree.empty();
  if (!options.against.empty()) {
    answers.Add("changes", {"inventory", "diff", options.against, isOfTree ? options.tree : kLive});
  }
  if (isOfTree) {
    EnterSysroot(options.tree);
    answers.SetRoot(options.tree);
  }
  Json facts = ReadMachineFacts();
  facts["against"] = options.against.empty() ? Json() : Json(options.against);
  facts["of"] = isOfTree ? Json(options.tree) : Json();
  page.AddAnswer("facts", Dump(facts));
  for (const AnswerRow& row : kAnswers)
    answers.Add(row.id, SplitList(isOfTree ? row.inTree : row.command, ' '));
  page.AddScripts();
  AddTraces(options, page, answers);
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
    out.Warn("not in the report", missing["answer"].get<std::string>() + ": " + missing["reason"].get<std::string>());
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
