#pragma once

#include <sys/types.h>

#include <functional>
#include <string>
#include <string_view>

#include "platform/unique_fd.h"

namespace ravctl {

// Reads what a living application adds to a ring buffer file, over its wraps. The application writes through a mapping
// and takes no lock, so every range is read twice: once to find the end marker, and again when the marker was seen, for
// what stands before a marker was written before it. A wrap in between shows in the header block's first line.
//
// Reads with pread: a start of the application cuts the file to nothing, which would take a mapping down.
class RingFollower {
 public:
  using Visit = std::function<void(std::string_view whole)>;
  enum class State { kQuiet, kNews, kNotReady };

  explicit RingFollower(std::string path) : m_Path(std::move(path)) {}

  // Opens what stands at the path now. False when there is no file; throws CommandError when it may not be opened.
  // What stands in the file already is handed over by ReadAll, or by the first Read as far as it was not overwritten.
  bool Open();
  // Hands over everything that is there, the oldest first, and goes on from there.
  State ReadAll(const Visit& visit);
  // Whether the path still leads to the open file.
  bool IsCurrent() const;
  // The time at which the open buffer was begun; empty while it is being made.
  const std::string& BeginTime() const { return m_BeginTime; }
  const std::string& Path() const { return m_Path; }

  // Hands over what is new. kNotReady: the buffer is being made, or an entry is being written: ask again soon. A file
  // that was begun anew is read from its start.
  State Read(const Visit& visit);

  // How often entries were overwritten before they could be read.
  unsigned int Losses() const { return m_Losses; }

 private:
  static constexpr size_t kPrintLength = 64;

  bool FindBegin();
  size_t FindMarker(off_t from) const;
  bool IsAtMarker() const;
  State ReadOn(const Visit& visit);
  State ReadOverWrap(const Visit& visit);
  // From an older cycle, from that place on, and then from the newest one, whose end is at end.
  State ReadBothCycles(off_t olderFrom, off_t end, const std::string& header, const Visit& visit);
  bool HasWrapped() const;
  void GoOnFrom(off_t position, std::string_view before);
  void HandOver(std::string_view bytes, const Visit& visit);

  std::string m_Path;
  UniqueFd m_File;
  off_t m_Size = 0;
  off_t m_WrapOffset = 0;
  off_t m_Position = 0;     // where the newest entry that was read ends
  std::string m_BeginLine;  // as it stands before m_WrapOffset
  std::string m_BeginTime;
  std::string m_HeaderPrint;  // the first bytes of the file, written anew by each wrap
  std::string m_EntryPrint;   // the bytes before m_Position
  std::string m_LastTime;     // of the newest entry that was read
  unsigned int m_Losses = 0;
};

}  // namespace ravctl
