// completion and man: the bash completion and the manual page, made from the table of commands that the tool parses
// its command line with, so that neither can lack an option.

#include "ravctl/commands/shell_texts.h"

#include "ravctl/core/command.h"

namespace ravctl {

namespace {

std::vector<const CLI::App*> Below(const CLI::App& command) {
  std::vector<const CLI::App*> commands;
  for (const CLI::App* below : command.get_subcommands([](const CLI::App*) { return true; })) {
    if (!below->get_group().empty()) commands.push_back(below);
  }
  return commands;
}

// "--json -o --columns" of the command itself.
std::string OptionWords(const CLI::App& command) {
  std::string words;
  for (const CLI::Option* option : command.get_options()) {
    for (const std::string& name : option->get_snames())
      words += (words.empty() ? "-" : " -") + name;
    for (const std::string& name : option->get_lnames())
      words += (words.empty() ? "--" : " --") + name;
  }
  return words;
}

std::string CommandWords(const CLI::App& command) {
  std::string words;
  for (const CLI::App* below : Below(command))
    words += (words.empty() ? "" : " ") + below->get_name();
  return words;
}

// One case a command: the words that may follow it.
void AppendCompletion(const CLI::App& root, const CLI::App& command, std::string& text) {
  const std::string name = FullName(command);
  std::string words = CommandWords(command);
  if (!words.empty()) words += " ";
  words += OptionWords(command);
  if (&command != &root) words += " " + OptionWords(root);
  text += "    \"" + name + "\") words=\"" + words + "\" ;;\n";
  for (const CLI::App* below : Below(command))
    AppendCompletion(root, *below, text);
}

std::string Completion(const CLI::App& root) {
  std::string text = R"(# bash completion for ravctl; made by: ravctl completion
_ravctl() {
  local current="${COMP_WORDS[COMP_CWORD]}" path="" word words candidate
  COMPREPLY=()
  for word in "${COMP_WORDS[@]:1:COMP_CWORD-1}"; do
    [[ "$word" == -* ]] && continue
    candidate="${path:+$path }$word"
    case "$candidate" in
)";
  std::string names;
  const std::function<void(const CLI::App&)> collect = [&](const CLI::App& command) {
    for (const CLI::App* below : Below(command)) {
      names += (names.empty() ? "\"" : "|\"") + FullName(*below) + "\"";
      collect(*below);
    }
  };
  collect(root);
  text += "      " + names + ") path=\"$candidate\" ;;\n    esac\n  done\n  case \"$path\" in\n";
  AppendCompletion(root, root, text);
  return text + R"(  esac
  COMPREPLY=($(compgen -W "$words" -- "$current"))
  [[ "$current" != -* ]] && COMPREPLY+=($(compgen -f -- "$current"))
}
complete -o filenames -F _ravctl ravctl
)";
}

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

void AppendOptions(const CLI::App& command, std::string& text) {
  for (const CLI::Option* option : command.get_options()) {
    std::string names;
    for (const std::string& name : option->get_snames())
      names += (names.empty() ? "\\fB\\-" : ", \\fB\\-") + Roff(name) + "\\fR";
    for (const std::string& name : option->get_lnames())
      names += (names.empty() ? "\\fB\\-\\-" : ", \\fB\\-\\-") + Roff(name) + "\\fR";
    const bool isPositional = names.empty();
    if (isPositional) names = "\\fI" + Roff(option->get_name()) + "\\fR";
    if (!isPositional && option->get_items_expected() > 0) names += " \\fI" + Roff(option->get_type_name()) + "\\fR";
    text += ".TP\n" + names + "\n" + Roff(option->get_description()) + "\n";
  }
}

void AppendCommand(const CLI::App& command, std::string& text) {
  if (RunFunctionOf(command) != nullptr) {
    text += ".SS ravctl " + Roff(FullName(command)) + "\n" + Roff(command.get_description()) + ".\n";
    AppendOptions(command, text);
    for (const Example& example : TextOf(command).examples)
      text += ".PP\n.nf\n    " + Roff(example.command) + "\n.fi\n.RS 8\n" + Roff(example.meaning) + "\n.RE\n";
  }
  for (const CLI::App* below : Below(command))
    AppendCommand(*below, text);
}

std::string ManualPage(const CLI::App& root) {
  std::string text =
      ".TH RAVCTL 1 \"\" \"ravd " + std::string(RAVCTL_VERSION) +
      "\" \"User Commands\"\n"
      ".SH NAME\nravctl \\- look at and steer what the ravd daemon and its library know of a machine\n"
      ".SH SYNOPSIS\n.B ravctl\n[\\fIglobal options\\fR] \\fICOMMAND\\fR [\\fISUB\\fR] [\\fIoptions\\fR]\n"
      ".SH DESCRIPTION\n" +
      Roff(root.get_description()) + "\n.SH GLOBAL OPTIONS\n";
  AppendOptions(root, text);
  text += ".SH COMMANDS\n";
  AppendCommand(root, text);
  return text + ".SH EXIT STATUS\n" + Roff(root.get_footer()) + "\n.SH SEE ALSO\n.BR ravd (8)\n";
}

}  // namespace

void RegisterShellTexts(CLI::App& root) {
  CLI::App* top = &root;
  AddCommand(root,
             {"completion",
              "Print the bash completion",
              {{"source <(ravctl completion)", "complete in this shell"},
               {"ravctl completion > /etc/bash_completion.d/ravctl", "complete in every shell"}}},
             [top](Output& out) {
               const std::string text = Completion(*top);
               out.Print({"text"}, text, text);
               return ExitCode::kDone;
             });
  AddCommand(root, {"man", "Print the manual page", {{"ravctl man | man -l -", "read it"}}}, [top](Output& out) {
    const std::string text = ManualPage(*top);
    out.Print({"text"}, text, text);
    return ExitCode::kDone;
  });
}

}  // namespace ravctl
