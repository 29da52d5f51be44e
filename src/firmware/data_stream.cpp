#include "firmware/data_stream.h"

#include <fcntl.h>

#include <algorithm>
#include <cerrno>
#include <string>
#include <system_error>

#include "firmware/little_endian.h"
#include "platform/descriptor_io.h"
#include "platform/unique_fd.h"
#include "trace/debug.h"

namespace {

constexpr size_t kInitialCapacity = 32;
constexpr unsigned int kDumpLevel = 5;
constexpr size_t kDumpBytesPerLine = 16;

void AppendHex(std::string& out, size_t value, size_t minimumDigits) {
  size_t digits = minimumDigits;
  while (digits < 2 * sizeof(value) && value >> (4 * digits) != 0)
    ++digits;
  while (digits > 0)
    out += "0123456789ABCDEF"[value >> (4 * --digits) & 0xF];
}

// One line's units and characters, from offset on.
void AppendUnits(std::string& hex, std::string& ascii, std::span<const unsigned char> bytes, size_t offset,
                 size_t bytesPerLine, size_t unitSize) {
  for (size_t i = 0; i < bytesPerLine; i += unitSize) {
    if (offset + i < bytes.size()) {
      const auto value =
          ReadLittleEndian<uint32_t>(bytes.subspan(0, std::min(bytes.size(), offset + i + unitSize)), offset + i);
      AppendHex(hex, value, 2 * unitSize);
      hex += ' ';
      ascii += value >= 32 && value <= 126 ? static_cast<char>(value) : '.';
    } else if (offset == 0) {
      break;  // a single line is not filled up
    } else {
      hex += "   ";
      ascii += ' ';
    }
  }
}

}  // namespace

CDataStream::CDataStream() {
  m_Bytes.reserve(kInitialCapacity);
}

CDataStream::CDataStream(const void* bytes, size_t length) : CDataStream() {
  Append(bytes, length);
}

void CDataStream::Append(const void* bytes, size_t length) {
  if (bytes == nullptr) return;
  const auto* first = static_cast<const unsigned char*>(bytes);
  m_Bytes.insert(m_Bytes.end(), first, first + length);
}

bool CDataStream::ReadFromFile(const std::string& path, CDataStream& out) {
  if (path.empty()) TRACE(5, "\nCDataStream::ReadFromFile() : Argument file path is empty!");
  TRACE(5, "\nCDataStream::ReadFromFile() : '%s'", path.c_str());
  try {
    const UniqueFd file(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
    std::string content;
    if (!file || !ReadToEnd(file.Get(), content)) throw std::system_error(errno, std::generic_category());
    out = CDataStream(content.data(), content.size());
  } catch (const std::exception& error) {
    TRACE(1, "\nCDataStream::ReadFromFile() : Could not read file : '%s'", error.what());
    out.Clear();
    return false;
  }
  TRACE(3, "\nCDataStream::ReadFromFile() : Read %u bytes.", static_cast<unsigned int>(out.Size()));
  return true;
}

void CDataStream::DumpHex(std::string& out, const void* data, size_t length, bool showOffset, bool showAscii,
                          size_t bytesPerLine, int unitSize, const char* linePrefix) {
  out.clear();
  if (data == nullptr) {
    out = "(null)";
    return;
  }
  const size_t unit = unitSize == 2 || unitSize == 4 ? static_cast<size_t>(unitSize) : 1;
  const size_t step = std::max(bytesPerLine, unit);
  const bool withOffset = showOffset && length > bytesPerLine;
  const bool withAscii = showAscii && unit != 4;
  const std::span bytes(static_cast<const unsigned char*>(data), length);
  std::string ascii;
  for (size_t offset = 0; offset < length; offset += std::min(step, length - offset)) {
    if (offset != 0) out += '\n';
    if (linePrefix != nullptr) out += linePrefix;
    if (withOffset) {
      AppendHex(out, offset, 4);
      out += ": ";
    }
    ascii.clear();
    AppendUnits(out, ascii, bytes, offset, step, unit);
    if (withAscii) out.append("  ").append(ascii);
  }
}

void TraceHexDump(std::span<const unsigned char> bytes, bool showOffset, bool showAscii) {
  if (!Debug.m_TraceActive.load(std::memory_order_relaxed)) return;
  if (Debug.m_TraceLevel.load(std::memory_order_relaxed) < kDumpLevel) return;
  std::string dump;
  CDataStream::DumpHex(dump, bytes.data(), bytes.size(), showOffset, showAscii, kDumpBytesPerLine, 1, nullptr);
  TRACE(kDumpLevel, "\n%s", dump.c_str());
}
