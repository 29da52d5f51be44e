#include "ravctl/report/machine_facts.h"

#include <algorithm>
#include <charconv>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "ravctl/answer/json.h"
#include "ravctl/base/files.h"
#include "ravctl/base/json_reader.h"
#include "ravctl/base/text.h"
#include "ravctl/base/times.h"
#include "ravctl/tree/bundle_format.h"
#include "ravctl/tree/capture.h"
#include "ravctl/tree/enter.h"
#include "ravctl/tree/machine_answers.h"
#include "ravctl/tree/manifest.h"

namespace ravctl {

namespace {

constexpr const char* kStat = "/proc/stat";
constexpr const char* kMemory = "/proc/meminfo";
constexpr const char* kSystem = "/etc/os-release";

using Lines = std::vector<std::string>;

Lines LinesOf(const char* path) {
  std::string text;
  ReadFileInto(path, text);
  return SplitList(ValidUtf8(text), '\n');
}

// What stands behind those words at the front of a line.
std::optional<std::string> After(const Lines& lines, std::string_view words) {
  const auto found = std::ranges::find_if(lines, [words](const std::string& line) { return line.starts_with(words); });
  return found == lines.end() ? std::nullopt : std::optional(found->substr(words.size()));
}

Json CountAfter(const Lines& lines, std::string_view words) {
  const std::string text = After(lines, words).value_or("");
  const size_t first = text.find_first_not_of(' ');
  uint64_t count = 0;
  if (first == std::string::npos ||
      std::from_chars(text.data() + first, text.data() + text.size(), count).ec != std::errc()) {
    return nullptr;
  }
  return count;
}

Json SystemName() {
  std::optional<std::string> name = After(LinesOf(kSystem), "PRETTY_NAME=");
  if (name) std::erase(*name, '"');
  return name ? Json(*name) : Json();
}

Json ProcessorCount(const Lines& stat) {
  const auto isProcessor = [](const std::string& line) { return line.starts_with("cpu") && !line.starts_with("cpu "); };
  const auto count = std::ranges::count_if(stat, isProcessor);
  return count == 0 ? Json() : Json(count);
}

// "PATH SIZE BUILD-ID"
Json Modules(const Lines& lines) {
  Json modules = Json::array();
  for (const std::string& line : lines) {
    const size_t id = line.rfind(' ');
    const size_t size = id == std::string::npos || id == 0 ? id : line.rfind(' ', id - 1);
    if (size == std::string::npos) continue;
    modules.push_back({{"path", line.substr(0, size)},
                       {"size", line.substr(size + 1, id - size - 1)},
                       {"build_id", line.substr(id + 1)}});
  }
  return modules;
}

Json Bundle(const Json& manifest) {
  Json bundle;
  for (const char* key : {"tool", "as_root", "traces", "redacted", "missing"})
    bundle[key] = manifest.value(key, Json());
  return bundle;
}

Json ReadManifest() {
  std::string why;
  const std::optional<std::string> text = ReadFileIfThere(std::string("/") + kManifestPath);
  std::optional<Json> manifest = text ? ReadJson(*text, why) : std::nullopt;
  return manifest && manifest->is_object() ? std::move(*manifest) : Json();
}

// In a tree the files that a bundle has of them; of this machine what a bundle would get.
class MachineAnswers {
 public:
  MachineAnswers() {
    if (!IsInSysroot()) CaptureAnswers(m_Capture);
  }
  Lines Find(const char* path) {
    if (IsInSysroot()) return LinesOf(path);
    for (const CapturedEntry& entry : m_Capture.Entries())
      if (entry.path == path + 1) return SplitList(ValidUtf8(entry.content), '\n');
    return {};
  }

 private:
  Capture m_Capture;
};

}  // namespace

Json ReadMachineFacts() {
  const Json manifest = IsInSysroot() ? ReadManifest() : Json();
  const Lines stat = LinesOf(kStat);
  const Json started = CountAfter(stat, "btime");
  const int64_t now = PresentTime();
  MachineAnswers answers;
  Json packages = Json::array();
  for (const std::string& line : answers.Find(kPackagesAnswer))
    packages.push_back(line);
  return {{"host", !IsInSysroot()         ? Json(ValidUtf8(DescribeOrigin().host))
                   : manifest.is_object() ? manifest.value("host", Json())
                                          : Json()},
          {"time", LocalTimeText(now)},
          {"time_zone", LocalTimeText(now, "%Z %z")},
          {"uptime_s", started.is_null() || started.get<int64_t>() > now ? Json() : Json(now - started.get<int64_t>())},
          {"system", SystemName()},
          {"processors", ProcessorCount(stat)},
          {"memory_kb", CountAfter(LinesOf(kMemory), "MemTotal:")},
          {"modules", Modules(answers.Find(kModulesAnswer))},
          {"packages", std::move(packages)},
          {"bundle", manifest.is_object() ? Bundle(manifest) : Json()}};
}

}  // namespace ravctl
