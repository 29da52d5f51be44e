// module check: whether a library can be the module switch of the daemon, or a module of the example switch, and who
// could change it.

#include "ravctl/commands/module/group.h"
#include "ravctl/daemon/library_check.h"
#include "ravctl/line/command.h"

namespace ravctl {

namespace {

ExitCode RunCheck(const std::string& library, bool loads, Output& out) {
  const Findings findings = CheckLibrary(library, loads);
  PrintFindings(kModuleCheck, findings, out);
  return WorstOf(findings) == Severity::kGood ? ExitCode::kDone : ExitCode::kNothingOrDifferent;
}

}  // namespace

void AddModuleCheck(Command& module) {
  struct Options {
    std::string library;
    bool readsOnly = false;
  };
  auto options = std::make_shared<Options>();
  Command& check = module.Add(
      {"check",
       "Check a module switch, or a module of the example switch: symbols, interface, and who may write to it; exit "
       "status 1 when a check fails",
       {{"ravctl module check /usr/lib/ravd/libswitch.so", "loads it in a child and looks at its interface"},
        {"ravctl module check --no-load ./libswitch.so", "without running any of its code"}},
       Effect::kChanges},
      [options](Output& out) { return RunCheck(options->library, !options->readsOnly, out); });
  check.Answers({&kModuleCheck});
  check.AddRequired("LIB", &options->library, "The library");
  check.AddFlag("--no-load", &options->readsOnly, "Read the file only, run nothing of it");
}

}  // namespace ravctl
