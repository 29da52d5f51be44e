#include "ravctl/commands/all_commands.h"

#include <array>

#include "ravctl/commands/bundle.h"
#include "ravctl/commands/daemon/status.h"
#include "ravctl/commands/doctor.h"
#include "ravctl/commands/ini/group.h"
#include "ravctl/commands/inventory/group.h"
#include "ravctl/commands/module/group.h"
#include "ravctl/commands/net/group.h"
#include "ravctl/commands/pci.h"
#include "ravctl/commands/perf/perf.h"
#include "ravctl/commands/registry/group.h"
#include "ravctl/commands/slots.h"
#include "ravctl/commands/smbios/group.h"
#include "ravctl/commands/trace/group.h"
#include "ravctl/line/shell_texts.h"

namespace ravctl {

namespace {

// One line a command; the help shows them in this order.
constexpr auto kCommands = std::to_array<void (*)(CLI::App&)>({
    RegisterDaemon,
    RegisterTrace,
    RegisterModule,
    RegisterInventory,
    RegisterPci,
    RegisterSlots,
    RegisterSmbios,
    RegisterPerf,
    RegisterNet,
    RegisterRegistry,
    RegisterIni,
    RegisterBundle,
    RegisterDoctor,
    RegisterShellTexts,
});

}  // namespace

void RegisterAllCommands(CLI::App& root) {
  for (const auto& registerCommand : kCommands)
    registerCommand(root);
}

}  // namespace ravctl
