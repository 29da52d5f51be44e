// inventory watch: what changes while it runs.

#include <cstdio>

#include "ravctl/answer/json.h"
#include "ravctl/answer/stream_table.h"
#include "ravctl/base/times.h"
#include "ravctl/commands/inventory/comparison.h"
#include "ravctl/commands/inventory/group.h"
#include "ravctl/commands/inventory/sides.h"
#include "ravctl/daemon/signal_watch.h"
#include "ravctl/tree/tree_reading.h"

namespace ravctl {

namespace {

constexpr int kLookSeconds = 60;

struct Options {
  double interval = 2.0;  // seconds
  size_t count = 0;       // 0: until Ctrl-C
  bool withUsage = false;
};

// In a child each time: a scan leaves its mark on its process, and may wait for a device that does not answer. What the
// first one warned of is not said again.
Json Look(bool isFirst, Output& out) {
  return ReadInChild(kLookSeconds, "this machine", [isFirst, &out] {
    if (!isFirst && std::freopen("/dev/null", "w", stderr) == nullptr) return Json();
    return ReadSide("live", out);
  });
}

// None when it failed, with a warning: the next one may not.
Json LookAgain(Output& out) {
  try {
    return Look(false, out);
  } catch (const CommandError& error) {
    out.Warn(error.what());
    return {};
  }
}

ExitCode RunWatch(const Options& options, Output& out) {
  const SignalWatch signals({SIGINT, SIGTERM});
  StreamTable rows(out, kInventoryWatch, ColumnsOf(kInventoryWatch.Columns()));
  Json before = Look(true, out);
  for (size_t looks = 0; (options.count == 0 || looks < options.count) && !out.IsClosed(); ++looks) {
    if (signals.WaitUntil(Clock::now() + Seconds(options.interval)) != 0) break;
    Json now = LookAgain(out);
    if (now.is_null()) continue;
    const Differences found = CompareSides(before, now, options.withUsage);
    const std::string time = LocalTimeNow();
    for (size_t row = 0; row < found.rows.Size(); ++row) {
      Json change = {{"time", time}};
      change.update(found.rows.Row(row));
      rows.Add(change);
    }
    before = std::move(now);
  }
  return ExitCode::kDone;
}

}  // namespace

void AddInventoryWatch(Command& inventory) {
  auto options = std::make_shared<Options>();
  Command& watch =
      inventory.Add({"watch",
                     "Look at the inventory again and again and show each change, as inventory diff does, until Ctrl-C",
                     {{"ravctl inventory watch", "what is plugged in, pulled out, mounted or set, within two seconds"},
                      {"ravctl inventory watch -i 60 --json", "a look a minute, one JSON object a change"}},
                     Effect::kChanges},
                    [options](Output& out) { return RunWatch(*options, out); });
  watch.Answers({&kInventoryWatch});
  watch.AddOption("-i,--interval", &options->interval, "SECONDS", "Seconds between two looks (usually 2)",
                  InRange(0.1, 86400.0));
  watch.AddOption("-n,--count", &options->count, "N",
                  "End after so many looks beyond the first; 0 goes on until Ctrl-C", NotNegative());
  watch.AddFlag("--usage", &options->withUsage, "Tell too how full volumes are");
}

}  // namespace ravctl
