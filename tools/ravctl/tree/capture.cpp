#include "ravctl/tree/capture.h"

#include <dirent.h>
#include <fcntl.h>
#include <fnmatch.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <cstring>
#include <memory>

#include "platform/descriptor_io.h"
#include "platform/unique_fd.h"
#include "ravctl/base/text.h"
#include "ravctl/tree/bundle_format.h"

namespace ravctl {

namespace {

constexpr unsigned int kMostLinks = 40;  // on the way to a file, as the kernel allows
constexpr size_t kReadSize = 1 << 20;

std::string Parent(const std::string& path) {
  const size_t slash = path.rfind('/');
  return slash == std::string::npos ? "" : path.substr(0, slash);
}

// At most limit bytes. False with errno when nothing more can be read.
bool ReadUpTo(int file, uint64_t limit, std::string& content) {
  ssize_t got = 1;
  while (got > 0 && content.size() < limit) {
    const size_t before = content.size();
    const size_t wanted = static_cast<size_t>(std::min<uint64_t>(kReadSize, limit - before));
    content.resize(before + wanted);
    got = ReadSome(file, content.data() + before, wanted);
    const int error = errno;
    content.resize(before + static_cast<size_t>(std::max<ssize_t>(got, 0)));
    errno = error;
  }
  return got >= 0;
}

}  // namespace

void Capture::AddMatching(const std::string& pattern, CaptureKind kind, uint64_t limit) {
  AddMatchingBelow("", pattern, kind, limit);
}

// pattern: what follows the directory, with its slash.
void Capture::AddMatchingBelow(const std::string& directory, std::string_view pattern, CaptureKind kind,
                               uint64_t limit) {
  if (pattern.empty()) return Add(directory, kind, limit);
  const size_t end = std::min(pattern.find('/', 1), pattern.size());
  const std::string name(pattern.substr(1, end - 1));
  const std::string_view rest = pattern.substr(end);
  if (name.find_first_of("*?[") == std::string::npos)
    return AddMatchingBelow(directory + "/" + name, rest, kind, limit);
  const std::unique_ptr<DIR, decltype([](DIR* stream) { ::closedir(stream); })> stream(::opendir(directory.c_str()));
  if (stream == nullptr) return AddFailure(directory, errno);
  std::vector<std::string> names;
  while (const dirent* entry = ::readdir(stream.get())) {
    if (::fnmatch(name.c_str(), entry->d_name, FNM_PERIOD) == 0) names.emplace_back(entry->d_name);
  }
  for (const std::string& each : names)
    AddMatchingBelow(directory + "/" + each, rest, kind, limit);
}

void Capture::Add(const std::string& path, CaptureKind kind, uint64_t limit) {
  const std::string real = Resolve(path, kind == CaptureKind::kContent);
  if (real.empty() && kind == CaptureKind::kOwnContent) AddUncaptured(path, "a link", false);
  if (real.empty() || !IsNew(real)) return;
  struct stat info {};
  if (::lstat(real.c_str(), &info) != 0) return AddFailure(real, errno);
  if (S_ISDIR(info.st_mode)) {
    AddEntry({.path = real.substr(1), .type = EntryType::kDirectory, .mode = info.st_mode & 07777});
  } else if (kind != CaptureKind::kName) {
    TakeFile(real, limit, kind);
  } else {
    AddEntry({.path = real.substr(1), .modified = info.st_mtime});
  }
}

void Capture::AddEntry(CapturedEntry entry) {
  m_Bytes += entry.content.size();
  m_Entries.push_back(std::move(entry));
}

void Capture::AddText(const std::string& path, std::string text) {
  CapturedEntry entry{.path = path.substr(1), .content = std::move(text)};
  entry.size = entry.content.size();
  AddEntry(std::move(entry));
}

void Capture::AddUncaptured(const std::string& path, const std::string& reason, bool needsRoot) {
  if (m_Noted.insert(path).second) m_Missing.push_back({path, reason, needsRoot && ::geteuid() != 0});
}

void Capture::AddFailure(const std::string& path, int error) {
  if (error == ENOENT || error == ENOTDIR) return;
  AddUncaptured(path, std::strerror(error), error == EACCES || error == EPERM);
}

bool Capture::IsNew(const std::string& path) {
  return m_Seen.insert(path).second;
}

void Capture::AddLink(const std::string& path, const std::string& target) {
  if (IsNew(path)) AddEntry({.path = path.substr(1), .type = EntryType::kLink, .content = target, .mode = 0777});
}

std::string Capture::Resolve(const std::string& path, bool followsLast) {
  std::vector<std::string> names = SplitList(path, '/');
  std::ranges::reverse(names);
  std::string real;
  unsigned int links = 0;
  while (!names.empty()) {
    const std::string name = names.back();
    names.pop_back();
    if (name == ".") continue;
    if (name == "..") {
      real = Parent(real);
      continue;
    }
    const std::string next = real + "/" + name;
    std::array<char, PATH_MAX> target{};
    const ssize_t length = ::readlink(next.c_str(), target.data(), target.size() - 1);
    const int error = errno;
    if (length < 0 && error != EINVAL) {
      AddFailure(next, error);
      return "";
    }
    if (length > 0) {
      AddLink(next, target.data());
      if (names.empty() && !followsLast) return "";
      if (++links > kMostLinks) return "";
      if (target[0] == '/') real.clear();
      std::vector<std::string> more = SplitList(target.data(), '/');
      names.insert(names.end(), more.rbegin(), more.rend());
      continue;
    }
    real = next;
  }
  return real;
}

void Capture::TakeFile(const std::string& path, uint64_t limit, CaptureKind kind) {
  // Without waiting for a pipe's other end, and without making a device do anything.
  const UniqueFd file(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY | O_NOFOLLOW));
  if (!file) return AddFailure(path, errno);
  struct stat info {};
  if (::fstat(file.Get(), &info) != 0) return AddFailure(path, errno);
  if (!S_ISREG(info.st_mode) && !S_ISCHR(info.st_mode)) return AddUncaptured(path, "no file", false);
  if (kind == CaptureKind::kOwnContent) {
    if (!S_ISREG(info.st_mode) || info.st_nlink != 1) return AddUncaptured(path, "it has further names", false);
    if (info.st_uid != 0 && info.st_uid != ::geteuid()) return AddUncaptured(path, "it is somebody else's", false);
  }
  const uint64_t room = kLargestBundle - std::min(m_Bytes, kLargestBundle);
  const uint64_t most = std::min({limit, kLargestFile, room});
  CapturedEntry entry{.path = path.substr(1), .mode = info.st_mode & 0777, .modified = info.st_mtime};
  if (!ReadUpTo(file.Get(), limit <= most ? limit : most + 1, entry.content)) return AddFailure(path, errno);
  if (entry.content.size() > most) {
    return AddUncaptured(path, most == room ? "no room is left in the bundle" : "too large for a bundle", false);
  }
  entry.size = entry.content.size();
  AddEntry(std::move(entry));
}

}  // namespace ravctl
