// net list: the interfaces, one a line, and how much passes through them.

#include <fnmatch.h>

#include <algorithm>

#include "ravctl/commands/net/group.h"
#include "ravctl/daemon/signal_watch.h"
#include "ravctl/line/command.h"
#include "ravctl/network/links.h"

namespace ravctl {

namespace {

struct ListOptions {
  std::vector<std::string> patterns;
  double rateSeconds = 0.0;  // 0 = no rates
  bool onlyUp = false;
};

bool IsWanted(const Link& link, const ListOptions& options) {
  if (options.onlyUp && StateOf(link.flags) != "up") return false;
  return options.patterns.empty() || std::ranges::any_of(options.patterns, [&link](const std::string& pattern) {
           return ::fnmatch(pattern.c_str(), link.name.c_str(), 0) == 0;
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

Json RowOf(const Link& link, const CounterSample& before, const CounterSample& now) {
  const LinkCounters* known = Find(now, link.index);
  const LinkCounters counters = known != nullptr ? *known : LinkCounters{};
  const double seconds = std::chrono::duration<double>(now.time - before.time).count();
  const auto rate = [&](uint64_t LinkCounters::*counter) {
    return PerSecond(Find(before, link.index), counters, counter, seconds);
  };
  Json row = ToJson(link);
  AddCounters(counters, row);
  row["rx_bytes_per_s"] = rate(&LinkCounters::rxBytes);
  row["tx_bytes_per_s"] = rate(&LinkCounters::txBytes);
  row["rx_packets_per_s"] = rate(&LinkCounters::rxPackets);
  row["tx_packets_per_s"] = rate(&LinkCounters::txPackets);
  return row;
}

Table MakeTable(bool hasRates) {
  const bool hasTotals = !hasRates;
  return Table({{.key = "name", .heading = "NAME"},
                {.key = "index", .heading = "INDEX", .isRight = true, .isUsual = false},
                {.key = "state", .heading = "STATE", .color = StateColor},
                {.key = "flags", .heading = "FLAGS", .isUsual = false},
                {.key = "hardware", .heading = "HARDWARE", .isUsual = false},
                {.key = "mac", .heading = "MAC", .isUsual = hasTotals},
                {.key = "mtu", .heading = "MTU", .isRight = true, .isUsual = hasTotals},
                {.key = "speed_mbit", .heading = "SPEED", .isRight = true, .format = SpeedText},
                {.key = "rx_bytes", .heading = "RX", .isRight = true, .isUsual = hasTotals, .format = SizeText},
                {.key = "rx_packets", .heading = "RX-PACKETS", .isRight = true, .isUsual = false},
                {.key = "rx_errors", .heading = "RX-ERRORS", .isRight = true, .isUsual = false},
                {.key = "rx_dropped", .heading = "RX-DROPPED", .isRight = true, .isUsual = false},
                {.key = "tx_bytes", .heading = "TX", .isRight = true, .isUsual = hasTotals, .format = SizeText},
                {.key = "tx_packets", .heading = "TX-PACKETS", .isRight = true, .isUsual = false},
                {.key = "tx_errors", .heading = "TX-ERRORS", .isRight = true, .isUsual = false},
                {.key = "tx_dropped", .heading = "TX-DROPPED", .isRight = true, .isUsual = false},
                {.key = "rx_bytes_per_s", .heading = "RX/S", .isRight = true, .isUsual = hasRates, .format = RateText},
                {.key = "tx_bytes_per_s", .heading = "TX/S", .isRight = true, .isUsual = hasRates, .format = RateText},
                {.key = "rx_packets_per_s", .heading = "RX-PACKETS/S", .isRight = true, .isUsual = hasRates},
                {.key = "tx_packets_per_s", .heading = "TX-PACKETS/S", .isRight = true, .isUsual = hasRates},
                {.key = "addresses", .heading = "ADDRESSES", .isUsual = hasTotals}});
}

ExitCode RunList(const ListOptions& options, Output& out) {
  const bool hasRates = options.rateSeconds > 0.0;
  CounterSample before;
  if (hasRates) {
    before = ReadCounters();
    const SignalWatch signals({SIGINT, SIGTERM});
    if (signals.WaitUntil(before.time + Seconds(options.rateSeconds)) != 0) return ExitCode::kNothingOrDifferent;
  }
  const CounterSample now = ReadCounters();
  Table table = MakeTable(hasRates);
  for (const Link& link : ReadLinks()) {
    if (IsWanted(link, options)) table.Add(RowOf(link, before, now));
  }
  out.Print({"net-list"}, table);
  return table.Size() > 0 ? ExitCode::kDone : ExitCode::kNothingOrDifferent;
}

}  // namespace

void AddNetList(CLI::App& net) {
  auto options = std::make_shared<ListOptions>();
  CLI::App& list =
      AddCommand(net,
                 {"list",
                  "List the network interfaces: state, hardware, addresses and traffic",
                  {{"ravctl net list", "all of them, with what passed through since they came up"},
                   {"ravctl net list --up --rates", "what passes through those that are up, over a second"},
                   {"ravctl net list 'e*' -o name,rx_errors,tx_errors", "errors of those named e..."}},
                  Effect::kChanges},
                 [options](Output& out) { return RunList(*options, out); });
  list.add_option("PATTERN", options->patterns, "Only interfaces of these names; * and ? stand for others");
  list.add_flag("--up", options->onlyUp, "Only interfaces that are up and connected");
  list.add_option("--rates", options->rateSeconds,
                  "Bytes and packets a second, measured over so many seconds (1 without a number)")
      ->type_name("[SECONDS]")
      ->expected(0, 1)
      ->default_str("1")
      ->check(CLI::PositiveNumber.description(""));
}

}  // namespace ravctl
