#include "ravctl/trace/trace_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <new>

#include "platform/descriptor_io.h"
#include "platform/unique_fd.h"
#include "ravctl/answer/output.h"
#include "ravctl/base/error.h"
#include "ravctl/base/gzip.h"
#include "ravctl/base/letter_case.h"
#include "ravctl/base/text.h"
#include "ravctl/trace/kept_runs.h"
#include "ravctl/trace/trace_entry.h"
#include "ravctl/trace/trace_settings.h"

namespace ravctl {

namespace {

constexpr size_t kFirstBlock = size_t{4} << 20;

bool Exists(const std::string& path) {
  return ::access(path.c_str(), F_OK) == 0;
}

// Where the files of the source's run are.
std::string RunDirectory(const TraceSource& source) {
  const std::string directory = DirectoryOf(source);
  if (source.Run() == 0) return directory;
  const std::vector<KeptRun> kept = FindKeptRuns(directory);
  if (source.Run() <= kept.size()) return kept[source.Run() - 1].path;
  throw CommandError(ExitCode::kInputMissing, "no run " + std::to_string(source.Run()) + " is kept", directory,
                     "ravctl trace list shows those that are");
}

}  // namespace

TraceFile::TraceFile(std::string path, size_t largest, bool isKept) : m_Path(std::move(path)), m_Largest(largest) {
  const UniqueFd file = isKept ? OpenKept(m_Path) : UniqueFd(::open(m_Path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
  if (!file) throw SystemFailure("cannot open the trace", m_Path, errno);
  struct stat info {};
  if (::fstat(file.Get(), &info) != 0) throw SystemFailure("cannot read the trace", m_Path, errno);
  if (!S_ISREG(info.st_mode)) {
    throw CommandError(ExitCode::kInputMissing, "not a regular file", m_Path, "name a trace file or an application");
  }
  char magic[2] = {};
  const ssize_t got = ::pread(file.Get(), magic, sizeof magic, 0);
  if (got == 2 && IsGzip({magic, 2})) {
    Unpack(file.Get());
  } else {
    ReadPlain(file.Get(), static_cast<size_t>(info.st_size));
  }
  m_Layout = FindLayout(Content());
}

void TraceFile::RefuseAbove(size_t size) const {
  if (size <= m_Largest) return;
  throw CommandError(ExitCode::kInputDamaged,
                     "larger than " + HumanSize(m_Largest) + ", which is the most that is read", m_Path,
                     "cut it, or unpack it and look at its parts");
}

void TraceFile::ReadPlain(int fd, size_t size) {
  RefuseAbove(size);
  Grow(size);
  Progress progress("reading " + m_Path, size);
  while (m_Size < size) {
    const ssize_t got = ReadSome(fd, m_Bytes.get() + m_Size, std::min(size - m_Size, kFirstBlock * 4));
    if (got < 0) throw SystemFailure("cannot read the trace", m_Path, errno);
    if (got == 0) break;
    m_Size += static_cast<size_t>(got);
    progress.Update(m_Size);
  }
}

void TraceFile::Grow(size_t room) {
  char* const larger = static_cast<char*>(std::realloc(m_Bytes.get(), std::max<size_t>(room, 1)));
  if (larger == nullptr) throw std::bad_alloc();
  static_cast<void>(m_Bytes.release());
  m_Bytes.reset(larger);
}

void TraceFile::Unpack(int fd) {
  std::array<char, 1 << 16> packed{};
  size_t room = 0;
  const auto next = [&]() -> std::string_view {
    const ssize_t got = ReadSome(fd, packed.data(), packed.size());
    if (got < 0) throw SystemFailure("cannot read the trace", m_Path, errno);
    return {packed.data(), static_cast<size_t>(got)};
  };
  const auto take = [&](std::string_view piece) {
    if (m_Size + piece.size() > room) Grow(room = std::max({room * 2, m_Size + piece.size(), kFirstBlock}));
    piece.copy(m_Bytes.get() + m_Size, piece.size());
    m_Size += piece.size();
    RefuseAbove(m_Size);
    return true;
  };
  const char* fault = UnpackGzip(next, take);
  m_Damage = fault != nullptr ? fault : "";
}

std::string_view TraceFile::FirstTime() const {
  std::string_view time = m_Layout.beginLine.substr(0, kTimeLength);
  if (time.empty()) {
    ForEachEntry(Content(), [&time](std::string_view whole) {
      time = whole.substr(0, kTimeLength);
      return false;
    });
  }
  return time;
}

TracePaths PathsOf(const std::string& directory, const std::string& application) {
  const std::string log = directory + "/log." + Lower(application);
  return {log, log + "_i", log + "_i.gz", log + "_a"};
}

bool IsPath(const TraceSource& source) {
  return source.what.find('/') != std::string::npos || (source.what.starts_with("log.") && Exists(source.what));
}

std::string DirectoryOf(const TraceSource& source) {
  if (!source.directory.empty()) return source.directory;
  return TraceSettings(source.what).Directory();
}

std::vector<TraceFile> ReadTraceFiles(const TraceSource& source) {
  std::vector<TraceFile> files;
  if (IsPath(source)) {
    if (source.Run() != 0) {
      throw CommandError(ExitCode::kUsage, "a file has no runs", source.what,
                         "name an application, or leave --run out");
    }
    files.emplace_back(source.what);
    return files;
  }
  const std::string directory = RunDirectory(source);
  const TracePaths paths = PathsOf(directory, source.what);
  const std::string start = Exists(paths.start) ? paths.start : paths.startPacked;
  const bool wantsStart = source.part == TracePart::kRings || source.part == TracePart::kStart;
  const bool wantsRun = source.part == TracePart::kRings || source.part == TracePart::kRun;
  const auto read = [&](const std::string& path) {
    if (Exists(path)) files.emplace_back(path, TraceFile::kUsualLargest, source.Run() != 0);
  };
  if (wantsStart) read(start);
  if (wantsRun) read(paths.run);
  const bool wantsLog = source.part == TracePart::kLog || (source.part == TracePart::kRings && files.empty());
  if (wantsLog) read(paths.log);
  if (files.empty()) {
    if (::access(directory.c_str(), X_OK) != 0) throw SystemFailure("cannot look into", directory, errno);
    throw CommandError(ExitCode::kInputMissing, "no trace of " + source.what, directory,
                       "ravctl trace config tells where it traces and whether it does");
  }
  // While the application starts, the run-time ring buffer is still that of its former run.
  std::ranges::stable_sort(files, {}, [](const TraceFile& file) { return file.FirstTime(); });
  return files;
}

}  // namespace ravctl
