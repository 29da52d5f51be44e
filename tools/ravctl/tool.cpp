#include "ravctl/tool.h"

#include <fcntl.h>
#include <langinfo.h>
#include <unistd.h>

#include <algorithm>
#include <clocale>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <stdexcept>
#include <string_view>

#include "ravctl/base/text.h"
#include "ravctl/commands/all_commands.h"
#include "ravctl/commands/schema.h"
#include "ravctl/line/command.h"
#include "ravctl/line/parse.h"
#include "ravctl/tree/enter.h"
#include "ravctl/tree/live_answers.h"

namespace ravctl {

namespace {

struct GlobalOptions {
  OutputOptions output;
  std::string sysroot;  // empty: this machine
};

int Status(ExitCode code) {
  return static_cast<int>(code);
}

// The failure on the standard error, and in the answer where it is JSON.
int Fail(ExitCode code, const std::string& line, Output& out) {
  out.PrintError(Status(code), line);
  out.Flush();
  std::fprintf(stderr, "ravctl: %s\n", line.c_str());
  return Status(code);
}

void AddGlobalOptions(Command& root, GlobalOptions& global) {
  OutputOptions& options = global.output;
  root.AddFlag("--json", &options.json,
               "One JSON object {schema, version, root, data, warnings}, of a failure {..., data: null, error: {code, "
               "message}}; one a line from what follows or watches");
  root.AddFlag("--csv", &options.csv, "Tables as comma-separated values (RFC 4180) with the keys of the columns on top")
      .excludes = "--json";
  root.AddOption("-o,--columns", &options.columns, "LIST",
                 "Columns of a table: a list such as name,size, or +name for one more");
  root.AddRequest("--list-columns", Ask::kColumns, "List the columns of the command with their meaning");
  const auto setColor = [&options](const std::string& when) {
    options.color = when == "always" ? ColorMode::kAlways : when == "never" ? ColorMode::kNever : ColorMode::kAuto;
  };
  root.AddOption("--color", setColor, "WHEN", "auto (the usual: on a terminal and without NO_COLOR), always or never",
                 OneOf({"auto", "always", "never"}));
  root.AddFlag("--no-headings", &options.noHeadings, "Tables without their first line");
  root.AddOption("--sysroot", &global.sysroot, "TREE",
                 "Answer for another machine, from its files: a directory or a bundle (see ravctl bundle)");
  root.AddRequest("-V,--version", Ask::kVersion, "Show the version");
}

std::vector<std::string> CommandWords(const Command& command) {
  std::vector<std::string> words;
  for (const Command& below : command.Below())
    words.push_back(below.Name());
  return words;
}

std::vector<std::string> OptionWords(const Command& command) {
  std::vector<std::string> words;
  for (const Command* level = &command; level != nullptr; level = level->Above()) {
    for (const Option& option : level->Options()) {
      const size_t name = option.names.find("--");
      if (name != std::string::npos) words.push_back(option.names.substr(name));
    }
  }
  return words;
}

std::string Called(const Command& command) {
  const std::string name = command.FullName();
  return name.empty() ? "ravctl" : "ravctl " + name;
}

std::string Advice(const Command& command) {
  return "see " + Called(command) + " --help";
}

CommandError Unknown(const Command& command, const std::string& word) {
  const bool isOption = word.starts_with('-');
  const std::vector<std::string> known = isOption ? OptionWords(command) : CommandWords(command);
  const char* what = isOption ? "unknown option" : known.empty() ? "unexpected word" : "unknown command";
  return {ExitCode::kUsage, what, word, DidYouMean(word.substr(0, word.find('=')), known, Advice(command))};
}

CommandError MissingCommand(const Command& command) {
  std::string list;
  for (const std::string& word : CommandWords(command))
    list += (list.empty() ? "" : ", ") + word;
  return {ExitCode::kUsage, "a command is missing", Called(command), "one of " + list + "; " + Advice(command)};
}

void EnterTree(const CommandText& command, const std::string& tree, Output& out) {
  if (command.effect != Effect::kReads) {
    throw CommandError(ExitCode::kUsage, "it does more than read a captured tree", "--sysroot " + tree,
                       "leave the option out");
  }
  EnterSysroot(tree);
  out.SetRoot(tree);
  if (!command.liveOnly.empty() && !HasCapturedAnswers()) {
    out.Warn("a captured tree cannot hold what only a running kernel tells", command.liveOnly,
             "ask on the machine itself");
  }
}

ExitCode Say(const std::string& text, Output& out) {
  out.Write(text);
  return ExitCode::kDone;
}

ExitCode RunCommand(const Command& command, const GlobalOptions& options, bool wantsColumns, Output& out) {
  if (command.IsGroup()) throw MissingCommand(command);
  try {
    if (options.output.csv && command.Columns().empty()) {
      throw CommandError(ExitCode::kUsage, "the answer is no table", "--csv", "leave the option out");
    }
    if (wantsColumns) return ListColumns(command, out);
    if (!options.sysroot.empty()) EnterTree(command.Text(), options.sysroot, out);
    return command.Run(out);
  } catch (const CommandError& error) {
    throw CommandError(error.Code(), command.FullName() + ": " + error.what(), "", "");
  }
}

ExitCode Run(const ParsedLine& line, const GlobalOptions& options, Output& out) {
  switch (line.kind) {
    case ParsedLine::Kind::kHelp:
      return Say(line.text, out);
    case ParsedLine::Kind::kVersion:
      return Say("ravctl " RAVCTL_VERSION "\n", out);
    case ParsedLine::Kind::kUnknown:
      throw Unknown(*line.command, line.text);
    case ParsedLine::Kind::kFault: {
      const std::string name = line.command->FullName();
      throw CommandError(ExitCode::kUsage, line.text, name.empty() ? "ravctl" : name, Advice(*line.command));
    }
    case ParsedLine::Kind::kCommand:
    case ParsedLine::Kind::kColumns:
      break;
  }
  return RunCommand(*line.command, options, line.kind == ParsedLine::Kind::kColumns, out);
}

// An answer that is not whole must not look like one, whatever the command says.
int RunToItsEnd(const ParsedLine& line, const GlobalOptions& options, Output& out) {
  try {
    const ExitCode code = Run(line, options, out);
    out.Flush();
    if (out.WriteError() == 0) return Status(code);
    return Fail(ExitCode::kNotWritten, OneLine("cannot write the answer", std::strerror(out.WriteError()), ""), out);
  } catch (const CommandError& error) {
    return Fail(error.Code(), error.what(), out);
  } catch (const std::exception& error) {
    return Fail(ExitCode::kInternal, OneLine("internal fault", error.what(), "please report it"), out);
  }
}

// What was not understood fills no option.
bool AsksForJson(const ParsedLine& line, int argc, char** argv) {
  const bool isFault = line.kind == ParsedLine::Kind::kUnknown || line.kind == ParsedLine::Kind::kFault;
  return isFault && std::any_of(argv, argv + argc, [](std::string_view word) { return word == "--json"; });
}

// All texts are UTF-8, and what draws tables does not end on a character that the locale does not have: the caller's
// locale counts where it is one of UTF-8, and one of the system's own elsewhere.
void SetCharacters() {
  std::setlocale(LC_CTYPE, "");
  if (std::string_view(::nl_langinfo(CODESET)) != "UTF-8") std::setlocale(LC_CTYPE, "C.UTF-8");
}

// Where a standard stream is closed, no file that is opened later takes its number and gets what is meant for it: that
// still cannot be written.
void KeepStandardNumbers() {
  int opened = 0;
  while (opened >= 0 && opened <= STDERR_FILENO)
    opened = ::open("/dev/null", O_RDONLY);
  if (opened > STDERR_FILENO) ::close(opened);
}

}  // namespace

int RunTool(int argc, char** argv) {
  KeepStandardNumbers();
  SetCharacters();
  std::signal(SIGPIPE, SIG_IGN);
  Command root({"ravctl", "Look at and steer what the ravd service daemon and its library know of this machine."},
               "Exit status: 0 done, 1 nothing or a difference found, 2 usage, 3 permission, 4 input missing, "
               "5 input damaged, 6 daemon not running, 7 answer not written, 70 internal.\n"
               "ravctl COMMAND --help tells more and gives examples.");
  GlobalOptions options;
  AddGlobalOptions(root, options);
  AddAllCommands(root);
  const ParsedLine line = ParseLine(root, argc, argv);
  options.output.json = options.output.json || AsksForJson(line, argc, argv);
  Output out(options.output);
  return RunToItsEnd(line, options, out);
}

}  // namespace ravctl
