#include "ravctl/trace/trace_file.h"

#include <archive.h>
#include <archive_entry.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "platform/descriptor_io.h"
#include "platform/unique_fd.h"
#include "ravctl/core/command_error.h"
#include "ravctl/core/output.h"
#include "ravctl/trace/trace_entry.h"
#include "ravctl/trace/trace_settings.h"

namespace ravctl {

namespace {

constexpr size_t kLargestTrace = size_t{8} << 30;  // bytes unpacked; a packed file that holds more is none of ours
constexpr size_t kFirstBlock = size_t{4} << 20;
constexpr std::string_view kGzipMagic = "\x1f\x8b";

struct ArchiveDeleter {
  void operator()(archive* reader) const { archive_read_free(reader); }
};

bool Exists(const std::string& path) {
  return ::access(path.c_str(), F_OK) == 0;
}

}  // namespace

TraceFile::TraceFile(std::string path) : m_Path(std::move(path)) {
  const UniqueFd file(::open(m_Path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
  if (!file) throw SystemFailure("cannot open the trace", m_Path, errno);
  struct stat info {};
  if (::fstat(file.Get(), &info) != 0) throw SystemFailure("cannot read the trace", m_Path, errno);
  if (!S_ISREG(info.st_mode)) {
    throw CommandError(ExitCode::kInputMissing, "not a regular file", m_Path, "name a trace file or an application");
  }
  char magic[2] = {};
  const ssize_t got = ::pread(file.Get(), magic, sizeof magic, 0);
  if (got == 2 && std::string_view(magic, 2) == kGzipMagic) {
    Unpack(file.Get());
  } else {
    ReadPlain(file.Get(), static_cast<size_t>(info.st_size));
  }
  m_Layout = FindLayout(Content());
}

void TraceFile::ReadPlain(int fd, size_t size) {
  if (size > kLargestTrace) throw CommandError(ExitCode::kInputDamaged, "larger than a trace can be", m_Path, "");
  m_Bytes = std::make_unique_for_overwrite<char[]>(size);
  Progress progress("reading " + m_Path, size);
  while (m_Size < size) {
    const ssize_t got = ReadSome(fd, m_Bytes.get() + m_Size, std::min(size - m_Size, kFirstBlock * 4));
    if (got < 0) throw SystemFailure("cannot read the trace", m_Path, errno);
    if (got == 0) break;
    m_Size += static_cast<size_t>(got);
    progress.Update(m_Size);
  }
}

void TraceFile::Unpack(int fd) {
  const std::unique_ptr<archive, ArchiveDeleter> reader(archive_read_new());
  archive_entry* entry = nullptr;
  archive_read_support_filter_gzip(reader.get());
  archive_read_support_format_raw(reader.get());
  if (archive_read_open_fd(reader.get(), fd, 1 << 16) != ARCHIVE_OK ||
      archive_read_next_header(reader.get(), &entry) != ARCHIVE_OK) {
    const char* why = archive_error_string(reader.get());
    throw CommandError(ExitCode::kInputDamaged, "cannot unpack the trace", m_Path, why != nullptr ? why : "");
  }
  size_t room = kFirstBlock;
  m_Bytes = std::make_unique_for_overwrite<char[]>(room);
  for (;;) {
    if (m_Size == room) {
      room *= 2;
      auto larger = std::make_unique_for_overwrite<char[]>(room);
      std::memcpy(larger.get(), m_Bytes.get(), m_Size);
      m_Bytes = std::move(larger);
    }
    const la_ssize_t got =
        archive_read_data(reader.get(), m_Bytes.get() + m_Size, std::min(room - m_Size, kFirstBlock));
    if (got == 0) return;
    if (got < 0) {
      const char* why = archive_error_string(reader.get());
      m_Damage = why != nullptr ? why : "damaged";
      return;
    }
    m_Size += static_cast<size_t>(got);
    if (m_Size > kLargestTrace) throw CommandError(ExitCode::kInputDamaged, "larger than a trace can be", m_Path, "");
  }
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
  std::string name = application;
  std::ranges::transform(name, name.begin(), [](char letter) {
    return letter >= 'A' && letter <= 'Z' ? static_cast<char>(letter - 'A' + 'a') : letter;
  });
  const std::string log = directory + "/log." + name;
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
    files.emplace_back(source.what);
    return files;
  }
  const std::string directory = DirectoryOf(source);
  const TracePaths paths = PathsOf(directory, source.what);
  const std::string start = Exists(paths.start) ? paths.start : paths.startPacked;
  const bool wantsStart = source.part == TracePart::kRings || source.part == TracePart::kStart;
  const bool wantsRun = source.part == TracePart::kRings || source.part == TracePart::kRun;
  if (wantsStart && Exists(start)) files.emplace_back(start);
  if (wantsRun && Exists(paths.run)) files.emplace_back(paths.run);
  const bool wantsLog = source.part == TracePart::kLog || (source.part == TracePart::kRings && files.empty());
  if (wantsLog && Exists(paths.log)) files.emplace_back(paths.log);
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
