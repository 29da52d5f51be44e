// net show: every property of one interface.

#include <algorithm>
#include <functional>

#include "netif/network_interface_manager.h"
#include "netif/routing_table_manager.h"
#include "ravctl/base/text.h"
#include "ravctl/commands/net/group.h"
#include "ravctl/line/command.h"
#include "ravctl/network/links.h"

namespace ravctl {

namespace {

using libnetif::libnetif_exception;
using libnetif::network_interface;

// A property that the interface has not got, such as an IPv4 address, is null. An interface that vanished is a failure.
Json Property(const network_interface& interface, const std::function<Json(const network_interface&)>& read) {
  try {
    return read(interface);
  } catch (const libnetif_exception& failure) {
    if (failure.error_number() == ENODEV) throw NetworkFailure(failure, interface.get_name());
    return {};
  }
}

Json IPv6OrNull(const libnetif::ipv6_address& address) {
  return address == libnetif::ipv6_address{} ? Json() : Json(IPv6Text(address));
}

size_t CountRoutes(const std::string& name) try {
  size_t count = 0;
  for (const libnetif::ipv4_routing_entry& route : libnetif::routing_table_manager().get_ipv4_routing_entries())
    count += route.interface_name == name ? 1U : 0U;
  return count;
} catch (const libnetif_exception& failure) {
  throw NetworkFailure(failure);
}

Json PropertiesOf(const Link& link, const LinkCounters& counters) {
  const network_interface interface(link.name);
  const auto property = [&interface](const std::function<Json(const network_interface&)>& read) {
    return Property(interface, read);
  };
  Json data = ToJson(link);
  data["ipv4_address"] = property([](const auto& from) { return IPv4Text(from.get_ipv4_address()); });
  data["ipv4_netmask"] = property([](const auto& from) { return IPv4Text(from.get_ipv4_netmask()); });
  data["ipv4_broadcast"] = property([](const auto& from) { return IPv4Text(from.get_ipv4_broadcast()); });
  data["ipv6_address"] = property([](const auto& from) { return IPv6OrNull(from.get_ipv6_address()); });
  data["ipv6_netmask"] = property([](const auto& from) { return IPv6OrNull(from.get_ipv6_netmask()); });
  data["ipv4_routes"] = CountRoutes(link.name);
  AddCounters(counters, data);
  return data;
}

[[noreturn]] void ThrowUnknown(const std::string& name, const std::vector<Link>& links) {
  std::vector<std::string> names;
  for (const Link& link : links)
    names.push_back(link.name);
  const std::string nearest = NearestMatch(name, names);
  throw CommandError(ExitCode::kNothingOrDifferent, "no such interface", name,
                     nearest.empty() ? "see ravctl net list" : "did you mean " + nearest + "?");
}

// Numbers that a person reads carry what they are behind them.
Json ShownValue(const std::string& name, const Json& value) {
  if (value.is_null()) return value;
  if (name.ends_with("_bytes")) return value.dump() + " (" + SizeText(value) + ")";
  if (name == "speed_mbit") return value.dump() + " (" + SpeedText(value) + "bit/s)";
  return value;
}

ExitCode RunShow(const std::string& name, Output& out) {
  const std::vector<Link> links = ReadLinks();
  const auto link = std::ranges::find(links, name, &Link::name);
  if (link == links.end()) ThrowUnknown(name, links);
  const Json data = PropertiesOf(*link, ReadCounters().links[link->index]);
  Table table({{.key = "property", .heading = "PROPERTY"}, {.key = "value", .heading = "VALUE"}});
  for (const auto& [property, value] : data.items())
    table.Add({{"property", property}, {"value", ShownValue(property, value)}});
  out.Print({"net-show"}, table, data);
  return ExitCode::kDone;
}

}  // namespace

void AddNetShow(CLI::App& net) {
  auto name = std::make_shared<std::string>();
  CLI::App& show = AddCommand(
      net,
      {"show",
       "Show every property of one network interface",
       {{"ravctl net show lo", "as a list"}, {"ravctl net show lo --json", "as an object with the same names"}},
       Effect::kChanges},
      [name](Output& out) { return RunShow(*name, out); });
  show.add_option("NAME", *name, "The interface")->required();
}

}  // namespace ravctl
