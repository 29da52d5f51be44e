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
