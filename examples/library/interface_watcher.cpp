// Shows the network interfaces, then each change of one: interface_watcher [SECONDS].

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>

#include "netif/libnetif_exception.h"
#include "netif/network_interface_manager.h"

namespace {

void Show(const libnetif::network_interface& interface) try {
  // The listener is another process that ends without flushing, hence no buffered output.
  ::dprintf(STDOUT_FILENO, "%-15s %s, MTU %d\n", interface.get_name().c_str(), interface.is_up() ? "up" : "down",
            interface.get_mtu());
} catch (const libnetif::libnetif_exception& gone) {
  ::dprintf(STDOUT_FILENO, "%-15s gone: %s\n", interface.get_name().c_str(), gone.what());
}

}  // namespace

int main(int argc, char** argv) try {
  using enum libnetif::interface_change_event_type;
  const libnetif::network_interface_manager manager;
  for (const libnetif::network_interface& interface : manager.get_network_interfaces())
    Show(interface);
  const pid_t listener = manager.add_network_interface_change_event(link_changes | ipv4_address_changes, Show);
  ::sleep(argc > 1 ? static_cast<unsigned int>(std::atoi(argv[1])) : 10);
  ::kill(listener, SIGHUP);
  ::waitpid(listener, nullptr, 0);
} catch (const libnetif::libnetif_exception& failure) {
  std::fprintf(stderr, "%s\n", failure.what());
  return 1;
}
