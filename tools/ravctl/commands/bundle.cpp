// bundle: captures what the library reads of this machine, for --sysroot elsewhere.

#include "ravctl/commands/bundle.h"

#include <array>

#include "ravctl/answer/json.h"
#include "ravctl/base/text.h"
#include "ravctl/commands/inventory/group.h"
#include "ravctl/commands/net/group.h"
#include "ravctl/commands/perf.h"
#include "ravctl/line/command.h"
#include "ravctl/trace/kept_runs.h"
#include "ravctl/trace/trace_settings.h"
#include "ravctl/tree/bundle_format.h"
#include "ravctl/tree/bundle_writer.h"
#include "ravctl/tree/live_answers.h"
#include "ravctl/tree/machine_files.h"
#include "ravctl/tree/manifest.h"
#include "ravctl/tree/redact/redact_entries.h"

namespace ravctl {

namespace {

constexpr auto kBundleFields = std::to_array<Field>({
    {"bundle", kText, "the file that was made"},
    {"entries", kCount, "files, directories and links in it"},
    {"captured", kCount, "bytes that were read"},
    {"packed", kCount, "bytes of the file"},
    {"redacted", kBoolean, "whether identities were replaced by tokens"},
    {"traces", kBoolean, "whether the traces are in it"},
    {"missing", ListOf(kMissingFields), "what is there and could not be captured"},
    {"live_only", kTexts, "what only a running kernel tells, so that no bundle holds it"},
});
constexpr Schema kBundle = {"bundle", 1, Record(kBundleFields)};

// What only the running machine answers.
struct LiveAnswer {
  const Schema& schema;
  Json (*read)();
};
const auto kLiveAnswers = std::to_array<LiveAnswer>({
    {kInventoryAdapters, ReadInventoryAdapters},
    {kInventoryDrives, ReadInventoryDrives},
    {kInventoryVolumes, ReadInventoryVolumes},
    {kNetList, ReadNetList},
    {kNetRoutes, ReadNetRoutes},
    {kNetHostIp, ReadNetHostIp},
    {kPerf, ReadPerf},
});

struct BundleOptions {
  std::string out;
  bool redact = false;
  bool trace = false;
};

uint64_t WriteEntries(BundleWriter& writer, const std::vector<CapturedEntry>& entries, const CapturedEntry& manifest) {
  uint64_t bytes = 0;
  for (const CapturedEntry& entry : entries)
    bytes += entry.content.size();
  Progress progress("packing", bytes);
  uint64_t done = 0;
  for (const CapturedEntry& entry : entries) {
    writer.Add(entry);
    progress.Update(done += entry.content.size());
  }
  writer.Add(manifest);
  return writer.Finish();
}

void WarnAboutMissing(const std::vector<Uncaptured>& missing, Output& out) {
  for (const Uncaptured& each : missing) {
    out.Warn("not in the bundle", each.path + ": " + each.reason, each.needsRoot ? "run as root to have it" : "");
  }
}

// Who may not look into the trace directory captures the rest.
std::vector<KeptRun> KeptRunsIfTold(const std::string& directory, Output& out) {
  try {
    return FindKeptRuns(directory);
  } catch (const CommandError& error) {
    out.Warn(error.what());
    return {};
  }
}

ExitCode RunBundle(const BundleOptions& options, Output& out) {
  BundleWriter writer(options.out);
  Capture capture;
  TraceChoice traces{options.trace, TraceSettings("ravd").Directory(), {}};
  for (const KeptRun& run : KeptRunsIfTold(traces.directory, out))
    traces.keptRuns.push_back(run.path);
  CaptureMachine(traces, capture);
  for (const auto& [schema, read] : kLiveAnswers)
    CaptureAnswer(schema, read, capture);
  if (capture.Entries().size() >= kMostEntries) {
    throw CommandError(ExitCode::kInternal, "more files than a bundle holds", std::to_string(capture.Entries().size()),
                       "please report it");
  }
  BundleOrigin origin = DescribeOrigin();
  origin.hasTraces = options.trace;
  std::vector<Uncaptured> missing = capture.Missing();
  if (options.redact) RedactAll(capture.Entries(), missing, origin);
  const CapturedEntry manifest = MakeManifest(origin, capture.Entries(), missing);
  const uint64_t packed = WriteEntries(writer, capture.Entries(), manifest);
  WarnAboutMissing(missing, out);
  out.Print(kBundle,
            Printable(options.out) + ": " + std::to_string(capture.Entries().size()) + " entries, " +
                HumanSize(capture.Bytes()) + " captured, " + HumanSize(packed) + " packed" +
                (options.redact ? ", redacted" : "") + "\n",
            {{"bundle", options.out},
             {"entries", capture.Entries().size()},
             {"captured", capture.Bytes()},
             {"packed", packed},
             {"redacted", options.redact},
             {"traces", options.trace},
             {"missing", ToJson(missing)},
             {"live_only", LiveOnlyAnswers()}});
  return ExitCode::kDone;
}

}  // namespace

void AddBundle(Command& root) {
  auto options = std::make_shared<BundleOptions>();
  Command& bundle = root.Add(
      {"bundle",
       "Capture what the library reads of this machine, for --sysroot on another one",
       {{"ravctl bundle server7.tar.zst", "as root: everything but the traces; as another user what is readable"},
        {"ravctl bundle --trace --redact case4711.tar.gz", "with the traces, to be given away"},
        {"ravctl --sysroot server7.tar.zst doctor", "look at it, anywhere"}},
       Effect::kChanges},
      [options](Output& out) { return RunBundle(*options, out); });
  bundle.Answers({&kBundle, &kManifest});
  bundle.AddRequired("OUT", &options->out, "The new file; its ending .tar.gz or .tar.zst tells the packing");
  bundle.AddFlag("--redact", &options->redact,
                 "Replace serial numbers, MAC and IP addresses, WWNs, UUIDs and host names by tokens that are the same "
                 "throughout the bundle");
  bundle.AddFlag("--trace", &options->trace, "The trace files as well");
}

}  // namespace ravctl
