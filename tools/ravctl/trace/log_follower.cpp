#include "ravctl/trace/log_follower.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>

#include "ravctl/base/error.h"
#include "ravctl/trace/read_at.h"
#include "ravctl/trace/trace_entry.h"
#include "ravctl/trace/trace_layout.h"

namespace ravctl {

namespace {

constexpr size_t kPrintLength = 64;  // bytes that tell whether something is still there
constexpr size_t kWrapLine = 512;    // a line of a wrap is shorter
constexpr size_t kChunk = size_t{1} << 20;
constexpr off_t kQuicklyRead = off_t{1} << 20;  // looked through for its first wrap at each look

off_t SizeOf(const UniqueFd& file) {
  struct stat info {};
  return ::fstat(file.Get(), &info) == 0 ? info.st_size : 0;
}

std::string LineAt(const UniqueFd& file, off_t offset) {
  const std::string bytes = ReadAt(file, offset, kWrapLine);
  return bytes.substr(0, bytes.find('\n'));
}

}  // namespace

void LogFollower::Read(const Visit& visit) {
  const UniqueFd file(::open(m_Path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
  if (!file) {
    if (errno == ENOENT) return;
    throw SystemFailure("cannot open the trace", m_Path, errno);
  }
  const off_t size = SizeOf(file);
  // Without a start-up part each cycle begins at the beginning of the file.
  const bool hasSameStart =
      ReadAt(file, 0, m_Start.size()) == m_Start || LineAt(file, 0).find(kWrapWords) != std::string::npos;
  const bool isSameRun = size >= m_Position && hasSameStart;
  if (!isSameRun || m_Position == 0) {
    ReadAll(file, visit);
    return;
  }
  const bool mayHaveWrapped =
      m_Wrap ? LineAt(file, m_Wrap->offset) != m_Wrap->line : size == m_Position || size <= kQuicklyRead;
  if (std::optional<Wrap> wrap = mayHaveWrapped ? FindWrap(file) : std::nullopt; wrap) {
    if (IsIntact(file)) {
      ReadOn(file, visit);
    } else {
      ++m_Losses;
    }
    m_Wrap = std::move(wrap);
    m_Position = m_Wrap->offset;
  }
  ReadOn(file, visit);
}

// The first look at a file, in the order in which it was written.
void LogFollower::ReadAll(const UniqueFd& file, const Visit& visit) {
  const std::string whole = ReadAt(file, 0, static_cast<size_t>(SizeOf(file)));
  m_Start = whole.substr(0, kPrintLength);
  m_Position = 0;
  m_LastTime.clear();
  m_Wrap.reset();
  const TraceLayout layout = FindLayout(whole);
  if (layout.hasWrapped) m_Wrap = WrapAt(file, static_cast<off_t>(layout.wrapOffset));
  for (const std::string_view part : layout.parts) {
    ForEachEntry(part, [&](std::string_view entry) {
      HandOver(entry, visit);
      GoOnBehind(whole, static_cast<size_t>(entry.data() + entry.size() - whole.data()), 0);
      return true;
    });
  }
}

// What stands behind the position, up to where the times go back or the file ends.
void LogFollower::ReadOn(const UniqueFd& file, const Visit& visit) {
  for (bool isOver = false; !isOver;) {
    const std::string bytes = ReadAt(file, m_Position, kChunk);
    std::string_view held;  // handed over when it is known where it ends
    size_t taken = 0;
    bool goesBack = false;
    const auto take = [&] {
      HandOver(held, visit);
      taken = static_cast<size_t>(held.data() + held.size() - bytes.data());
    };
    ForEachEntry(bytes, [&](std::string_view entry) {
      goesBack = entry.substr(0, kTimeLength) < (held.empty() ? m_LastTime : held.substr(0, kTimeLength));
      if (goesBack) return false;
      if (!held.empty()) take();
      held = entry;
      return true;
    });
    // Further lines of the newest entry may be what is left of an older one.
    if (goesBack) held = held.substr(0, held.find('\n') + 1);
    const bool isEnd = goesBack || bytes.size() < kChunk;
    if (!held.empty() && (isEnd || taken == 0)) take();
    isOver = isEnd || taken == 0;
    if (taken > 0) GoOnBehind(bytes, taken, m_Position);
  }
}

void LogFollower::HandOver(std::string_view entry, const Visit& visit) {
  m_LastTime = entry.substr(0, kTimeLength);
  visit(entry);
}

// The bytes were read from that offset on.
void LogFollower::GoOnBehind(std::string_view bytes, size_t end, off_t offset) {
  const size_t length = std::min(end, kPrintLength);
  m_Before = bytes.substr(end - length, length);
  m_Position = offset + static_cast<off_t>(end);
}

bool LogFollower::IsIntact(const UniqueFd& file) const {
  return ReadAt(file, m_Position - static_cast<off_t>(m_Before.size()), m_Before.size()) == m_Before;
}

LogFollower::Wrap LogFollower::WrapAt(const UniqueFd& file, off_t offset) {
  return {offset, LineAt(file, offset)};
}

std::optional<LogFollower::Wrap> LogFollower::FindWrap(const UniqueFd& file) const {
  if (m_Wrap) return WrapAt(file, m_Wrap->offset);
  const std::string whole = ReadAt(file, 0, static_cast<size_t>(SizeOf(file)));
  const TraceLayout layout = FindLayout(whole);
  if (!layout.hasWrapped) return std::nullopt;
  return WrapAt(file, static_cast<off_t>(layout.wrapOffset));
}

}  // namespace ravctl
