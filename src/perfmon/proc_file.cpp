#include "perfmon/proc_file.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

bool CProcFile::Start() {
  m_Size = 0;
  m_Ended = false;
  const bool kept = m_Fd && m_Opener == ::getpid();
  if (!kept && !Open()) return false;
  m_Size = ReadAtEnd();
  if (m_Size == 0 && kept) {
    if (!Open()) return false;
    m_Size = ReadAtEnd();
  }
  m_Ended = m_Size == 0;
  return true;
}

bool CProcFile::More() {
  if (m_Ended) return false;
  if (m_Size == m_Buffer.size() && m_Size < kMaxText) m_Buffer.resize(std::min(2 * m_Size, kMaxText));
  const size_t got = ReadAtEnd();
  m_Size += got;
  if (got > 0) return true;
  const size_t whole = Text().size();
  m_Ended = true;
  return Text().size() > whole;
}

std::string_view CProcFile::Text() const {
  if (m_Ended) return {m_Buffer.data(), m_Size};
  const void* newline = ::memrchr(m_Buffer.data(), '\n', m_Size);
  if (newline == nullptr) return {};
  return {m_Buffer.data(), static_cast<size_t>(static_cast<const char*>(newline) - m_Buffer.data()) + 1};
}

bool CProcFile::Open() {
  m_Fd.Reset(::open(m_Path, O_RDONLY | O_CLOEXEC));
  m_Opener = ::getpid();
  return static_cast<bool>(m_Fd);
}

// A failure counts as the end of the file.
size_t CProcFile::ReadAtEnd() {
  ssize_t got = 0;
  do {
    got = ::pread(m_Fd.Get(), m_Buffer.data() + m_Size, m_Buffer.size() - m_Size, static_cast<off_t>(m_Size));
  } while (got < 0 && errno == EINTR);
  return got > 0 ? static_cast<size_t>(got) : 0;
}
