#include "ravctl/trace/kept_runs.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <ctime>
#include <string_view>

#include "platform/directory.h"
#include "ravctl/answer/json.h"
#include "ravctl/base/error.h"
#include "ravctl/base/text.h"
#include "ravctl/trace/read_at.h"

namespace ravctl {

namespace {

constexpr size_t kMostRuns = 100;
constexpr size_t kMostOfExit = 4096;
constexpr size_t kLongestValue = 64;

// "crash-20261125T024523Z" => seconds since 1970; none for another name.
std::optional<int64_t> TimeOf(const std::string& name) {
  constexpr std::string_view kBegin = "crash-";
  constexpr size_t kLength = std::string_view("crash-YYYYMMDDThhmmssZ").size();
  const bool isPlain = name.find_first_not_of("0123456789TZ", kBegin.size()) == std::string::npos;
  if (name.size() != kLength || !isPlain) return std::nullopt;
  tm utc{};
  const char* const end = ::strptime(name.c_str(), "crash-%Y%m%dT%H%M%SZ", &utc);
  if (end == nullptr || *end != '\0') return std::nullopt;
  return ::timegm(&utc);
}

bool IsDirectory(const std::string& path) {
  struct stat info {};
  return ::lstat(path.c_str(), &info) == 0 && S_ISDIR(info.st_mode);
}

std::optional<unsigned int> Number(std::string_view text) {
  unsigned int number = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  if (error != std::errc() || end != text.data() + text.size()) return std::nullopt;
  return number;
}

void ReadExit(KeptRun& run) {
  const UniqueFd file = OpenKept(run.path + "/exit");
  if (!file) return;
  for (const std::string& line : SplitList(ReadAt(file, 0, kMostOfExit), '\n')) {
    const size_t equals = line.find('=');
    if (equals == std::string::npos) continue;
    const std::string name = line.substr(0, equals);
    const std::string value = line.substr(equals + 1, kLongestValue);
    if (name == "result") run.result = value;
    if (name == "status") run.status = Number(value);
    if (name == "signal") run.signal = value;
    if (name == "pid") run.pid = Number(value);
  }
}

}  // namespace

std::vector<KeptRun> FindKeptRuns(const std::string& directory) {
  std::vector<KeptRun> runs;
  if (::access(directory.c_str(), R_OK | X_OK) != 0) {
    if (errno == ENOENT) return runs;
    throw SystemFailure("cannot look into", directory, errno);
  }
  std::vector<std::string> names;
  CDirectory::GetDirectoryContent(names, directory, false);
  std::ranges::sort(names, std::greater{});
  for (const std::string& name : names) {
    const std::optional<int64_t> time = TimeOf(name);
    const std::string path = directory + "/" + name;
    if (!time || !IsDirectory(path)) continue;
    ReadExit(runs.emplace_back(KeptRun{.path = path, .endedAt = *time}));
    if (runs.size() == kMostRuns) break;
  }
  return runs;
}

UniqueFd OpenKept(const std::string& path) {
  const size_t slash = path.rfind('/');
  const UniqueFd directory(::open(path.substr(0, slash).c_str(), O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
  if (!directory) return UniqueFd();
  const int flags = O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC;
  return UniqueFd(::openat(directory.Get(), path.c_str() + slash + 1, flags));
}

Json EndOf(const KeptRun& run) {
  return {{"result", run.result.empty() ? Json() : Json(run.result)},
          {"status", run.status ? Json(*run.status) : Json()},
          {"signal", run.signal.empty() ? Json() : Json(run.signal)},
          {"pid", run.pid ? Json(*run.pid) : Json()}};
}

}  // namespace ravctl
