#include "ravctl/line/command.h"

#include <map>
#include <stdexcept>

namespace ravctl {

namespace {

struct CommandRecord {
  RunFunction run;
  CommandText text;
};

std::map<const CLI::App*, CommandRecord>& Records() {
  static std::map<const CLI::App*, CommandRecord> records;
  return records;
}

std::string Footer(const std::vector<Example>& examples) {
  std::string text = "Examples:";
  for (const Example& example : examples)
    text += "\n  " + example.command + "\n      " + example.meaning;
  return text;
}

CLI::App& AddSubcommand(CLI::App& parent, const std::string& name, const std::string& summary) {
  CLI::App& command = *parent.add_subcommand(name, summary);
  command.fallthrough();             // global options are understood behind the command too
  command.require_subcommand(0, 1);  // one command a call; a missing one is reported by name in RunTool
  return command;
}

}  // namespace

CLI::App& AddCommand(CLI::App& parent, const CommandText& text, RunFunction run) {
  if (text.examples.empty()) throw std::logic_error("no example for the command " + text.name);
  CLI::App& command = AddSubcommand(parent, text.name, text.summary);
  command.footer(Footer(text.examples));
  Records()[&command] = {std::move(run), text};
  return command;
}

CLI::App& AddGroup(CLI::App& parent, const std::string& name, const std::string& summary) {
  return AddSubcommand(parent, name, summary);
}

const RunFunction* RunFunctionOf(const CLI::App& command) {
  const auto found = Records().find(&command);
  return found != Records().end() ? &found->second.run : nullptr;
}

const CommandText& TextOf(const CLI::App& command) {
  static const CommandText none;
  const auto found = Records().find(&command);
  return found != Records().end() ? found->second.text : none;
}

std::string FullName(const CLI::App& command) {
  const CLI::App* parent = command.get_parent();
  if (parent == nullptr) return "";
  const std::string above = FullName(*parent);
  return above.empty() ? command.get_name() : above + " " + command.get_name();
}

}  // namespace ravctl
