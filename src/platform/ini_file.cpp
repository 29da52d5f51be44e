#include "platform/ini_file.h"

#include <fcntl.h>

#include <algorithm>
#include <charconv>
#include <cstring>
#include <new>
#include <string_view>
#include <utility>

#include "platform/edit_file.h"
#include "platform/ini_reader.h"
#include "platform/ini_text.h"
#include "platform/owned_text.h"
#include "platform/regular_file.h"
#include "platform/unique_fd.h"
#include "trace/debug.h"

namespace {

constexpr uint32_t kBufferStep = 1024;
constexpr uint32_t kLargestBuffer = 63 * kBufferStep;
constexpr mode_t kFileMode = 0644;

// The caller's buffer of at least one byte. Counts what should be stored and stores what fits.
class Result {
 public:
  Result(char* buffer, uint32_t size) : m_Buffer(buffer), m_Size(size) { m_Buffer[0] = m_Buffer[m_Size - 1] = '\0'; }

  bool IsEmpty() const { return m_Length == 0; }
  bool HasRoom() const { return m_Length + 2 < m_Size; }

  void Add(std::string_view text) {
    const size_t begin = std::min(m_Length, m_Size - 1);
    std::copy_n(text.data(), std::min(text.size(), m_Size - 1 - begin), m_Buffer + begin);
    m_Length += text.size();
  }

  void AddName(std::string_view name) {
    if (name.empty()) return;
    Add(name);
    if (m_Length < m_Size) m_Buffer[m_Length] = '\0';
    ++m_Length;
  }

  uint32_t FinishValue() { return Finish(m_Size - 1); }

  uint32_t FinishNames() {
    if (m_Length >= m_Size) m_Buffer[m_Size - 2] = '\0';
    return Finish(m_Size - 2);
  }

  uint32_t SetDefault(std::string_view text) {
    m_Length = 0;
    Add(text.substr(0, m_Size - 1));
    return FinishValue();
  }

 private:
  uint32_t Finish(size_t lengthWhenCut) {
    if (m_Length >= m_Size) return static_cast<uint32_t>(lengthWhenCut);
    m_Buffer[m_Length] = '\0';
    return static_cast<uint32_t>(m_Length);
  }

  char* m_Buffer;
  size_t m_Size;
  size_t m_Length = 0;
};

// "[Name] trailing" => "Name"; "" without ']'
std::string_view NameInHeader(std::string_view header) {
  const size_t end = header.find(']');
  return end == std::string_view::npos ? "" : header.substr(1, end - 1);
}

void CollectSections(IniReader& reader, Result& result) {
  for (std::string_view line; result.HasRoom() && reader.NextWith(line, "[", '[');) {
    const IniLine parsed = ParseIniLine(line);
    if (parsed.kind == IniLine::kHeader) result.AddName(NameInHeader(parsed.header));
  }
}

bool EnterSection(IniReader& reader, std::string_view section) {
  const std::string header = std::string("[").append(section).append("]");
  for (std::string_view line; reader.NextWith(line, header);) {
    const IniLine parsed = ParseIniLine(line);
    if (parsed.kind == IniLine::kHeader && IsIniHeaderOf(parsed.header, section)) return true;
  }
  return false;
}

void CollectKeys(IniReader& reader, Result& result) {
  for (std::string_view line; result.HasRoom() && reader.Next(line);) {
    const IniLine parsed = ParseIniLine(line);
    if (parsed.kind == IniLine::kHeader) return;
    if (parsed.kind == IniLine::kEntry) result.AddName(parsed.key);
  }
}

void FindValue(IniReader& reader, std::string_view key, Result& result) {
  for (std::string_view line; reader.NextWith(line, key, '[');) {
    const IniLine parsed = ParseIniLine(line);
    if (parsed.kind == IniLine::kHeader) return;
    if (parsed.kind == IniLine::kEntry && parsed.key == key) return result.Add(parsed.value);
  }
}

// Where memory runs out, what was found so far is the result.
void ReadProfile(int fd, const char* section, const char* key, Result& result) {
  if (!result.HasRoom()) return;
  try {
    IniReader reader(fd);
    if (section == nullptr) return CollectSections(reader, result);
    if (!EnterSection(reader, section)) return;
    if (key == nullptr) return CollectKeys(reader, result);
    FindValue(reader, key, result);
  } catch (const std::bad_alloc&) {
  }
}

// Grows the buffer until the answer is certainly complete. On failure the buffer is gone.
bool ReadWithGrowingBuffer(const char* section, const char* key, const char* defaultValue, const char* fileName,
                           std::unique_ptr<char[]>& buffer, uint32_t& size) {
  uint32_t wantedSize = std::max(size, kBufferStep);
  for (; wantedSize <= kLargestBuffer; wantedSize += kBufferStep) {
    if (size != wantedSize) buffer.reset(new (std::nothrow) char[wantedSize]);
    if (buffer == nullptr) break;
    size = wantedSize;
    const uint32_t length = CIniFile::GetPrivateProfileString(section, key, defaultValue, buffer.get(), size, fileName);
    if (length + 2 < size) return true;
  }
  buffer.reset();
  size = 0;
  return false;
}

// "0x10" => 16, "-1" => 0xFFFFFFFF
uint32_t ParseNumber(std::string_view text) {
  const bool isNegative = text.starts_with('-');
  if (isNegative || text.starts_with('+')) text.remove_prefix(1);
  int base = text.starts_with('0') ? 8 : 10;
  if (text.starts_with("0x") || text.starts_with("0X")) {
    base = 16;
    text.remove_prefix(2);
  }
  uint64_t number = 0;
  const std::from_chars_result end = std::from_chars(text.data(), text.data() + text.size(), number, base);
  if (end.ec == std::errc::result_out_of_range) number = UINT64_MAX;
  if (isNegative) return 0U - static_cast<uint32_t>(std::min<uint64_t>(number, uint64_t{INT32_MAX} + 1));
  return static_cast<uint32_t>(std::min<uint64_t>(number, UINT32_MAX));
}

void TraceAppendError(const char* fileName) {
  TRACE(1, "WritePrivateProfileString: ## WARNING: append open error: %s\n", fileName);
}

void TraceEdit(const char* section, const char* key, const char* value, const char* fileName) {
  TRACE(4, "WritePrivateProfileString(%s, %s, %s, %s)\n", section, key == nullptr ? "<nil>" : key,
        value == nullptr ? "<nil>" : value, fileName);
}

void TraceEditResult(unsigned int result) {
  TRACE(4, "WritePrivateProfileString rc=0x%04x\n", result);
}

}  // namespace

uint32_t CIniFile::GetPrivateProfileString(const char* section, const char* key, const char* defaultValue, char* buffer,
                                           uint32_t size, const char* fileName) {
  if (buffer == nullptr || fileName == nullptr || size == 0) return 0;
  Result result(buffer, size);
  const UniqueFd file = OpenRegularFile(fileName, O_RDONLY);
  if (file) {
    ReadProfile(file.Get(), section, key, result);
  } else {
    TRACE(4, "GetPrivateProfileString: Cannot open %s\n", fileName);
  }
  const bool isValue = section != nullptr && key != nullptr;
  if (!result.IsEmpty()) return isValue ? result.FinishValue() : result.FinishNames();
  return isValue && defaultValue != nullptr ? result.SetDefault(defaultValue) : 0;
}

int CIniFile::WritePrivateProfileString(const char* section, const char* key, const char* value, const char* fileName) {
  if (section == nullptr) {
    TRACE(4, "WritePrivateProfileString: ## WARNING: invalid pointer to AppName\n");
    return 0;
  }
  if (fileName == nullptr) {
    TRACE(4, "WritePrivateProfileString: ## WARNING: invalid pointer to FileName\n");
    return 0;
  }
  TraceEdit(section, key, value, fileName);
  bool hasFile = false;
  const FileEdit done = EditFile(fileName, kFileMode, [&](std::string& content, bool isThere) {
    hasFile = isThere;
    const bool isDeletion = key == nullptr || value == nullptr;
    return (!isThere && isDeletion) || EditIniText(content, section, key, value);
  });
  const int result = done == FileEdit::kDone ? 1 : 0;
  if (done == FileEdit::kNotOpened) {
    TraceAppendError(fileName);
  } else if (hasFile) {
    TraceEditResult(static_cast<unsigned int>(result));
  }
  return result;
}

void CIniFile::SetFilename(const char* name) {
  fileName = name != nullptr ? CopyText(name) : nullptr;
}

const char* CIniFile::GetFileName() const {
  return fileName == nullptr ? "" : fileName.get();
}

bool CIniFile::Open(bool mustExist) {
  isOpen = fileName != nullptr && (!mustExist || OpenRegularFile(fileName.get(), O_RDONLY));
  return isOpen;
}

bool CIniFile::Open(const char* name, bool mustExist) {
  SetFilename(name);
  return Open(mustExist);
}

bool CIniFile::GetString(std::string& out, const char* section, const char* key, const char* defaultValue) const {
  if (!IsUsable() || section == nullptr || key == nullptr) return false;
  std::unique_ptr<char[]> buffer;
  uint32_t size = 0;
  const bool isComplete = ReadWithGrowingBuffer(section, key, defaultValue, fileName.get(), buffer, size);
  try {
    if (!isComplete && defaultValue == nullptr) return false;
    out = isComplete ? buffer.get() : defaultValue;  // a value ends with its line: only a default can be too long
  } catch (const std::bad_alloc&) {
    return false;
  }
  return isComplete;
}

const char* CIniFile::GetString(const char* section, const char* key, const char* defaultValue) {
  if (!IsUsable() || section == nullptr || key == nullptr) return defaultValue;
  return ReadWithGrowingBuffer(section, key, defaultValue, fileName.get(), stringBuffer, stringBufferSize)
             ? stringBuffer.get()
             : defaultValue;
}

uint32_t CIniFile::GetNumber(const char* section, const char* key, uint32_t defaultValue) const {
  if (!IsUsable() || section == nullptr || key == nullptr) return defaultValue;
  char text[32];
  const uint32_t length = GetPrivateProfileString(section, key, nullptr, text, sizeof text, fileName.get());
  return length == 0 ? defaultValue : ParseNumber({text, length});
}

bool CIniFile::SetString(const char* section, const char* key, const char* value) const {
  if (!IsUsable() || section == nullptr || key == nullptr) return false;
  return WritePrivateProfileString(section, key, value, fileName.get()) == 1;
}

bool CIniFile::SetNumber(const char* section, const char* key, uint32_t value) const {
  return SetString(section, key, std::to_string(value).c_str());
}

bool CIniFile::SetNumber(const char* section, const char* key, int32_t value) const {
  return SetString(section, key, std::to_string(value).c_str());
}

bool CIniFile::DeleteKey(const char* section, const char* key) const {
  return SetString(section, key, nullptr);
}

bool CIniFile::DeleteSection(const char* section) const {
  if (!IsUsable() || section == nullptr) return false;
  return WritePrivateProfileString(section, nullptr, nullptr, fileName.get()) == 1;
}

bool CIniFile::CopySection(const char* source, const char* target) const {
  if (source == nullptr || target == nullptr) return false;
  if (!IsUsable()) return false;
  const char* const file = fileName.get();
  std::vector<std::pair<std::string, std::string>> entries;
  const FileEdit done = EditFile(file, kFileMode, [&](std::string& content, bool isThere) {
    if (!isThere) TRACE(4, "GetPrivateProfileString: Cannot open %s\n", file);
    const auto found = IniEntriesOf(content, source);
    entries.assign(found.begin(), found.end());
    return std::ranges::all_of(entries, [&](const auto& entry) {
      return EditIniText(content, target, entry.first.c_str(), entry.second.c_str());
    });
  });
  if (done == FileEdit::kNotOpened) TraceAppendError(file);
  for (const auto& [key, value] : entries) {
    TraceEdit(target, key.c_str(), value.c_str(), file);
    TraceEditResult(done == FileEdit::kDone ? 1 : 0);
  }
  return true;
}

const char* CIniFile::GetEnum(const char* section) {
  enumCursor = nullptr;
  if (!IsUsable() || !ReadWithGrowingBuffer(section, nullptr, nullptr, fileName.get(), enumBuffer, enumBufferSize)) {
    return "";
  }
  enumCursor = enumBuffer.get();
  return enumCursor;
}

const char* CIniFile::GetNextEnum() {
  if (!IsUsable() || enumCursor == nullptr) return "";
  if (*enumCursor != '\0') enumCursor += std::strlen(enumCursor) + 1;
  return enumCursor;
}

bool CIniFile::GetSections(std::vector<std::string>& sections) const {
  return IsUsable() && AppendNames(sections, nullptr);
}

bool CIniFile::GetEnums(std::vector<std::string>& keys, const char* section) const {
  return IsUsable() && section != nullptr && AppendNames(keys, section);
}

bool CIniFile::AppendNames(std::vector<std::string>& names, const char* section) const {
  uint32_t size = kLargestBuffer;
  std::unique_ptr<char[]> buffer;
  uint32_t length = 0;
  do {
    buffer.reset(new (std::nothrow) char[size]);
    if (buffer == nullptr) return false;
    length = GetPrivateProfileString(section, nullptr, nullptr, buffer.get(), size, fileName.get());
  } while (length + 2 >= size && (size *= 2) < UINT32_MAX / 2);
  const size_t before = names.size();
  try {
    for (const char* name = buffer.get(); *name != '\0'; name += std::strlen(name) + 1)
      names.emplace_back(name);
  } catch (const std::bad_alloc&) {
    names.resize(before);
  }
  return names.size() > before;
}

void CIniFile::Flush() const {
  if (isOpen) TRACE(4, "WritePrivateProfileString: ## WARNING: invalid pointer to AppName\n");
}
