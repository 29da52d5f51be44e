#pragma once

#include <sys/types.h>

#include <string_view>
#include <vector>

#include "platform/unique_fd.h"

// A file of /proc that is read again and again. The descriptor and the buffer are kept from one reading to the next, so
// that a reading neither opens nor allocates. The file is opened again when the kept descriptor gives nothing any more,
// and in a process that was forked off since: what lies below /proc/self belongs to the process that opened it.
// Not shared between threads.
//
//   if (!file.Start()) ... errno ...;
//   while (!Parse(file.Text(), out)) if (!file.More()) ... not found ...;
class CProcFile {
 public:
  // path is borrowed. bufferSize is what the first call of a reading asks for; the buffer grows up to kMaxText.
  CProcFile(const char* path, size_t bufferSize) : m_Path(path), m_Buffer(bufferSize) {}

  const char* Path() const { return m_Path; }

  // Begins a new reading. False with errno set when the file cannot be opened. A file that opens but cannot be read is
  // empty.
  bool Start();

  // Reads on. False when there is nothing new: the file, or what is read of it at most, has ended.
  bool More();

  // What has been read, up to the last line that is known to be whole. Valid until the next reading.
  std::string_view Text() const;

 private:
  static constexpr size_t kMaxText = size_t{16} << 20;

  bool Open();
  size_t ReadAtEnd();

  const char* m_Path;
  UniqueFd m_Fd;
  pid_t m_Opener = 0;
  std::vector<char> m_Buffer;
  size_t m_Size = 0;
  bool m_Ended = false;
};
