#include "ravctl/tree/manifest.h"

#include <sys/utsname.h>
#include <unistd.h>
#include <zlib.h>

#include <array>
#include <ctime>

#include "ravctl/answer/json.h"
#include "ravctl/base/text.h"
#include "ravctl/base/times.h"
#include "ravctl/tree/bundle_format.h"
#include "ravctl/tree/machine_files.h"

namespace ravctl {

namespace {

constexpr auto kLimitFields = std::to_array<Field>({
    {"file", kCount, "bytes of a file"},
    {"bundle", kCount, "bytes of all files"},
    {"entries", kCount, "how many there may be"},
});
constexpr auto kEntryFields = std::to_array<Field>({
    {"path", kText, "below the root, without the first slash"},
    {"type", Choice("file|directory|link"), "what it is"},
    {"target", Optional(kText), "of a link, where it leads"},
    {"size", Optional(kCount), "of a file, its bytes with its holes"},
    {"stored", Optional(kCount), "of a file, its bytes without its holes"},
    {"crc32", Optional(kCount), "of a file, the checksum of the stored bytes"},
});
constexpr auto kManifestFields = std::to_array<Field>({
    {"tool", kText, "what made the bundle"},
    {"host", kText, "name of the machine"},
    {"kernel", kText, "release of its kernel"},
    {"time", kText, "when it was made: UTC, 2026-01-31T23:59:59Z"},
    {"time_zone", kText, "of the traces, with what it was ahead of UTC then: CET +0100"},
    {"as_root", kBoolean, "whether root made it"},
    {"traces", kBoolean, "whether the traces are in it"},
    {"redacted", kBoolean, "whether identities were replaced by tokens"},
    {"limits", Record(kLimitFields), "what no bundle exceeds"},
    {"live_only", kTexts, "what only a running kernel tells, so that no bundle holds it"},
    {"missing", ListOf(kMissingFields), "what is there and could not be captured"},
    {"entries", ListOf(kEntryFields), "what the bundle holds"},
});

std::string UniversalTime(time_t seconds) {
  tm universal{};
  std::array<char, 32> text{};
  if (::gmtime_r(&seconds, &universal) == nullptr) return "";
  std::strftime(text.data(), text.size(), "%FT%TZ", &universal);
  return text.data();
}

const char* TypeName(EntryType type) {
  if (type == EntryType::kDirectory) return "directory";
  return type == EntryType::kLink ? "link" : "file";
}

Json ToJson(const CapturedEntry& entry) {
  Json row = {{"path", ValidUtf8(entry.path)}, {"type", TypeName(entry.type)}};
  if (entry.type == EntryType::kLink) row["target"] = ValidUtf8(entry.content);
  if (entry.type != EntryType::kFile) return row;
  row["size"] = entry.size;
  row["stored"] = entry.content.size();
  // Of the stored bytes; holes do not count.
  row["crc32"] =
      ::crc32_z(::crc32(0, nullptr, 0), reinterpret_cast<const Bytef*>(entry.content.data()), entry.content.size());
  return row;
}

}  // namespace

constexpr Schema kManifest = {
    .name = "bundle-manifest", .version = kManifestVersion, .data = Record(kManifestFields), .isFile = true};

Json ToJson(const std::vector<Uncaptured>& missing) {
  Json rows = Json::array();
  for (const Uncaptured& each : missing)
    rows.push_back({{"path", ValidUtf8(each.path)}, {"reason", each.reason}, {"needs_root", each.needsRoot}});
  return rows;
}

BundleOrigin DescribeOrigin() {
  BundleOrigin origin;
  utsname names{};
  if (::uname(&names) == 0) {
    origin.host = names.nodename;
    origin.kernel = names.release;
  }
  origin.isRoot = ::geteuid() == 0;
  return origin;
}

CapturedEntry MakeManifest(const BundleOrigin& origin, const std::vector<CapturedEntry>& entries,
                           const std::vector<Uncaptured>& missing) {
  const time_t now = std::time(nullptr);
  Json manifest = {{"schema", kManifestSchema},
                   {"version", kManifestVersion},
                   {"tool", "ravctl " RAVCTL_VERSION},
                   {"host", ValidUtf8(origin.host)},
                   {"kernel", origin.kernel},
                   {"time", UniversalTime(now)},
                   {"time_zone", LocalTimeText(now, "%Z %z")},
                   {"as_root", origin.isRoot},
                   {"traces", origin.hasTraces},
                   {"redacted", origin.isRedacted},
                   {"limits", {{"file", kLargestFile}, {"bundle", kLargestBundle}, {"entries", kMostEntries}}},
                   {"live_only", LiveOnlyAnswers()},
                   {"missing", ToJson(missing)}};
  Json rows = Json::array();
  for (const CapturedEntry& entry : entries)
    rows.push_back(ToJson(entry));
  manifest["entries"] = std::move(rows);
  CapturedEntry entry{.path = kManifestPath, .content = manifest.dump(1) + "\n", .modified = now};
  entry.size = entry.content.size();
  return entry;
}

}  // namespace ravctl
