#include "ravctl/trace/last_crash.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <cstdint>

#include "platform/regular_file.h"
#include "ravctl/base/child.h"
#include "ravctl/base/files.h"
#include "ravctl/base/times.h"
#include "ravctl/trace/kept_runs.h"
#include "ravctl/trace/read_at.h"
#include "ravctl/trace/trace_file.h"
#include "ravctl/tree/enter.h"
#include "ravctl/tree/machine_answers.h"

namespace ravctl {

namespace {

constexpr const char* kKernelLog = "/var/log/kern.log";
constexpr off_t kMostOfKernelLog = off_t{1} << 20;
constexpr const char* kJournalReader = "/usr/bin/journalctl";
constexpr const char* kMostJournalLines = "5000";
constexpr int kJournalSeconds = 5;  // for reading it
// From the crash, which the kernel notes, over its core dump to the end of the run.
constexpr int64_t kDumpSeconds = 300;
constexpr size_t kLongestLine = 1024;
constexpr size_t kLongestName = 255;

// The signals of which the kernel writes a line.
constexpr auto kFaults = std::to_array<std::string_view>({"SEGV", "BUS", "ILL", "FPE", "TRAP"});

// Takes what comes before the mark, and the mark. None when it does not come.
std::optional<std::string_view> TakeUpTo(std::string_view& line, std::string_view mark) {
  const size_t at = line.find(mark);
  if (at == std::string_view::npos) return std::nullopt;
  const std::string_view before = line.substr(0, at);
  line.remove_prefix(at + mark.size());
  return before;
}

template <typename Integer>
std::optional<Integer> Whole(std::optional<std::string_view> text, int base) {
  Integer number = 0;
  if (!text) return std::nullopt;
  const char* const end = text->data() + text->size();
  const auto [stop, error] = std::from_chars(text->data(), end, number, base);
  return error == std::errc() && stop == end ? std::optional(number) : std::nullopt;
}

std::string KernelLogEnd() {
  const UniqueFd file = OpenRegularFile(kKernelLog, O_RDONLY);
  struct stat info {};
  if (!file || ::fstat(file.Get(), &info) != 0) return "";
  const off_t begin = std::max<off_t>(info.st_size - kMostOfKernelLog, 0);
  return ReadAt(file, begin, static_cast<size_t>(kMostOfKernelLog));
}

// What the kernel said in the minutes before.
std::string JournalBefore(int64_t time) {
  if (IsInSysroot()) return ReadFileIfThere(kKernelAnswer).value_or("");
  return RunProgram(kJournalSeconds, kJournalReader,
                    {"-q", "-o", "cat", "--no-pager", "-n", kMostJournalLines,
                     "--since=@" + std::to_string(time - kDumpSeconds), "--until=@" + std::to_string(time + 1),
                     "_TRANSPORT=kernel"})
      .report;
}

// The place in the last line that is about one of these threads; empty when there is none.
std::string PlaceIn(std::string_view text, unsigned int first, unsigned int last) {
  std::string place;
  while (!text.empty()) {
    const std::string_view line = text.substr(0, text.find('\n'));
    text.remove_prefix(std::min(line.size() + 1, text.size()));
    const std::optional<CrashLine> crash = ParseCrashLine(line);
    if (crash && crash->thread >= first && crash->thread <= last) place = crash->place;
  }
  return place;
}

// In the journal a thread counts by its number: higher than that of its process, while earlier runs have lower ones.
// The log may reach back over starts of the system.
std::string PlaceOf(const KeptRun& run) {
  if (!run.pid || std::ranges::find(kFaults, run.signal) == kFaults.end()) return "";
  const std::string place = PlaceIn(JournalBefore(run.endedAt), *run.pid, UINT32_MAX);
  return place.empty() ? PlaceIn(KernelLogEnd(), *run.pid, *run.pid) : place;
}

}  // namespace

std::optional<CrashLine> ParseCrashLine(std::string_view line) {
  constexpr std::string_view kProcess = "ravd[";
  line = line.substr(0, kLongestLine);
  const auto before = TakeUpTo(line, kProcess);
  if (!before || (!before->empty() && !before->ends_with(' '))) return std::nullopt;
  const auto thread = Whole<unsigned int>(TakeUpTo(line, "]"), 10);
  if (!thread || !TakeUpTo(line, " ip")) return std::nullopt;
  line.remove_prefix(std::min<size_t>(line.size(), 1));  // ' ' or ':'
  const auto instruction = Whole<uint64_t>(TakeUpTo(line, " "), 16);
  if (!instruction || !TakeUpTo(line, " in ")) return std::nullopt;
  const auto name = TakeUpTo(line, "[");
  auto range = TakeUpTo(line, "]");
  if (!name || name->empty() || name->size() > kLongestName || !range) return std::nullopt;
  const auto inFile = TakeUpTo(*range, ",");
  const auto start = Whole<uint64_t>(TakeUpTo(*range, "+"), 16);
  const auto length = Whole<uint64_t>(*range, 16);
  if (!start || !length || *instruction < *start || *instruction - *start >= *length) return std::nullopt;
  const auto offset = inFile ? Whole<uint64_t>(inFile, 16) : *instruction - *start;
  if (!offset) return std::nullopt;
  std::array<char, 16> digits{};
  const auto [end, error] = std::to_chars(digits.data(), digits.data() + digits.size(), *offset, 16);
  return CrashLine{*thread,
                   std::string(*name) + " at 0x" + std::string(digits.data(), end) + (inFile ? "" : " of its mapping")};
}

std::optional<LastCrash> FindLastCrash() {
  const std::vector<KeptRun> runs = FindKeptRuns(DirectoryOf(TraceSource()));
  if (runs.empty()) return std::nullopt;
  const KeptRun& run = runs.front();
  std::string text = (run.signal.empty() ? "ended " : "crashed ") + LocalTimeText(run.endedAt);
  if (run.status) text += " with status " + std::to_string(*run.status);
  if (!run.signal.empty()) text += " by " + run.signal;
  if (!run.result.empty()) text += " (" + run.result + ")";
  const std::string place = PlaceOf(run);
  if (!place.empty()) text += ", in " + place;
  return LastCrash{run.path, text};
}

}  // namespace ravctl
