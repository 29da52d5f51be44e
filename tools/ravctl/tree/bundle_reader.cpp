#include "ravctl/tree/bundle_reader.h"

#include <archive.h>
#include <archive_entry.h>
#include <fcntl.h>
#include <linux/openat2.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>
#include <zlib.h>

#include <cerrno>
#include <climits>
#include <cstring>
#include <map>
#include <memory>
#include <string_view>

#include "platform/descriptor_io.h"
#include "platform/unique_fd.h"
#include "ravctl/answer/json.h"
#include "ravctl/answer/output.h"
#include "ravctl/base/error.h"
#include "ravctl/base/json_reader.h"
#include "ravctl/base/text.h"
#include "ravctl/tree/bundle_format.h"

namespace ravctl {

namespace {

constexpr size_t kReadSize = 256 * 1024;
// With the headers of the entries.
constexpr auto kMostUnpacked = static_cast<int64_t>(kLargestBundle + kLargestManifest + uint64_t{kMostEntries} * 8192);

using Archive = std::unique_ptr<archive, decltype([](archive* each) { ::archive_read_free(each); })>;

// "etc/pelrix/registry": no empty name, no "." or "..", neither too long nor too deep.
bool IsPlainPath(std::string_view path) {
  if (path.empty() || path.size() >= PATH_MAX) return false;
  unsigned int depth = 0;
  while (true) {
    const std::string_view name = path.substr(0, path.find('/'));
    if (name.empty() || name.size() > NAME_MAX || name == "." || name == ".." || ++depth > kDeepestPath) return false;
    if (name.size() == path.size()) return true;
    path.remove_prefix(name.size() + 1);
  }
}

// Whether a relative link at that path climbs over the tree's root. An absolute one begins at that root.
bool LeadsOut(std::string_view path, std::string_view target) {
  if (target.starts_with('/')) return false;
  long depth = std::count(path.begin(), path.end(), '/');
  for (const std::string& name : SplitList(target, '/')) {
    if (name == "..") --depth;
    if (name != "." && name != "..") ++depth;
    if (depth < 0) return true;
  }
  return false;
}

// Null for what is no object or lacks the key.
const Json& Member(const Json& object, const char* key) {
  static const Json none;
  const auto found = object.is_object() ? object.find(key) : object.end();
  return !object.is_object() || found == object.end() ? none : *found;
}

UniqueFd OpenBelow(int directory, const char* path) {
  open_how how{};
  how.flags = O_RDONLY | O_DIRECTORY | O_CLOEXEC;
  how.resolve = RESOLVE_BENEATH | RESOLVE_NO_SYMLINKS | RESOLVE_NO_MAGICLINKS;
  return UniqueFd(static_cast<int>(::syscall(SYS_openat2, directory, path, &how, sizeof how)));
}

class Unpacker {
 public:
  Unpacker(int directory, const std::string& bundle) : m_Directory(directory), m_Bundle(bundle) {}

  void Unpack(int file);

 private:
  struct Content {
    uint64_t size = 0;
    uLong crc = 0;
  };

  [[noreturn]] void Refuse(const char* why) const {
    throw CommandError(ExitCode::kInputDamaged, "the bundle is refused", m_Bundle + ": " + why + ": " + m_Path,
                       "it was not made by ravctl bundle");
  }
  [[noreturn]] void Damaged(const std::string& why) const {
    throw CommandError(ExitCode::kInputDamaged, "the bundle is damaged", m_Bundle + ": " + why, "copy it anew");
  }
  [[noreturn]] void Failed() const {
    if (errno == ENOSPC) Refuse("more than a bundle holds");
    throw SystemFailure("cannot unpack " + m_Bundle, m_Path, errno);
  }

  void OpenArchive(int file);
  void TakeEntry(archive_entry* entry);
  std::string PathOf(archive_entry* entry) const;
  void TakeFile(archive_entry* entry, int parent, const std::string& name);
  void TakeData(int file, uint64_t size);
  void TakeLink(archive_entry* entry, int parent, const std::string& name);
  int ParentDirectory(const std::string& path);
  void CheckManifest() const;

  int m_Directory;
  const std::string& m_Bundle;
  Archive m_Archive;
  std::string m_Path;  // of the entry
  unsigned int m_Entries = 0;
  uint64_t m_Bytes = 0;
  std::string m_ParentPath;  // of the open directory
  UniqueFd m_Parent;
  std::map<std::string, Content, std::less<>> m_Files;
};

void Unpacker::OpenArchive(int file) {
  m_Archive.reset(::archive_read_new());
  archive* reader = m_Archive.get();
  if (reader == nullptr) throw std::bad_alloc();
  // Nothing but what a bundle is: each further format is one more parser for what is not trusted.
  ::archive_read_support_format_tar(reader);
  ::archive_read_support_filter_gzip(reader);
  ::archive_read_support_filter_zstd(reader);
  if (::archive_read_open_fd(reader, file, kReadSize) != ARCHIVE_OK) {
    Damaged("it is cut short, or neither tar.gz nor tar.zst");
  }
}

void Unpacker::Unpack(int file) {
  OpenArchive(file);
  struct stat info {};
  ::fstat(file, &info);
  Progress progress("unpacking " + m_Bundle, static_cast<unsigned long long>(info.st_size));
  archive_entry* entry = nullptr;
  int result = ARCHIVE_OK;
  while ((result = ::archive_read_next_header(m_Archive.get(), &entry)) == ARCHIVE_OK) {
    TakeEntry(entry);
    progress.Update(static_cast<unsigned long long>(::archive_filter_bytes(m_Archive.get(), -1)));
  }
  const char* why = ::archive_error_string(m_Archive.get());
  if (result != ARCHIVE_EOF) Damaged(why != nullptr ? why : "it cannot be read");
  m_Path.clear();
  if (m_Entries == 0) Damaged("it is empty");
  CheckManifest();
}

std::string Unpacker::PathOf(archive_entry* entry) const {
  const char* name = ::archive_entry_pathname(entry);
  std::string path = name != nullptr ? name : "";
  while (path.starts_with("./"))
    path.erase(0, 2);
  while (path.ends_with('/') && path.size() > 1)
    path.pop_back();
  return path;
}

void Unpacker::TakeEntry(archive_entry* entry) {
  m_Path = PathOf(entry);
  if (++m_Entries > kMostEntries) Refuse("too many entries");
  // What was skipped was unpacked, too.
  if (::archive_filter_bytes(m_Archive.get(), 0) > kMostUnpacked) Refuse("more than a bundle holds");
  if ((m_Path.empty() || m_Path == ".") && ::archive_entry_filetype(entry) == AE_IFDIR) return;
  if (!IsPlainPath(m_Path)) Refuse("a path that leads out of the tree or is none");
  if (::archive_entry_hardlink(entry) != nullptr) Refuse("a hard link");
  const size_t slash = m_Path.rfind('/');
  const std::string name = m_Path.substr(slash + 1);
  const int parent = ParentDirectory(slash == std::string::npos ? "" : m_Path.substr(0, slash));
  switch (::archive_entry_filetype(entry)) {
    case AE_IFDIR:
      if (::mkdirat(parent, name.c_str(), 0755) != 0 && errno != EEXIST) Failed();
      return;
    case AE_IFLNK:
      return TakeLink(entry, parent, name);
    case AE_IFREG:
      return TakeFile(entry, parent, name);
    default:
      Refuse("neither file, directory nor link");
  }
}

// Entries of a directory stand together, so that the last one is mostly the one.
int Unpacker::ParentDirectory(const std::string& path) {
  if (path.empty()) return m_Directory;
  if (m_Parent && path == m_ParentPath) return m_Parent.Get();
  m_Parent = OpenBelow(m_Directory, path.c_str());
  if (!m_Parent && errno == ENOENT) {
    for (size_t end = path.find('/');; end = path.find('/', end + 1)) {
      const std::string above = path.substr(0, end);
      const size_t slash = above.rfind('/');
      const UniqueFd parent(slash == std::string::npos
                                ? ::dup(m_Directory)
                                : OpenBelow(m_Directory, above.substr(0, slash).c_str()).Release());
      if (!parent) Refuse("a path through what is no directory");
      if (::mkdirat(parent.Get(), above.substr(slash + 1).c_str(), 0755) != 0 && errno != EEXIST) Failed();
      if (end == std::string::npos) break;
    }
    m_Parent = OpenBelow(m_Directory, path.c_str());
  }
  if (!m_Parent) Refuse("a path through what is no directory");
  m_ParentPath = path;
  return m_Parent.Get();
}

void Unpacker::TakeLink(archive_entry* entry, int parent, const std::string& name) {
  const char* target = ::archive_entry_symlink(entry);
  if (target == nullptr || *target == '\0' || std::strlen(target) >= PATH_MAX) Refuse("a link to nothing");
  if (LeadsOut(m_Path, target)) Refuse("a link that leads out of the tree");
  if (::symlinkat(target, parent, name.c_str()) == 0) return;
  if (errno == EEXIST) Refuse("two entries of one path");
  Failed();
}

void Unpacker::TakeFile(archive_entry* entry, int parent, const std::string& name) {
  const auto size = static_cast<uint64_t>(std::max<int64_t>(::archive_entry_size(entry), 0));
  const bool isMemory = m_Path == kMemoryPath;
  if (size > (isMemory ? kHighestAddress : kLargestFile)) Refuse("a file that is too large");
  const UniqueFd file(::openat(parent, name.c_str(), O_CREAT | O_EXCL | O_WRONLY | O_CLOEXEC | O_NOFOLLOW, 0600));
  if (!file && errno == EEXIST) Refuse("two entries of one path");
  if (!file || ::ftruncate(file.Get(), static_cast<off_t>(size)) != 0) Failed();
  TakeData(file.Get(), size);
  const timespec times[2] = {{0, UTIME_OMIT}, {::archive_entry_mtime(entry), ::archive_entry_mtime_nsec(entry)}};
  ::futimens(file.Get(), times);
  ::fchmod(file.Get(), (::archive_entry_perm(entry) & 0777) | 0400);
}

void Unpacker::TakeData(int file, uint64_t size) {
  Content& content = m_Files[m_Path];
  content = {size, ::crc32(0, nullptr, 0)};
  const void* block = nullptr;
  size_t length = 0;
  int64_t offset = 0;
  int result = ARCHIVE_OK;
  while ((result = ::archive_read_data_block(m_Archive.get(), &block, &length, &offset)) == ARCHIVE_OK) {
    m_Bytes += length;
    if (m_Bytes > kLargestBundle) Refuse("more than a bundle holds");
    if (offset < 0 || static_cast<uint64_t>(offset) > size || length > size - static_cast<uint64_t>(offset)) {
      Refuse("a file that is longer than it says");
    }
    const std::string_view bytes(static_cast<const char*>(block), length);
    content.crc = ::crc32_z(content.crc, static_cast<const Bytef*>(block), length);
    if (!WriteAllAt(file, bytes, offset)) Failed();
  }
  const char* why = ::archive_error_string(m_Archive.get());
  if (result != ARCHIVE_EOF) Damaged(m_Path + ": " + (why != nullptr ? why : "it cannot be read"));
}

void Unpacker::CheckManifest() const {
  const auto found = m_Files.find(kManifestPath);
  if (found == m_Files.end()) return;
  if (found->second.size > kLargestManifest) Damaged("its manifest is too large");
  const UniqueFd file(::openat(m_Directory, kManifestPath, O_RDONLY | O_CLOEXEC | O_NOFOLLOW));
  std::string text;
  if (!file || !ReadToEnd(file.Get(), text)) throw SystemFailure("cannot read " + m_Bundle, kManifestPath, errno);
  std::string why;
  const std::optional<Json> manifest = ReadJson(text, why, {.size = kLargestManifest});
  if (!manifest) Damaged("its manifest: " + why);
  if (Member(*manifest, "schema") != kManifestSchema) Damaged("its manifest is none");
  if (Member(*manifest, "version") != kManifestVersion) {
    throw CommandError(ExitCode::kInputDamaged, "the bundle is of another version", m_Bundle,
                       "use the ravctl that made it");
  }
  const Json& entries = Member(*manifest, "entries");
  if (!entries.is_array()) Damaged("its manifest names no entries");
  for (const Json& entry : entries) {
    if (Member(entry, "type") != "file") continue;
    const std::string path = Member(entry, "path").is_string() ? Member(entry, "path").get<std::string>() : "a path";
    const auto content = m_Files.find(path);
    if (content == m_Files.end()) Damaged("it lacks " + path);
    if (Member(entry, "size") != content->second.size || Member(entry, "crc32") != content->second.crc) {
      Damaged("it holds another " + path + " than it says");
    }
  }
}

}  // namespace

void UnpackBundle(int archive, const std::string& bundle, int directory) {
  Unpacker(directory, bundle).Unpack(archive);
}

}  // namespace ravctl
