#include "ravctl/commands/all_commands.h"

#include <array>

#include "ravctl/commands/bundle.h"
#include "ravctl/commands/daemon_status.h"
#include "ravctl/commands/doctor.h"
#include "ravctl/commands/inventory.h"
#include "ravctl/commands/module.h"
#include "ravctl/commands/net.h"
#include "ravctl/commands/pci.h"
#include "ravctl/commands/perf.h"
#include "ravctl/commands/shell_texts.h"
#include "ravctl/commands/slots.h"
#include "ravctl/commands/smbios.h"
#include "ravctl/commands/trace.h"

namespace ravctl {

namespace {

// One line a command; the help shows them in this order.
constexpr auto kCommands = std::to_array<void (*)(CLI::App&)>({
    RegisterTrace,  //
    RegisterInventory,
    RegisterPci,
    RegisterSlots,
    RegisterSmbios,
    RegisterDaemon,  //
    RegisterModule,  //
    RegisterNet,     //
    RegisterPerf,    //
    RegisterDoctor,  //
    RegisterBundle,  //
    RegisterShellTexts,
});

}  // namespace

void RegisterAllCommands(CLI::App& root) {
  for (const auto& registerCommand : kCommands)
    registerCommand(root);
}

}  // namespace ravctl
