#pragma once

#include <cstdio>
#include <memory>
#include <string>
#include <string_view>

#include "platform/owned_text.h"

// Reads a text file or the output of a shell command line by line. What the command has to complain about reaches
// nobody, least of all the standard error stream of the process.
//
// Owns the stream: the file is closed, the command waited for, when the reader goes. Both are opened close-on-exec.
// Belongs to one thread. A file that cannot be opened and a command that cannot be started make a reader that is false
// and has no lines.
class LineReader {
 public:
  static LineReader OpenFile(const char* path);
  static LineReader OpenCommand(const std::string& command);

  explicit operator bool() const { return m_Stream != nullptr; }

  // The next line without its newline, cut to that many characters; it stays valid until the next call.
  bool Next(std::string_view& line, size_t maxLength = SIZE_MAX);

 private:
  using Close = int (*)(FILE*);

  LineReader(FILE* stream, Close close) : m_Stream(stream, close) {}

  std::unique_ptr<FILE, Close> m_Stream;
  MallocText m_Line;
  size_t m_Room = 0;
};
