// net list: the interfaces, one a line or with every property, and how much passes through them.

#include <fnmatch.h>

#include <algorithm>
#include <functional>
#include <map>

#include "netif/network_interface_manager.h"
#include "netif/routing_table_manager.h"
#include "ravctl/answer/formats.h"
#include "ravctl/answer/json.h"
#include "ravctl/base/text.h"
#include "ravctl/commands/net/group.h"
#include "ravctl/daemon/signal_watch.h"
#include "ravctl/line/command.h"
#include "ravctl/network/links.h"
#include "ravctl/tree/enter.h"
#include "ravctl/tree/live_answers.h"

namespace ravctl {

namespace {

using libnetif::libnetif_exception;
using libnetif::network_interface;

struct ListOptions {
  std::vector<std::string> patterns;
  double rateSeconds = 0.0;  // 0 = no rates
  bool onlyUp = false;
  bool isLong = false;
};

bool IsPattern(const std::string& word) {
  return word.find_first_of("*?[") != std::string::npos;
}

// Asked for by name: each of them has to be there, and everything about it is wanted.
bool IsNamed(const ListOptions& options) {
  return !options.patterns.empty() && std::ranges::none_of(options.patterns, IsPattern);
}

void RequireNames(const ListOptions& options, const Json& links) {
  std::vector<std::string> names;
  for (const Json& link : links)
    names.push_back(link["name"]);
  for (const std::string& name : options.patterns) {
    if (!IsPattern(name) && std::ranges::count(names, name) == 0) {
      throw CommandError(ExitCode::kNothingOrDifferent, "no such interface", name,
                         DidYouMean(name, names, "see ravctl net list"));
    }
  }
}

bool IsWanted(const Json& link, const ListOptions& options) {
  if (options.onlyUp && link["state"] != "up") return false;
  const std::string name = link["name"];
  return options.patterns.empty() || std::ranges::any_of(options.patterns, [&name](const std::string& pattern) {
           return ::fnmatch(pattern.c_str(), name.c_str(), 0) == 0;
         });
}

// Null without an earlier value and for a counter that went back, as it does when a driver starts anew.
Json PerSecond(const LinkCounters* before, const LinkCounters& now, uint64_t LinkCounters::*counter, double seconds) {
  if (before == nullptr || before->*counter > now.*counter || seconds <= 0.0) return {};
  return static_cast<uint64_t>(static_cast<double>(now.*counter - before->*counter) / seconds + 0.5);
}

const LinkCounters* Find(const CounterSample& sample, int index) {
  const auto found = sample.links.find(index);
  return found != sample.links.end() ? &found->second : nullptr;
}

// A property that the interface has not got, such as an IPv4 address, is null.
Json Property(const network_interface& interface, const std::function<Json(const network_interface&)>& read) {
  try {
    return read(interface);
  } catch (const libnetif_exception&) {
    return {};
  }
}

Json IPv6OrNull(const libnetif::ipv6_address& address) {
  return address == libnetif::ipv6_address{} ? Json() : Json(IPv6Text(address));
}

// What the library answers for the interface, one address of each kind.
void AddProperties(const Link& link, Json& row) {
  const network_interface interface(link.name);
  const auto property = [&interface](const std::function<Json(const network_interface&)>& read) {
    return Property(interface, read);
  };
  row["ipv4_address"] = property([](const auto& from) { return IPv4Text(from.get_ipv4_address()); });
  row["ipv4_netmask"] = property([](const auto& from) { return IPv4Text(from.get_ipv4_netmask()); });
  row["ipv4_broadcast"] = property([](const auto& from) { return IPv4Text(from.get_ipv4_broadcast()); });
  row["ipv6_address"] = property([](const auto& from) { return IPv6OrNull(from.get_ipv6_address()); });
  row["ipv6_netmask"] = property([](const auto& from) { return IPv6OrNull(from.get_ipv6_netmask()); });
}

Json RowOf(const Link& link, const CounterSample& before, const CounterSample& now) {
  const LinkCounters* known = Find(now, link.index);
  const LinkCounters counters = known != nullptr ? *known : LinkCounters{};
  const double seconds = std::chrono::duration<double>(now.time - before.time).count();
  const auto rate = [&](uint64_t LinkCounters::*counter) {
    return PerSecond(Find(before, link.index), counters, counter, seconds);
  };
  Json row = ToJson(link);
  AddProperties(link, row);
  AddCounters(counters, row);
  row["rx_bytes_per_s"] = rate(&LinkCounters::rxBytes);
  row["tx_bytes_per_s"] = rate(&LinkCounters::txBytes);
  row["rx_packets_per_s"] = rate(&LinkCounters::rxPackets);
  row["tx_packets_per_s"] = rate(&LinkCounters::txPackets);
  return row;
}

Table MakeTable(bool hasRates) {
  Table table(kNetList);
  for (const char* total : {"mac", "mtu", "rx_bytes", "tx_bytes", "addresses"})
    table.SetUsual(total, !hasRates);
  for (const char* rate : {"rx_bytes_per_s", "tx_bytes_per_s", "rx_packets_per_s", "tx_packets_per_s"})
    table.SetUsual(rate, hasRates);
  return table;
}

// Numbers that a person reads carry what they are behind them.
Json ShownValue(const std::string& name, const Json& value) {
  if (value.is_null()) return value;
  if (name.ends_with("_bytes")) return value.dump() + " (" + SizeText(value) + ")";
  if (name == "speed_mbit") return value.dump() + " (" + SpeedText(value) + "bit/s)";
  return value;
}

// Every property in a line of its own.
Table LongTable(const Table& list) {
  Table table({{.key = "name", .heading = "NAME", .isUsual = list.Size() > 1},
               {.key = "property", .heading = "PROPERTY"},
               {.key = "value", .heading = "VALUE"}});
  for (size_t index = 0; index < list.Size(); ++index) {
    const Json& row = list.Row(index);
    for (const auto& [property, value] : row.items()) {
      if (!property.ends_with("_per_s"))
        table.Add({{"name", row["name"]}, {"property", property}, {"value", ShownValue(property, value)}});
    }
  }
  return table;
}

std::map<std::string, size_t> CountRoutes() try {
  std::map<std::string, size_t> counts;
  for (const libnetif::ipv4_routing_entry& route : libnetif::routing_table_manager().get_ipv4_routing_entries())
    ++counts[route.interface_name];
  return counts;
} catch (const libnetif_exception& failure) {
  throw NetworkFailure(failure);
}

// With the rates since the sample before, where there is one.
Json ReadRows(const CounterSample& before) {
  const CounterSample now = ReadCounters();
  std::map<std::string, size_t> routes = CountRoutes();
  Json rows = Json::array();
  for (const Link& link : ReadLinks()) {
    rows.push_back(RowOf(link, before, now));
    rows.back()["ipv4_routes"] = routes[link.name];
  }
  return rows;
}

ExitCode RunList(const ListOptions& options, Output& out) {
  const bool hasRates = options.rateSeconds > 0.0;
  if (hasRates && IsInSysroot())
    throw CommandError(ExitCode::kUsage, "a captured tree has no rates", "--rates", "leave the option out");
  CounterSample before;
  if (hasRates) {
    before = ReadCounters();
    const SignalWatch signals({SIGINT, SIGTERM});
    if (signals.WaitUntil(before.time + Seconds(options.rateSeconds)) != 0) return ExitCode::kNothingOrDifferent;
  }
  const Json links = IsInSysroot() ? CapturedAnswer(kNetList, out) : ReadRows(before);
  RequireNames(options, links);
  Table table = MakeTable(hasRates);
  for (const Json& link : links) {
    if (IsWanted(link, options)) table.Add(link);
  }
  const bool isLong = options.isLong || (IsNamed(options) && !hasRates);
  if (isLong && !out.IsJson() && out.Options().columns.empty()) {
    out.Print(kNetList, LongTable(table));
  } else {
    out.Print(kNetList, table);
  }
  return table.Size() > 0 ? ExitCode::kDone : ExitCode::kNothingOrDifferent;
}

}  // namespace

Json ReadNetList() {
  return ReadRows({});
}

void AddNetList(Command& net) {
  auto options = std::make_shared<ListOptions>();
  Command& list = net.Add({"list",
                           "List the network interfaces: state, hardware, addresses and traffic",
                           {{"ravctl net list", "all of them, with what passed through since they came up"},
                            {"ravctl net list eth0", "every property of one"},
                            {"ravctl net list --up --rates", "what passes through those that are up, over a second"},
                            {"ravctl net list 'e*' -o name,rx_errors,tx_errors", "errors of those named e..."}}},
                          [options](Output& out) { return RunList(*options, out); });
  list.Answers({&kNetList});
  list.AddWord("PATTERN", &options->patterns, "Only interfaces of these names; * and ? stand for others");
  list.AddFlag("-l,--long", &options->isLong, "Every property in a line of its own, as for names without * and ?");
  list.AddFlag("--up", &options->onlyUp, "Only interfaces that are up and connected");
  Option& rates =
      list.AddOption("--rates", &options->rateSeconds, "[SECONDS]",
                     "Bytes and packets a second, measured over so many seconds (1 without a number)", Above(0));
  rates.implied = "1";
}

}  // namespace ravctl
