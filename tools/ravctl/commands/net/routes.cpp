// net routes: the main IPv4 routing table.

#include <bit>

#include "netif/routing_table_manager.h"
#include "ravctl/answer/json.h"
#include "ravctl/commands/net/group.h"
#include "ravctl/line/command.h"
#include "ravctl/network/links.h"
#include "ravctl/tree/enter.h"
#include "ravctl/tree/live_answers.h"

namespace ravctl {

namespace {

Json AddressOrNull(uint32_t address) {
  return address == 0 ? Json() : Json(IPv4Text(address));
}

std::vector<libnetif::ipv4_routing_entry> ReadRoutes() try {
  return libnetif::routing_table_manager().get_ipv4_routing_entries();
} catch (const libnetif::libnetif_exception& failure) {
  throw NetworkFailure(failure);
}

std::string DestinationText(const libnetif::ipv4_routing_entry& route) {
  if (route.destination == 0 && route.netmask == 0) return "default";
  return IPv4Text(route.destination) + "/" + std::to_string(std::popcount(route.netmask));
}

ExitCode RunRoutes(const std::string& interface, Output& out) {
  Table table(kNetRoutes);
  for (const Json& route : IsInSysroot() ? CapturedAnswer(kNetRoutes, out) : ReadNetRoutes()) {
    if (interface.empty() || route["interface"] == interface) table.Add(route);
  }
  out.Print(kNetRoutes, table);
  return table.Size() > 0 ? ExitCode::kDone : ExitCode::kNothingOrDifferent;
}

}  // namespace

Json ReadNetRoutes() {
  Json rows = Json::array();
  for (const libnetif::ipv4_routing_entry& route : ReadRoutes())
    rows.push_back({{"destination", DestinationText(route)},
                    {"gateway", AddressOrNull(route.gateway)},
                    {"interface", route.interface_name.empty() ? Json() : Json(route.interface_name)},
                    {"source", AddressOrNull(route.source)},
                    {"metric", route.metric}});
  return rows;
}

void AddNetRoutes(Command& net) {
  auto interface = std::make_shared<std::string>();
  Command& routes =
      net.Add({"routes",
               "List the routes of the main IPv4 table",
               {{"ravctl net routes", "in the order of the kernel"},
                {"ravctl net routes -i eth0 -o destination,gateway", "where eth0 leads, in two columns"}}},
              [interface](Output& out) { return RunRoutes(*interface, out); });
  routes.Answers({&kNetRoutes});
  routes.AddOption("-i,--interface", interface.get(), "NAME", "Only routes through this interface").offered =
      "net list -o name";
}

}  // namespace ravctl
