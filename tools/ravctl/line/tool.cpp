#include "ravctl/line/tool.h"

#include <clocale>
#include <csignal>
#include <cstdio>
#include <stdexcept>

#include "ravctl/base/text.h"
#include "ravctl/commands/all_commands.h"
#include "ravctl/line/command.h"
#include "ravctl/tree/enter.h"

namespace ravctl {

namespace {

struct GlobalOptions {
  OutputOptions output;
  std::string sysroot;  // empty: this machine
};

int Status(ExitCode code) {
  return static_cast<int>(code);
}

int Report(ExitCode code, const std::string& line) {
  std::fprintf(stderr, "ravctl: %s\n", line.c_str());
  return Status(code);
}

void AddGlobalOptions(CLI::App& root, GlobalOptions& global) {
  OutputOptions& options = global.output;
  root.add_flag("--json", options.json,
                "One JSON object {schema, version, root, data, warnings}; one a line from "
                "what follows or watches");
  root.add_option("-o,--columns", options.columns,
                  "Columns of a table: a list such as name,size, or +name for one more")
      ->type_name("LIST");
  root.add_option_function<std::string>(
          "--color",
          [&options](const std::string& when) {
            options.color = when == "always"  ? ColorMode::kAlways
                            : when == "never" ? ColorMode::kNever
                                              : ColorMode::kAuto;
          },
          "auto (the usual: on a terminal and without NO_COLOR), always or never")
      ->type_name("WHEN")
      ->check(CLI::IsMember({"auto", "always", "never"}).description(""));
  root.add_flag("--no-headings", options.noHeadings, "Tables without their first line");
  root.add_option("--sysroot", global.sysroot,
                  "Answer for another machine, from its files: a directory or a bundle (see ravctl bundle)")
      ->type_name("TREE");
  root.set_version_flag("-V,--version", std::string("ravctl ") + RAVCTL_VERSION, "Show the version");
  root.set_help_flag("-h,--help", "Show the help of the command");
}

// The innermost command of the line.
CLI::App& Chosen(CLI::App& root) {
  CLI::App* command = &root;
  for (std::vector<CLI::App*> below = command->get_subcommands(); !below.empty(); below = command->get_subcommands())
    command = below.front();
  return *command;
}

std::vector<std::string> Words(const CLI::App& command, bool wantsOptions) {
  std::vector<std::string> words;
  if (!wantsOptions) {
    for (const CLI::App* below : command.get_subcommands([](const CLI::App*) { return true; })) {
      if (!below->get_group().empty()) words.push_back(below->get_name());
    }
    return words;
  }
  for (const CLI::App* level = &command; level != nullptr; level = level->get_parent()) {
    for (const CLI::Option* option : level->get_options()) {
      for (const std::string& name : option->get_lnames())
        words.push_back("--" + name);
    }
  }
  return words;
}

std::string Advice(const CLI::App& command) {
  const std::string name = FullName(command);
  return "see ravctl " + (name.empty() ? "" : name + " ") + "--help";
}

int ReportUnknown(const CLI::App& root, const CLI::App& command) {
  const std::vector<std::string> rest = root.remaining(true);
  const std::string word = rest.empty() ? "" : rest.front();
  const bool isOption = word.starts_with('-');
  const std::string nearest = NearestMatch(word.substr(0, word.find('=')), Words(command, isOption));
  const char* what = isOption                        ? "unknown option"
                     : Words(command, false).empty() ? "unexpected word"
                                                     : "unknown command";
  return Report(ExitCode::kUsage,
                OneLine(what, word, nearest.empty() ? Advice(command) : "did you mean " + nearest + "?"));
}

int ReportMissingCommand(const CLI::App& command) {
  std::string list;
  for (const std::string& word : Words(command, false))
    list += (list.empty() ? "" : ", ") + word;
  const std::string name = FullName(command);
  return Report(ExitCode::kUsage, OneLine("a command is missing", "ravctl" + (name.empty() ? "" : " " + name),
                                          "one of " + list + "; " + Advice(command)));
}

// 0 when the line was understood and a command is to run; a status otherwise, with isDone set.
int Parse(CLI::App& root, int argc, char** argv, bool& isDone) {
  isDone = true;
  try {
    root.parse(argc, argv);
  } catch (const CLI::CallForHelp&) {
    std::fputs(root.help().c_str(), stdout);
    return 0;
  } catch (const CLI::CallForVersion&) {
    std::printf("ravctl %s\n", RAVCTL_VERSION);
    return 0;
  } catch (const CLI::ExtrasError&) {
    return ReportUnknown(root, Chosen(root));
  } catch (const CLI::ParseError& error) {
    const CLI::App& command = Chosen(root);
    const std::string name = FullName(command);
    return Report(ExitCode::kUsage, OneLine(error.what(), name.empty() ? "ravctl" : name, Advice(command)));
  }
  isDone = false;
  return 0;
}

void EnterTree(const CommandText& command, const std::string& tree, Output& out) {
  if (command.effect != Effect::kReads) {
    throw CommandError(ExitCode::kUsage, "it does more than read a captured tree", "--sysroot " + tree,
                       "leave the option out");
  }
  EnterSysroot(tree);
  out.SetRoot(tree);
  if (!command.liveOnly.empty()) {
    out.Warn("a captured tree cannot hold what only a running kernel tells", command.liveOnly,
             "ask on the machine itself");
  }
}

int Run(CLI::App& root, const GlobalOptions& options) {
  const CLI::App& command = Chosen(root);
  const RunFunction* run = RunFunctionOf(command);
  if (run == nullptr) return ReportMissingCommand(command);
  Output out(options.output);
  try {
    if (!options.sysroot.empty()) EnterTree(TextOf(command), options.sysroot, out);
    return Status((*run)(out));
  } catch (const CommandError& error) {
    out.Flush();
    return Report(error.Code(), FullName(command) + ": " + error.what());
  }
}

}  // namespace

int RunTool(int argc, char** argv) {
  std::setlocale(LC_CTYPE, "");
  std::signal(SIGPIPE, SIG_IGN);
  try {
    CLI::App root("Look at and steer what the ravd service daemon and its library know of this machine.", "ravctl");
    root.require_subcommand(0, 1);
    root.footer(
        "Exit status: 0 done, 1 nothing or a difference found, 2 usage, 3 permission, 4 input missing,\n"
        "5 input damaged, 6 daemon not running, 70 internal.\nravctl COMMAND --help tells more and gives examples.");
    GlobalOptions options;
    AddGlobalOptions(root, options);
    RegisterAllCommands(root);
    bool isDone = false;
    const int status = Parse(root, argc, argv, isDone);
    return isDone ? status : Run(root, options);
  } catch (const std::exception& error) {
    return Report(ExitCode::kInternal, OneLine("internal fault", error.what(), "please report it"));
  }
}

}  // namespace ravctl
