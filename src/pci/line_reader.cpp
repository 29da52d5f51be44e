#include "pci/line_reader.h"

LineReader LineReader::OpenFile(const char* path) {
  return {std::fopen(path, "re"), [](FILE* stream) { return std::fclose(stream); }};
}

LineReader LineReader::OpenCommand(const std::string& command) {
  return {::popen((command + " 2>/dev/null").c_str(), "re"), [](FILE* stream) { return ::pclose(stream); }};
}

bool LineReader::Next(std::string_view& line, size_t maxLength) {
  if (m_Stream == nullptr) return false;
  char* buffer = m_Line.release();
  const ssize_t length = ::getline(&buffer, &m_Room, m_Stream.get());
  m_Line.reset(buffer);
  if (length < 0) return false;
  line = {buffer, static_cast<size_t>(length)};
  if (line.ends_with('\n')) line.remove_suffix(1);
  line = line.substr(0, maxLength);
  return true;
}
