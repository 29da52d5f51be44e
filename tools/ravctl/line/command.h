#pragma once

#include <CLI/CLI.hpp>
#include <functional>
#include <initializer_list>
#include <string>
#include <vector>

#include "ravctl/answer/error.h"
#include "ravctl/answer/exit_code.h"
#include "ravctl/answer/output.h"

// How to add a command
//
// 1. Write commands/<name>.h with `void Register<Name>(CLI::App& root);` and commands/<name>.cpp:
//
//      struct Options { std::string what; };
//
//      ExitCode Run(const Options& options, Output& out) {
//        Table table({{.key = "name", .heading = "NAME"}, {.key = "bytes", .heading = "SIZE", .isRight = true}});
//        table.Add({{"name", "a"}, {"bytes", 4}});
//        out.Print({"thing-list"}, table);
//        return table.Size() > 0 ? ExitCode::kDone : ExitCode::kNothingOrDifferent;
//      }
//
//      void RegisterThing(CLI::App& root) {
//        CLI::App& thing = AddGroup(root, "thing", "Look at things");
//        auto options = std::make_shared<Options>();
//        CLI::App& list = AddCommand(thing, {"list", "List the things", {{"ravctl thing list a*", "those with a"}}},
//                                    [options](Output& out) { return Run(*options, out); });
//        list.add_option("PATTERN", options->what, "Which things");
//      }
//
// 2. Add its line to commands/all_commands.cpp.
// 3. Describe its JSON in schemas/thing-list.json; the tests validate every answer against that file.
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
  std::vector<Example> examples;
  Effect effect = Effect::kReads;
  // What of the answer the kernel tells by calls alone, so that a captured tree cannot hold it: "drive inquiries".
  // With --sysroot it is warned of.
  std::string liveOnly = {};
};

// Runs after the command line was understood. Failures are thrown as CommandError.
using RunFunction = std::function<ExitCode(Output& out)>;

// A command below parent (the root or a group) with its options still to be added.
CLI::App& AddCommand(CLI::App& parent, const CommandText& text, RunFunction run);
// A word that only has commands below it, or that runs by itself too when a run function is given.
CLI::App& AddGroup(CLI::App& parent, const std::string& name, const std::string& summary);

// The function of a command, null for a bare group.
const RunFunction* RunFunctionOf(const CLI::App& command);
// The text that a command was added with, an empty one for a bare group.
const CommandText& TextOf(const CLI::App& command);

// "trace show" for the command below the root.
std::string FullName(const CLI::App& command);

}  // namespace ravctl
