#pragma once

#include <cstddef>
#include <cstdint>
#include <ctime>

// One trace configuration file that is followed: its text in memory and the section that was asked for.
//
// The format is a small ini dialect: sections in square brackets, names compared without regard to case; the last
// bracketed name of the file must be "EndOfFile", or the whole file counts as absent. Keys are found as plain
// substrings of the section's text, case-sensitively, the first occurrence wins, and the value starts behind the next
// "=". Not synchronised: the trace object uses its files under its own lock.
class CDebugTraceConfigFile {
 public:
  constexpr CDebugTraceConfigFile() = default;
  ~CDebugTraceConfigFile() { Forget(); }
  CDebugTraceConfigFile(const CDebugTraceConfigFile&) = delete;
  CDebugTraceConfigFile& operator=(const CDebugTraceConfigFile&) = delete;

  // Loads the file and finds the section. With a path kept from an earlier success that file is read again and
  // fileName and directory may be null. On any failure the object is empty again.
  bool OpenSectionInIniFile(const char* section, const char* fileName, const char* directory);

  // Frees the text and follows no file any more.
  void Forget();

  // Whether a file is followed: it was opened with success and has not vanished since.
  bool IsFollowed() const { return m_Path[0] != '\0'; }

  // Looks at the followed file; true when it was modified since it was last read, whose new time and size are then
  // kept. A file that is gone is forgotten.
  bool WasModified();

  // Values of the section that was found; false when the key or its "=" is missing, and the output is left alone.
  // A number is read with base 0 from at most 63 characters; a text runs to the end of its line and is cut to size.
  bool ReadNumber(const char* key, uint32_t& value) const;
  bool ReadText(const char* key, char* value, size_t size) const;

 private:
  static constexpr size_t kPathSize = 512;  // a longer path is refused

  bool Follow(const char* fileName, const char* directory);
  bool Load();
  bool CutEndOfFile();
  bool FindSection(const char* section);
  const char* FindValue(const char* key) const;
  char* m_Buffer = nullptr;        // whole file, its size + 16 bytes, zero-filled; owned (calloc)
  char* m_SectionStart = nullptr;  // behind the "]" of the section, null when none; points into m_Buffer
  char* m_SectionEnd = nullptr;    // where the section's text was cut
  char m_Path[kPathSize] = {};     // directory, "/", file name; empty when no file is followed
  int64_t m_Size = 0;
  time_t m_ModificationTime = 0;
};
