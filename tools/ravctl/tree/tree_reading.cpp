#include "ravctl/tree/tree_reading.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cstdio>
#include <memory>
#include <optional>

#include "platform/unique_fd.h"
#include "ravctl/base/child.h"
#include "ravctl/base/error.h"
#include "ravctl/base/json_reader.h"
#include "ravctl/tree/enter.h"

namespace ravctl {

namespace {

constexpr int kTreeSeconds = 120;

using Magic = std::array<unsigned char, 2>;
constexpr Magic kGzip = {0x1F, 0x8B};
constexpr Magic kZstd = {0x28, 0xB5};

int Report(const std::function<Json()>& read, int reportFd) {
  Json report;
  try {
    report["data"] = read();
  } catch (const CommandError& error) {
    report["code"] = static_cast<int>(error.Code());
    report["error"] = error.what();
  }
  const std::unique_ptr<std::FILE, decltype([](std::FILE* file) { std::fclose(file); })> pipe(::fdopen(reportFd, "w"));
  const std::string text = report.dump(-1, ' ', false, Json::error_handler_t::replace);
  return pipe != nullptr && std::fwrite(text.data(), text.size(), 1, pipe.get()) == 1 ? 0 : 1;
}

}  // namespace

Json ReadInChild(int seconds, const std::string& where, const std::function<Json()>& read) {
  const ChildResult child = RunInChild(seconds, [&read](int reportFd) { return Report(read, reportFd); });
  std::string why;
  std::optional<Json> report = ReadJson(child.report, why);
  if (child.isTimeout || !report || !report->is_object()) {
    throw CommandError(ExitCode::kInputDamaged, child.isTimeout ? "reading took too long" : "it could not be read",
                       where, "");
  }
  if (report->contains("error")) {
    throw CommandError(static_cast<ExitCode>((*report)["code"].get<int>()), (*report)["error"].get<std::string>(), "",
                       "");
  }
  return std::move((*report)["data"]);
}

Json ReadInTree(const std::string& directoryOrBundle, const std::function<Json()>& read) {
  if (IsInSysroot()) {
    throw CommandError(ExitCode::kUsage, "a captured tree cannot be entered from another one", directoryOrBundle,
                       "leave --sysroot out");
  }
  return ReadInChild(kTreeSeconds, directoryOrBundle, [&] {
    EnterSysroot(directoryOrBundle);
    return read();
  });
}

bool IsTree(const std::string& path) {
  const UniqueFd file(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
  struct stat info {};
  if (!file || ::fstat(file.Get(), &info) != 0) return false;
  std::array<unsigned char, 2> head{};
  return S_ISDIR(info.st_mode) || (S_ISREG(info.st_mode) && ::pread(file.Get(), head.data(), head.size(), 0) == 2 &&
                                   head[0] == 0x1F && head[1] == 0x8B);
}

}  // namespace ravctl
