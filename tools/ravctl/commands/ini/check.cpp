// ini check: lines that reach no reader, and what may surprise.

#include "ravctl/base/files.h"
#include "ravctl/commands/ini/group.h"
#include "ravctl/ini/ini_check.h"

namespace ravctl {

namespace {

ExitCode Run(const std::string& file, Output& out) {
  const Findings findings = CheckIni(file, ReadWholeFile(file));
  const ExitCode code = PrintFindings(kIniCheck, findings, out);
  return code == ExitCode::kDone && !findings.empty() ? ExitCode::kNothingOrDifferent : code;
}

}  // namespace

void AddIniCheck(Command& ini) {
  auto file = std::make_shared<std::string>();
  Command& check =
      ini.Add({"check",
               "Find lines that reach no reader (bad, exit status 5) and what may surprise (a note, 1)",
               {{"ravctl ini check /etc/pelrix/Adapter.ini", "a line for each finding, none for a sound file"},
                {"ravctl ini check /etc/pelrix/Adapter.ini --json", "the same for a program"}}},
              [file](Output& out) { return Run(*file, out); });
  check.Answers({&kIniCheck});
  check.AddRequired("FILE", file.get(), "INI file");
}

}  // namespace ravctl
