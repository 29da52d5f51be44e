#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "platform/descriptor_io.h"
#include "platform/unique_fd.h"
#include "trace/debug_trace_config_file.h"

namespace {

constexpr const char* kEndOfFile = "EndOfFile";
constexpr size_t kRoomBehindText = 16;
constexpr size_t kNumberSize = 64;

bool ReadExactly(int fd, char* bytes, size_t count) {
  for (size_t have = 0; have < count;) {
    const ssize_t got = ReadSome(fd, bytes + have, count - have);
    if (got <= 0) return false;
    have += static_cast<size_t>(got);
  }
  return true;
}

bool IsName(const char* begin, const char* end, const char* name) {
  const size_t length = std::strlen(name);
  return static_cast<size_t>(end - begin) == length && strncasecmp(begin, name, length) == 0;
}

}  // namespace

bool CDebugTraceConfigFile::OpenSectionInIniFile(const char* section, const char* fileName, const char* directory) {
  if (!IsFollowed() && !Follow(fileName, directory)) {
    Forget();
    return false;
  }
  if (section != nullptr && Load() && CutEndOfFile() && FindSection(section)) return true;
  Forget();
  return false;
}

bool CDebugTraceConfigFile::Follow(const char* fileName, const char* directory) {
  if (fileName == nullptr || directory == nullptr) return false;
  const int length = std::snprintf(m_Path, sizeof m_Path, "%s/%s", directory, fileName);
  struct stat info {};
  if (length < 0 || static_cast<size_t>(length) >= sizeof m_Path || ::stat(m_Path, &info) != 0) return false;
  m_Size = info.st_size;
  m_ModificationTime = info.st_mtime;
  return true;
}

bool CDebugTraceConfigFile::WasModified() {
  struct stat info {};
  if (::stat(m_Path, &info) != 0) {
    Forget();
    return false;
  }
  if (info.st_mtime <= m_ModificationTime) return false;
  m_ModificationTime = info.st_mtime;
  m_Size = info.st_size;
  return true;
}

bool CDebugTraceConfigFile::Load() {
  std::free(m_Buffer);
  m_SectionStart = m_SectionEnd = nullptr;
  m_Buffer = static_cast<char*>(std::calloc(1, static_cast<size_t>(m_Size) + kRoomBehindText));
  if (m_Buffer == nullptr) return false;
  // Non-blocking, so that a pipe under a configuration name cannot hold up the start.
  const UniqueFd file(::open(m_Path, O_RDONLY | O_CLOEXEC | O_NONBLOCK));
  return file && ReadExactly(file.Get(), m_Buffer, static_cast<size_t>(m_Size));
}

// The last bracketed name must be the end mark; the text ends before it. The text ends at a NUL too, should there be
// one.
bool CDebugTraceConfigFile::CutEndOfFile() {
  char* close = std::strrchr(m_Buffer, ']');
  if (close == nullptr) return false;
  *close = '\0';
  char* open = std::strrchr(m_Buffer, '[');
  if (open == nullptr || !IsName(open + 1, close, kEndOfFile)) return false;
  *open = '\0';
  return true;
}

bool CDebugTraceConfigFile::FindSection(const char* section) {
  for (char* open = std::strchr(m_Buffer, '['); open != nullptr; open = std::strchr(open + 1, '[')) {
    char* close = std::strchr(open, ']');
    if (close == nullptr) return false;
    if (!IsName(open + 1, close, section)) continue;
    m_SectionStart = close + 1;
    m_SectionEnd = m_SectionStart + std::strcspn(m_SectionStart, "[");
    *m_SectionEnd = '\0';
    return true;
  }
  return false;
}

const char* CDebugTraceConfigFile::FindValue(const char* key) const {
  if (m_SectionStart == nullptr) return nullptr;
  const char* found = std::strstr(m_SectionStart, key);
  if (found == nullptr) return nullptr;
  const char* equals = std::strchr(found, '=');
  if (equals == nullptr) return nullptr;
  return equals + 1 + std::strspn(equals + 1, " \t\r\n\v\f");
}

bool CDebugTraceConfigFile::ReadNumber(const char* key, uint32_t& value) const {
  char text[kNumberSize];
  if (!ReadText(key, text, sizeof text)) return false;
  value = static_cast<uint32_t>(std::strtoul(text, nullptr, 0));
  return true;
}

bool CDebugTraceConfigFile::ReadText(const char* key, char* value, size_t size) const {
  const char* found = FindValue(key);
  if (found == nullptr) return false;
  const size_t length = std::min(std::strcspn(found, "\n"), size - 1);
  std::memcpy(value, found, length);
  value[length] = '\0';
  return true;
}

void CDebugTraceConfigFile::Forget() {
  std::free(m_Buffer);
  m_Buffer = m_SectionStart = m_SectionEnd = nullptr;
  m_Path[0] = '\0';
  m_Size = 0;
  m_ModificationTime = 0;
}
