// module list: the modules of the daemon, as the switch of ravd-modules tells of them.

#include "platform/ini_file.h"
#include "ravctl/answer/json.h"
#include "ravctl/base/error.h"
#include "ravctl/base/times.h"
#include "ravctl/commands/module/group.h"
#include "ravctl/daemon/process.h"
#include "ravctl/line/command.h"
#include "ravctl/tree/enter.h"

namespace ravctl {

namespace {

Json TextOf(const CIniFile& states, const std::string& module, const char* key) {
  std::string text;
  states.GetString(text, module.c_str(), key, "");
  return text.empty() ? Json() : Json(text);
}

// The file outlives a daemon that was killed.
void WarnWhenLeft(uint32_t pid, Output& out) {
  if (IsInSysroot()) return;
  const std::optional<DaemonProcess> daemon = FindDaemon();
  if (daemon && daemon->pid == static_cast<pid_t>(pid)) return;
  out.Warn("it is of a daemon that no longer runs", "process " + std::to_string(pid), "see ravctl doctor");
}

ExitCode RunList(Output& out) {
  CIniFile states;
  if (!states.Open(kModuleStates, true)) {
    throw CommandError(ExitCode::kInputMissing, "no switch tells of its modules", kModuleStates,
                       "that of ravd-modules does while the daemon runs");
  }
  std::vector<std::string> sections;
  states.GetSections(sections);
  Table table(kModuleList);
  for (const std::string& name : sections) {
    const Json state = TextOf(states, name, "State");
    if (state.is_null()) continue;  // what the file says of the daemon
    const uint32_t since = states.GetNumber(name.c_str(), "Since", 0);
    table.Add({{"name", name},
               {"state", state},
               {"since", since == 0 ? Json() : Json(LocalTimeText(since))},
               {"version", TextOf(states, name, "Version")},
               {"build_id", TextOf(states, name, "BuildId")},
               {"file", TextOf(states, name, "File")},
               {"reason", TextOf(states, name, "Reason")}});
  }
  WarnWhenLeft(states.GetNumber("ravd", "Pid", 0), out);
  out.Print(kModuleList, table);
  return table.Size() > 0 ? ExitCode::kDone : ExitCode::kNothingOrDifferent;
}

}  // namespace

void AddModuleList(Command& module) {
  Command& list = module.Add({"list",
                              "List the modules of the daemon, what became of each and since when",
                              {{"ravctl module list", "while a daemon runs with the switch of ravd-modules"},
                               {"ravctl module list -o name,build_id,file", "which build of each it is"}}},
                             RunList);
  list.Answers({&kModuleList});
}

}  // namespace ravctl
