// trace list: the runs whose traces are there, the present one and those that the service kept.

#include <sys/stat.h>

#include <algorithm>

#include "ravctl/answer/json.h"
#include "ravctl/base/times.h"
#include "ravctl/commands/trace/group.h"
#include "ravctl/line/command.h"
#include "ravctl/trace/kept_runs.h"

namespace ravctl {

namespace {

struct FilesOfRun {
  uint64_t size = 0;
  int64_t writtenAt = 0;  // the newest of them, seconds since 1970; 0 when there is none
};

FilesOfRun LookAt(const std::string& directory) {
  FilesOfRun files;
  const TracePaths paths = PathsOf(directory, TraceSource().what);
  for (const std::string& path : {paths.log, paths.start, paths.startPacked, paths.run}) {
    struct stat info {};
    if (::lstat(path.c_str(), &info) != 0 || !S_ISREG(info.st_mode)) continue;
    files.size += static_cast<uint64_t>(info.st_size);
    files.writtenAt = std::max<int64_t>(files.writtenAt, info.st_mtime);
  }
  return files;
}

ExitCode RunList(const TraceSource& source, Output& out) {
  Table table(kTraceList);
  const auto add = [&table](size_t number, int64_t time, const KeptRun& run) {
    Json row = EndOf(run);
    row.update({{"run", number}, {"time", LocalTimeText(time)}, {"size", LookAt(run.path).size}, {"path", run.path}});
    table.Add(std::move(row));
  };
  // The present run is listed with the time at which it last wrote.
  const std::string directory = DirectoryOf(source);
  const std::vector<KeptRun> kept = FindKeptRuns(directory);
  const int64_t writtenAt = LookAt(directory).writtenAt;
  if (writtenAt != 0) add(0, writtenAt, {.path = directory});
  for (size_t index = 0; index < kept.size(); ++index)
    add(index + 1, kept[index].endedAt, kept[index]);
  out.Print(kTraceList, table);
  return table.Size() > 0 ? ExitCode::kDone : ExitCode::kNothingOrDifferent;
}

}  // namespace

void AddTraceList(Command& trace) {
  auto source = std::make_shared<TraceSource>();
  Command& list =
      trace.Add({"list",
                 "List the runs of the daemon whose traces are there: the present one (0) and those that were kept",
                 {{"ravctl trace list", "newest first: when each ended, and how"},
                  {"ravctl trace list --json | jq '.data[1].signal'", "what ended the last of those that are kept"}}},
                [source](Output& out) { return RunList(*source, out); });
  list.Answers({&kTraceList});
  AddDirectoryOption(list, *source);
}

}  // namespace ravctl
