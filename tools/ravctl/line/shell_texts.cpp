// completion and man: the completions and the manual page, made from the table of commands that the tool parses
// its command line with, so that neither can lack an option.

#include "ravctl/line/shell_texts.h"

#include <array>
#include <string_view>

#include "ravctl/answer/json.h"
#include "ravctl/base/text.h"
#include "ravctl/line/command.h"
#include "ravctl/line/completion.h"

namespace ravctl {

namespace {

constexpr Schema kTextAnswer = {"text", 1, kText};

// Text of a manual page: what troff would take for its own is escaped.
std::string Roff(const std::string& text) {
  std::string out;
  for (const char character : text) {
    if (character == '\\') {
      out += "\\e";
    } else if (character == '-') {
      out += "\\-";
    } else if ((character == '.' || character == '\'') && (out.empty() || out.back() == '\n')) {
      out += "\\&";
      out += character;
    } else {
      out += character;
    }
  }
  return out;
}

// A paragraph in lines of the length that manual pages keep to.
std::string Filled(std::string_view paragraph) {
  constexpr size_t kLineLength = 72;
  std::string lines;
  size_t column = 0;
  while (!paragraph.empty()) {
    const std::string_view word = paragraph.substr(0, paragraph.find_first_of(" \n"));
    paragraph.remove_prefix(std::min(word.size() + 1, paragraph.size()));
    if (word.empty()) continue;
    const bool isNewLine = column + 1 + word.size() > kLineLength;
    if (!lines.empty()) lines += isNewLine ? '\n' : ' ';
    column = isNewLine ? word.size() : column + 1 + word.size();
    lines += word;
  }
  return Roff(lines);
}

void AppendOptions(const Command& command, std::string& text) {
  for (const Option& option : command.Options()) {
    std::string names;
    for (const std::string& name : SplitList(option.names))
      names += (names.empty() ? "" : ", ") + (option.IsWord() ? "\\fI" : std::string("\\fB")) + Roff(name) + "\\fR";
    if (!option.type.empty()) names += " \\fI" + Roff(option.type) + "\\fR";
    text += ".TP\n" + names + "\n" + Filled(option.meaning) + "\n";
  }
}

void AppendCommand(const Command& command, std::string& text) {
  if (!command.IsGroup()) {
    text += ".SS ravctl " + Roff(command.FullName()) + "\n" + Filled(command.Text().summary + ".") + "\n";
    AppendOptions(command, text);
    std::string columns;
    for (const Field* field : command.Columns())
      columns += (columns.empty() ? "Columns: " : ", ") + std::string(field->key);
    if (!columns.empty()) text += ".PP\n" + Filled(columns + ".") + "\n";
    for (const Example& example : command.Text().examples)
      text += ".PP\n.nf\n    " + Roff(example.command) + "\n.fi\n.RS 8\n" + Filled(example.meaning) + "\n.RE\n";
  }
  for (const Command& below : command.Below())
    AppendCommand(below, text);
}

// What a section lists: "\fB/etc/pelrix/registry\fR" and what it is.
struct Item {
  std::string_view name;
  std::string_view meaning;
};

constexpr auto kFiles = std::to_array<Item>({
    {"/var/log/pelrix", "trace files, unless the trace configuration names another directory; see ravd-trace(5)"},
    {"/etc/norrow/QuennetSuite/TraceConfig", "trace configuration; see ravd-trace-config(5)"},
    {"/etc/pelrix/registry", "registry store of the modules; see ravd-registry(5)"},
    {"/etc/pelrix/Adapter.ini", "names of adapters; see ravd-ini(5)"},
    {"/var/run/ravd.pid", "process of the running daemon"},
    {"/var/lock/ravd.lock", "lock of the running daemon"},
});

constexpr auto kEnvironment = std::to_array<Item>({
    {"NO_COLOR", "when set and not empty, tables have no colors unless --color asks for them"},
    {"TERM", "\"dumb\" means no colors"},
    {"LD_LIBRARY_PATH", "where module check and module run look for the libraries that a module needs"},
    {"QN_LOG_RINGBUF_DIR",
     "directory of the trace files while no daemon runs; this and the other trace settings are described in "
     "ravd-trace-config(5)"},
});

constexpr auto kExitStatus = std::to_array<Item>({
    {"0", "done"},
    {"1", "nothing or a difference found"},
    {"2", "usage: the command line is wrong"},
    {"3", "permission: the caller may not do that"},
    {"4", "input missing: a file does not exist or cannot be read"},
    {"5", "input damaged; what could be read was printed"},
    {"6", "the daemon is not running"},
    {"7", "the answer could not be written to its end: a full disk, a closed output"},
    {"70", "internal: a fault of the tool itself"},
});

constexpr auto kExamples = std::to_array<Item>({
    {"ravctl daemon status", "does the daemon run, since when, with which switch"},
    {"ravctl doctor", "check everything that the daemon needs"},
    {"ravctl trace show --since 5m -g ERROR", "errors of the last five minutes"},
    {"ravctl trace stats --json | jq .data", "the same trace in figures, for a script"},
});

template <size_t kNumber>
void AppendItems(const char* heading, const std::array<Item, kNumber>& items, std::string& text) {
  text += std::string(".SH ") + heading + "\n";
  for (const Item& item : items)
    text += ".TP\n\\fB" + Roff(std::string(item.name)) + "\\fR\n" + Filled(item.meaning) + "\n";
}

std::string ManualPage(const Command& root) {
  std::string text =
      ".TH RAVCTL 1 \"" RAVCTL_DATE "\" \"ravd " RAVCTL_VERSION
      "\" \"User Commands\"\n"
      ".SH NAME\nravctl \\- client of the service daemon ravd and of its library\n"
      ".SH SYNOPSIS\n.B ravctl\n[\\fIglobal options\\fR] \\fICOMMAND\\fR [\\fISUB\\fR] [\\fIoptions\\fR]\n"
      ".SH DESCRIPTION\n" +
      Filled(root.Text().summary) + "\n.SH GLOBAL OPTIONS\n";
  AppendOptions(root, text);
  text += ".SH COMMANDS\n";
  for (const Command& below : root.Below())
    AppendCommand(below, text);
  AppendItems("ENVIRONMENT", kEnvironment, text);
  AppendItems("FILES", kFiles, text);
  AppendItems("EXIT STATUS", kExitStatus, text);
  AppendItems("EXAMPLES", kExamples, text);
  return text +
         ".SH SEE ALSO\n.BR ravd (8),\n.BR ravd\\-ini (5),\n.BR ravd\\-registry (5),\n.BR ravd\\-trace (5),\n"
         ".BR ravd\\-trace\\-config (5)\n";
}

}  // namespace

void AddShellTexts(Command& root) {
  Command* top = &root;
  auto shell = std::make_shared<std::string>("bash");
  Command& completion =
      root.Add({"completion",
                "Print the completion for a shell",
                {{"source <(ravctl completion)", "complete in this shell"},
                 {"ravctl completion fish > ~/.config/fish/completions/ravctl.fish", "in every fish"}}},
               [top, shell](Output& out) {
                 const std::string text = CompletionText(*top, *shell);
                 out.Print(kTextAnswer, text, text);
                 return ExitCode::kDone;
               });
  completion.Answers({&kTextAnswer});
  completion.AddWord("SHELL", shell.get(), "bash (the usual), zsh or fish", OneOf({"bash", "zsh", "fish"}));
  Command& man = root.Add({"man", "Print the manual page", {{"ravctl man | man -l -", "read it"}}}, [top](Output& out) {
    const std::string text = ManualPage(*top);
    out.Print(kTextAnswer, text, text);
    return ExitCode::kDone;
  });
  man.Answers({&kTextAnswer});
}

}  // namespace ravctl
