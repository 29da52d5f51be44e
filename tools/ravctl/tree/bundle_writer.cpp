#include "ravctl/tree/bundle_writer.h"

#include <archive.h>
#include <archive_entry.h>
#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <vector>

#include "ravctl/base/error.h"

namespace ravctl {

namespace {

constexpr size_t kZeros = 1 << 20;

using Entry = std::unique_ptr<archive_entry, decltype([](archive_entry* each) { ::archive_entry_free(each); })>;

bool EndsWithOneOf(const std::string& path, std::initializer_list<std::string_view> endings) {
  return std::ranges::any_of(endings, [&path](std::string_view ending) { return path.ends_with(ending); });
}

[[noreturn]] void RefuseToOverwrite(const std::string& path) {
  throw CommandError(ExitCode::kUsage, "the file exists and is not overwritten", path, "choose another name");
}

// Not over another file, where the file system can tell.
bool TakeName(const char* temporary, const char* path) {
  if (::renameat2(AT_FDCWD, temporary, AT_FDCWD, path, RENAME_NOREPLACE) == 0) return true;
  return (errno == EINVAL || errno == ENOSYS) && ::rename(temporary, path) == 0;
}

unsigned int FileType(EntryType type) {
  if (type == EntryType::kDirectory) return AE_IFDIR;
  return type == EntryType::kLink ? AE_IFLNK : AE_IFREG;
}

}  // namespace

void BundleWriter::FreeArchive::operator()(archive* each) const {
  ::archive_write_free(each);
}

BundleWriter::BundleWriter(std::string path) : m_Path(std::move(path)) {
  const bool isGzip = EndsWithOneOf(m_Path, {".tar.gz", ".tgz"});
  if (!isGzip && !EndsWithOneOf(m_Path, {".tar.zst", ".tzst"})) {
    throw CommandError(ExitCode::kUsage, "the name does not tell the packing", m_Path, "end it in .tar.gz or .tar.zst");
  }
  if (struct stat info{}; ::lstat(m_Path.c_str(), &info) == 0) RefuseToOverwrite(m_Path);
  const size_t name = m_Path.rfind('/') + 1;
  m_Temporary = m_Path.substr(0, name) + "." + m_Path.substr(name) + ".XXXXXX";
  m_File.Reset(::mkostemp(m_Temporary.data(), O_CLOEXEC));
  if (!m_File) throw SystemFailure("cannot create the bundle", m_Path, errno);
  m_Archive.reset(::archive_write_new());
  archive* writer = m_Archive.get();
  if (writer == nullptr) throw std::bad_alloc();
  const bool isReady =
      ::archive_write_set_format_pax_restricted(writer) == ARCHIVE_OK &&
      (isGzip ? ::archive_write_add_filter_gzip(writer) : ::archive_write_add_filter_zstd(writer)) == ARCHIVE_OK &&
      ::archive_write_open_fd(writer, m_File.Get()) == ARCHIVE_OK;
  Require(isReady, m_Path);
}

BundleWriter::~BundleWriter() {
  if (!m_IsFinished) ::unlink(m_Temporary.c_str());
}

void BundleWriter::Require(bool isDone, const std::string& what) const {
  if (isDone) return;
  const int error = ::archive_errno(m_Archive.get());
  const char* why = ::archive_error_string(m_Archive.get());
  throw CommandError(ExitCode::kInputMissing, "cannot write the bundle",
                     m_Path + ": " + what + ": " + (why != nullptr ? why : "it fails"),
                     error == ENOSPC ? "make room" : "");
}

void BundleWriter::WriteData(const char* data, uint64_t size, const std::string& path) {
  while (size > 0) {
    const la_ssize_t written = ::archive_write_data(m_Archive.get(), data, static_cast<size_t>(size));
    Require(written > 0, path);
    data += written;
    size -= static_cast<uint64_t>(written);
  }
}

// The archive counts the bytes of a hole and drops them.
void BundleWriter::WriteHole(uint64_t size, const std::string& path) {
  static const std::vector<char> zeros(kZeros);
  for (uint64_t part = 0; size > 0; size -= part) {
    part = std::min<uint64_t>(size, zeros.size());
    WriteData(zeros.data(), part, path);
  }
}

void BundleWriter::Add(const CapturedEntry& entry) {
  const Entry header(::archive_entry_new());
  if (header == nullptr) throw std::bad_alloc();
  ::archive_entry_copy_pathname(header.get(), entry.path.c_str());
  ::archive_entry_set_filetype(header.get(), FileType(entry.type));
  ::archive_entry_set_perm(header.get(), entry.mode);
  ::archive_entry_set_mtime(header.get(), entry.modified, 0);
  if (entry.type == EntryType::kLink) ::archive_entry_copy_symlink(header.get(), entry.content.c_str());
  if (entry.type == EntryType::kFile) ::archive_entry_set_size(header.get(), static_cast<la_int64_t>(entry.size));
  for (const StoredRange& range : entry.ranges) {
    ::archive_entry_sparse_add_entry(header.get(), static_cast<la_int64_t>(range.offset),
                                     static_cast<la_int64_t>(range.length));
  }
  // It warns of a name that is no text of the locale, and stores its bytes.
  Require(::archive_write_header(m_Archive.get(), header.get()) >= ARCHIVE_WARN, entry.path);
  if (entry.type != EntryType::kFile) return;
  if (entry.ranges.empty()) return WriteData(entry.content.data(), entry.content.size(), entry.path);
  uint64_t at = 0;
  const char* data = entry.content.data();
  for (const StoredRange& range : entry.ranges) {
    WriteHole(range.offset - at, entry.path);
    WriteData(data, range.length, entry.path);
    data += range.length;
    at = range.offset + range.length;
  }
  WriteHole(entry.size - at, entry.path);
}

uint64_t BundleWriter::Finish() {
  Require(::archive_write_close(m_Archive.get()) == ARCHIVE_OK, "its end");
  struct stat info {};
  if (::fsync(m_File.Get()) != 0 || ::fstat(m_File.Get(), &info) != 0) {
    throw SystemFailure("cannot write the bundle", m_Path, errno);
  }
  if (!TakeName(m_Temporary.c_str(), m_Path.c_str())) {
    if (errno == EEXIST) RefuseToOverwrite(m_Path);
    throw SystemFailure("cannot write the bundle", m_Path, errno);
  }
  m_IsFinished = true;
  return static_cast<uint64_t>(info.st_size);
}

}  // namespace ravctl
