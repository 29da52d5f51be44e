#pragma once

#include <cstddef>
#include <memory>
#include <string_view>

// Reads an INI file line by line, in large blocks, and can pass over the lines that do not matter at the speed of
// memory. A read error counts as the end. Borrows the descriptor; belongs to one thread. Throws std::bad_alloc.
class IniReader {
 public:
  explicit IniReader(int fd) : m_Fd(fd) {}

  // The next line with its newline. Valid until the next call; false at the end.
  bool Next(std::string_view& line) { return NextWith(line, ""); }
  // The next line that begins with that key or header, or with the other character, white space before it left aside.
  // Others may come as well; all come for an empty word.
  bool NextWith(std::string_view& line, std::string_view word, char other = '\0');

 private:
  void Refill();

  const int m_Fd;
  std::unique_ptr<char[]> m_Block;  // bytes from m_Begin to m_End are not handed out yet
  size_t m_Begin = 0;
  size_t m_End = 0;
  bool m_IsAtEnd = false;  // of the file, or of what can be read of it
};
