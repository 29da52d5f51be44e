// smbios verify: entry point and table, strictly.

#include "ravctl/commands/smbios/group.h"
#include "ravctl/hardware/smbios_check.h"

namespace ravctl {

namespace {

ExitCode Run(Output& out) {
  return PrintFindings(kSmbiosVerify, CheckSmbios(ReadSmbiosImage()), out);
}

}  // namespace

void AddSmbiosVerify(Command& smbios) {
  smbios
      .Add({"verify",
            "Check entry point and table strictly; exit status 5 when something is damaged",
            {{"ravctl smbios verify", "one line a finding"},
             {"ravctl smbios verify --json | jq '.data[] | select(.severity != \"ok\")'", "what is wrong"}}},
           [](Output& out) { return Run(out); })
      .Answers({&kSmbiosVerify});
}

}  // namespace ravctl
