#include "ravctl/trace/ring_follower.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>

#include "ravctl/answer/error.h"
#include "ravctl/trace/read_at.h"
#include "ravctl/trace/trace_entry.h"
#include "ravctl/trace/trace_layout.h"

namespace ravctl {

namespace {

constexpr size_t kChunk = size_t{256} << 10;
constexpr off_t kHeaderSearch = off_t{1} << 20;

}  // namespace

bool RingFollower::Open() {
  m_File.Reset(::open(m_Path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
  m_BeginTime.clear();
  if (m_File) return FindBegin() || true;
  if (errno != ENOENT) throw SystemFailure("cannot open the trace", m_Path, errno);
  return false;
}

bool RingFollower::IsCurrent() const {
  struct stat mine {
  }, there{};
  return m_File && ::fstat(m_File.Get(), &mine) == 0 && ::stat(m_Path.c_str(), &there) == 0 &&
         mine.st_ino == there.st_ino && mine.st_dev == there.st_dev;
}

bool RingFollower::FindBegin() {
  struct stat info {};
  if (!m_File || ::fstat(m_File.Get(), &info) != 0) return false;
  const std::string start = ReadAt(m_File, 0, static_cast<size_t>(std::min(info.st_size, kHeaderSearch)));
  const std::string_view line = FindBeginLine(start);
  if (line.empty()) return false;
  m_Size = info.st_size;
  m_BeginLine = line;
  m_BeginTime = line.substr(0, kTimeLength);
  m_WrapOffset = static_cast<off_t>(line.data() - start.data()) + static_cast<off_t>(line.size());
  m_HeaderPrint = start.substr(0, kPrintLength);
  GoOnFrom(m_WrapOffset, line);
  return true;
}

void RingFollower::GoOnFrom(off_t position, std::string_view before) {
  m_Position = position;
  m_EntryPrint = before.substr(before.size() - std::min(before.size(), kPrintLength));
}

void RingFollower::HandOver(std::string_view bytes, const Visit& visit) {
  ForEachEntry(bytes, [this, &visit](std::string_view whole) {
    m_LastTime = whole.substr(0, kTimeLength);
    visit(whole);
    return true;
  });
}

bool RingFollower::HasWrapped() const {
  return ReadAt(m_File, 0, kPrintLength) != m_HeaderPrint;
}

// The offset of the marker in force, npos when there is none.
size_t RingFollower::FindMarker(off_t from) const {
  // A marker that lies over the end of a chunk, or whose next entry does, is seen whole in the next reading.
  constexpr off_t kOverlap = off_t{4} << 10;
  for (off_t at = from; at < m_Size;) {
    const std::string bytes = ReadAt(m_File, at, static_cast<size_t>(std::min<off_t>(m_Size - at, kChunk)));
    const auto length = static_cast<off_t>(bytes.size());
    const bool isLast = at + length >= m_Size || length <= kOverlap;
    const size_t found = FindEndMarker(bytes, 0);
    if (found != std::string::npos && (isLast || static_cast<off_t>(found) + kOverlap < length)) {
      return static_cast<size_t>(at) + found;
    }
    if (isLast) return std::string::npos;
    at += length - kOverlap;
  }
  return std::string::npos;
}

RingFollower::State RingFollower::Read(const Visit& visit) {
  struct stat info {};
  if (!m_File || ::fstat(m_File.Get(), &info) != 0) return State::kNotReady;
  const bool isSame =
      !m_BeginTime.empty() && info.st_size == m_Size &&
      ReadAt(m_File, m_WrapOffset - static_cast<off_t>(m_BeginLine.size()), m_BeginLine.size()) == m_BeginLine;
  if (!isSame) {
    m_BeginTime.clear();
    if (!FindBegin()) return State::kNotReady;
  }
  return HasWrapped() ? ReadOverWrap(visit) : ReadOn(visit);
}

RingFollower::State RingFollower::ReadAll(const Visit& visit) {
  if (m_BeginTime.empty() && !FindBegin()) return State::kNotReady;
  const std::string header = ReadAt(m_File, 0, kPrintLength);
  const size_t marker = FindMarker(m_WrapOffset);
  if (marker == std::string::npos) return State::kNotReady;
  const auto end = static_cast<off_t>(marker);
  return ReadBothCycles(end + static_cast<off_t>(kEndMarker.size()), end, header, visit);
}

// Whether the marker stands where it stood: nothing was written. A text that looks like the marker has newer entries
// behind it.
bool RingFollower::IsAtMarker() const {
  constexpr size_t kLookAhead = size_t{4} << 10;
  const std::string bytes = ReadAt(m_File, m_Position, kLookAhead);
  if (!bytes.starts_with(kEndMarker)) return false;
  bool isNewest = true;
  ForEachEntry(std::string_view(bytes).substr(kEndMarker.size()), [&](std::string_view whole) {
    isNewest = m_LastTime.empty() || whole.substr(0, kTimeLength) <= m_LastTime;
    return false;
  });
  return isNewest;
}

RingFollower::State RingFollower::ReadOn(const Visit& visit) {
  if (IsAtMarker()) return State::kQuiet;
  const bool isText = ReadAt(m_File, m_Position, kEndMarker.size()) == kEndMarker;
  const size_t marker = FindMarker(m_Position + (isText ? 1 : 0));
  if (marker == std::string::npos) return State::kNotReady;
  // Read again, now that the end was seen, and handed over unless the writer has come round meanwhile.
  const std::string bytes = ReadAt(m_File, m_Position, marker - static_cast<size_t>(m_Position));
  if (bytes.empty() || HasWrapped()) return State::kNotReady;
  GoOnFrom(static_cast<off_t>(marker), bytes);
  HandOver(bytes, visit);
  return State::kNews;
}

RingFollower::State RingFollower::ReadOverWrap(const Visit& visit) {
  const std::string header = ReadAt(m_File, 0, kPrintLength);
  const size_t marker = FindMarker(m_WrapOffset);
  if (marker == std::string::npos) return State::kNotReady;
  const auto end = static_cast<off_t>(marker);
  const off_t printStart = m_Position - static_cast<off_t>(m_EntryPrint.size());
  const bool isIntact = end < printStart && ReadAt(m_File, printStart, m_EntryPrint.size()) == m_EntryPrint;
  const State state =
      ReadBothCycles(isIntact ? m_Position : end + static_cast<off_t>(kEndMarker.size()), end, header, visit);
  if (state == State::kNews && !isIntact) ++m_Losses;
  return state;
}

RingFollower::State RingFollower::ReadBothCycles(off_t olderFrom, off_t end, const std::string& header,
                                                 const Visit& visit) {
  std::string older = ReadAt(m_File, olderFrom, static_cast<size_t>(m_Size - olderFrom));
  const std::string newer = ReadAt(m_File, m_WrapOffset, static_cast<size_t>(end - m_WrapOffset));
  // The writer may have gone on over the first of what was read as older.
  const size_t now = FindMarker(end);
  if (now == std::string::npos || ReadAt(m_File, 0, kPrintLength) != header) return State::kNotReady;
  if (static_cast<off_t>(now) > olderFrom) older.erase(0, now - static_cast<size_t>(olderFrom));
  m_HeaderPrint = header;
  GoOnFrom(end, newer.empty() ? m_BeginLine : newer);
  HandOver(older, visit);
  HandOver(newer, visit);
  return State::kNews;
}

}  // namespace ravctl
