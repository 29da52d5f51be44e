#include "trace/log_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>

#include "platform/regular_file.h"

namespace {

constexpr mode_t kMode = 0640;  // before the umask, which is not the daemon's own yet

}  // namespace

void LogFile::Open(const char* directory, const char* name, uint32_t maxSize) {
  const int length = std::snprintf(m_Path, sizeof m_Path, "%s/log.%s", directory, name);
  m_File.Reset();
  if (static_cast<size_t>(length) < sizeof m_Path) m_File = OpenRegularFile(m_Path, O_RDWR | O_CREAT | O_TRUNC, kMode);
  if (!m_File) syslog(LOG_ERR, "ERROR: Error during opening %s --> proceed without it\n", m_Path);
  m_WrapPosition = 0;
  m_MaxSize = maxSize;
  m_ByteCountAtInitEnd = m_ByteCount = m_WrapCycle = 0;
  m_IsTorn = false;
}

void LogFile::MarkEndOfStartUpPart() {
  if (!m_File) return;
  if (m_IsTorn) Append("\n");
  m_WrapPosition = std::max<int64_t>(::lseek(m_File.Get(), 0, SEEK_CUR), 0);
  m_ByteCountAtInitEnd = static_cast<uint32_t>(m_WrapPosition);
}

void LogFile::Write(const TraceEntry& entry) {
  if (!m_File) return;
  WriteLine(entry.Text());
  if (m_ByteCount > m_MaxSize) Wrap(entry);
}

void LogFile::WriteLine(std::string_view line) {
  ReturnFromBehindEnd();
  if (m_IsTorn) Append("\n");
  if (!m_IsTorn) Append(line);
}

void LogFile::Append(std::string_view text) {
  ssize_t written;
  do {
    written = ::write(m_File.Get(), text.data(), text.size());
  } while (written < 0 && errno == EINTR);
  if (written <= 0) return;
  m_ByteCount += static_cast<uint32_t>(written);
  m_IsTorn = static_cast<size_t>(written) < text.size();
}

// Going on at the old place of a file that somebody cut short would leave a hole of zero bytes.
void LogFile::ReturnFromBehindEnd() {
  struct stat info {};
  if (::fstat(m_File.Get(), &info) != 0 || ::lseek(m_File.Get(), 0, SEEK_CUR) <= info.st_size) return;
  if (::lseek(m_File.Get(), 0, SEEK_END) > 0) m_IsTorn = true;  // the line that was cut
}

void LogFile::Wrap(const TraceEntry& entry) {
  if (::lseek(m_File.Get(), m_WrapPosition, SEEK_SET) < 0) {
    syslog(LOG_ERR, "ERROR: fseek failed for %s (errno=%d) --> rewind it\n", m_Path, errno);
    ::lseek(m_File.Get(), 0, SEEK_SET);
  }
  m_ByteCount = m_ByteCountAtInitEnd;
  ++m_WrapCycle;
  const int text = std::snprintf(entry.line + entry.headerLength, EntryFormatter::kMaxText,
                                 "------ WRAP ----- Cycle=%d, CntInitEnd=%u, CurrentByteCnt=%u (MaxCnt=%u)\n",
                                 static_cast<int>(m_WrapCycle), m_ByteCountAtInitEnd, m_ByteCountAtInitEnd, m_MaxSize);
  WriteLine({entry.line, entry.headerLength + static_cast<size_t>(text)});
}
