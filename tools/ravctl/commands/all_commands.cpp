#include "ravctl/commands/all_commands.h"

#include <array>

#include "ravctl/commands/daemon_status.h"
#include "ravctl/commands/doctor.h"

namespace ravctl {

namespace {

// One line a command; the help shows them in this order.
constexpr auto kCommands = std::to_array<void (*)(CLI::App&)>({
    RegisterDaemon,
    RegisterDoctor,
});

}  // namespace

void RegisterAllCommands(CLI::App& root) {
  for (const auto& registerCommand : kCommands)
    registerCommand(root);
}

}  // namespace ravctl
