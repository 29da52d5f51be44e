#pragma once

#include <functional>
#include <list>
#include <optional>
#include <string>
#include <variant>
#include <vector>

#include "ravctl/answer/output.h"
#include "ravctl/base/error.h"
#include "ravctl/base/exit_code.h"

// How to add a command
//
// 1. Write commands/thing/list.cpp, for `ravctl thing list`, with `void AddThingList(Command& thing);`:
//
//      struct Options { std::string what; };
//
//      ExitCode Run(const Options& options, Output& out) {
//        Table table(kThingFields);
//        table.Add({{"name", "a"}, {"bytes", 4}});
//        out.Print(kThingList, table);
//        return table.Size() > 0 ? ExitCode::kDone : ExitCode::kNothingOrDifferent;
//      }
//
//      void AddThingList(Command& thing) {
//        auto options = std::make_shared<Options>();
//        Command& list = thing.Add({"list", "List the things", {{"ravctl thing list a*", "those with a"}}},
//                                  [options](Output& out) { return Run(*options, out); });
//        list.Answers({&kThingList});
//        list.AddWord("PATTERN", &options->what, "Which things");
//      }
//
// 2. Describe its records in commands/thing/fields.cpp, as answer/field.h shows; the tests hold every answer against
// that.
// 3. Call it in commands/all_commands.cpp, where the groups are made.
//
// The options given here are the one table from which the help, the manual page and the completion are made. A command
// without an example does not register. Global options (--json, -o, --color...) may stand anywhere on the command line.
namespace ravctl {

struct Example {
  std::string command;  // "ravctl trace show -n 20"
  std::string meaning;  // "the newest 20 entries"
};

enum class Effect {
  kReads,    // it answers for a captured tree as well
  kChanges,  // it changes, starts or waits for something of the running machine: --sysroot is refused
};

struct CommandText {
  std::string name;
  std::string summary;  // "Show the entries of a trace file"
  std::vector<Example> examples = {};
  Effect effect = Effect::kReads;
  // What of the answer the kernel tells by calls alone, so that a captured tree cannot hold it: "drive inquiries".
  // With --sysroot it is warned of.
  std::string liveOnly = {};
};

// What is wrong with a value, "" when nothing is.
struct Check : std::function<std::string(const std::string& value)> {
  using function::function;
  std::vector<std::string> values = {};  // all that are good, when they can be listed
};
Check InRange(double low, double high);
Check Above(double limit);
Check NotNegative();
Check OneOf(std::vector<std::string> values);

enum class Ask { kHelp, kVersion, kColumns };

// Where a value goes; it must outlive the parsing. What is not on the line stays as it is. A list collects the values
// of a repeated option, or all the words that are left; a function takes the value itself.
using Target =
    std::variant<Ask, bool*, int*, unsigned int*, size_t*, double*, std::string*, std::vector<std::string>*,
                 std::optional<size_t>*, std::optional<std::string>*, std::function<void(const std::string&)>>;

// One row of a command's table of options.
struct Option {
  std::string names;  // "-n,--last"; "FILE" for a word
  Target target;
  std::string meaning;
  std::string type = {};  // what the help calls its value: "N"
  Check check = {};
  bool isRequired = false;
  std::string excludes = {};  // "--ipv4"
  std::string implied = {};   // the value of the option's name alone, where one may be left out
  std::string offered = {};   // a command whose lines are values that the completion offers

  bool IsWord() const { return !names.starts_with('-'); }
  bool IsFlag() const { return std::holds_alternative<bool*>(target) || std::holds_alternative<Ask>(target); }
};

// Runs after the command line was understood. Failures are thrown as CommandError.
using RunFunction = std::function<ExitCode(Output& out)>;

// A word of the command line: a command, or a group that only has commands below it.
class Command {
 public:
  // The root; what is below is added to it.
  Command(CommandText text, std::string footer);
  Command(const Command* above, CommandText text, RunFunction run);
  Command(const Command&) = delete;
  Command& operator=(const Command&) = delete;

  Command& Add(const CommandText& text, RunFunction run);
  Command& AddGroup(const std::string& name, const std::string& summary);

  // The forms that its answers have; the usual one first.
  Command& Answers(std::vector<const Schema*> schemas);

  // "--dry-run"
  Option& AddFlag(const std::string& names, bool* isSet, const std::string& meaning);
  // "-n,--last" with a value that the help calls type
  Option& AddOption(const std::string& names, Target value, const std::string& type, const std::string& meaning,
                    Check check = {});
  // "FILE", by its place alone
  Option& AddWord(const std::string& name, Target value, const std::string& meaning, Check check = {});
  Option& AddRequired(const std::string& name, Target value, const std::string& meaning, Check check = {});
  Option& AddRequest(const std::string& names, Ask what, const std::string& meaning);

  const CommandText& Text() const { return m_Text; }
  const std::string& Name() const { return m_Text.name; }
  // "trace show"; empty for the root
  std::string FullName() const;
  // Behind the options in the help: the examples.
  const std::string& Footer() const { return m_Footer; }
  const Command* Above() const { return m_Above; }
  const std::list<Command>& Below() const { return m_Below; }
  const std::list<Option>& Options() const { return m_Options; }
  const std::vector<const Schema*>& Answers() const { return m_Answers; }
  // What -o chooses from, each key once.
  std::vector<const Field*> Columns() const;
  bool IsGroup() const { return m_Run == nullptr; }
  ExitCode Run(Output& out) const { return m_Run(out); }

 private:
  const Command* m_Above = nullptr;
  CommandText m_Text;
  std::string m_Footer;
  RunFunction m_Run;
  std::list<Command> m_Below;
  std::list<Option> m_Options;
  std::vector<const Schema*> m_Answers;
};

}  // namespace ravctl
