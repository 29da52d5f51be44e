#pragma once

#include <cstddef>
#include <span>
#include <string>
#include <vector>

#include "platform/export.h"

// Growable sequence of bytes with value semantics: what a firmware source delivered. An empty one means "not found".
//
// Not synchronised; a copy is independent of its original. Pointers into the bytes are valid until the next change.
// Nothing is thrown but std::bad_alloc.
class RAVD_EXPORT CDataStream {
 public:
  // Empty, with room for a few bytes.
  CDataStream();
  // A copy of the bytes; a null pointer gives an empty stream.
  CDataStream(const void* bytes, size_t length);

  // Borrowed, with Size() bytes behind it; may be null when there are none.
  const unsigned char* Data() const { return m_Bytes.data(); }
  // Bytes that are there, bytes that there is room for without another allocation, and whether there are none:
  size_t Size() const { return m_Bytes.size(); }
  size_t Capacity() const { return m_Bytes.capacity(); }
  bool IsEmpty() const { return m_Bytes.empty(); }
  // All of them, borrowed.
  std::span<const unsigned char> Bytes() const { return m_Bytes; }

  // A null pointer appends nothing.
  void Append(const void* bytes, size_t length);
  // No bytes are left; the room stays.
  void Clear() { m_Bytes.clear(); }

  // The whole file, read to its end whatever size it reports (files of sysfs report none). An empty file is a success
  // with 0 bytes. On failure, which is traced with the stream's own text, out is empty and the result false.
  static bool ReadFromFile(const std::string& path, CDataStream& out);

  // Text of a hex dump, lines of bytesPerLine bytes joined by newlines; unitSize 1, 2 or 4 (little-endian units; any
  // other value counts as 1, and bytesPerLine 0 as one unit). The offset column needs more than one line, the character
  // column a unit below 4. Null data => "(null)". linePrefix may be null.
  //   "AB\n", with both columns and 2 bytes a line => "0000: 41 42   AB\n0002: 0A      . "
  static void DumpHex(std::string& out, const void* data, size_t length, bool showOffset, bool showAscii,
                      size_t bytesPerLine, int unitSize, const char* linePrefix);

 private:
  std::vector<unsigned char> m_Bytes;
};

// Traces a dump of single bytes, 16 per line, at level 5. Nothing is formatted while that level is not traced.
RAVD_EXPORT void TraceHexDump(std::span<const unsigned char> bytes, bool showOffset, bool showAscii);
