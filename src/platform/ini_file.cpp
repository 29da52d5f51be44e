#include "platform/ini_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstdlib>
#include <cstring>
#include <new>
#include <string_view>

#include "platform/descriptor_io.h"
#include "platform/ini_search.h"
#include "platform/ini_text.h"
#include "platform/regular_file.h"
#include "platform/unique_fd.h"
#include "trace/debug.h"

namespace {

constexpr size_t kReadBlock = 64 * 1024;
constexpr uint32_t kBufferStep = 1024;
constexpr uint32_t kLargestBuffer = 63 * kBufferStep;
constexpr mode_t kFileMode = 0644;

// Which lines a reader wants to see: tells where in a text the first one begins to be interesting.
using Filter = size_t (*)(std::string_view text, std::string_view wanted);

size_t FindAnyLine(std::string_view /*text*/, std::string_view /*wanted*/) {
  return 0;
}

size_t FindAnyHeader(std::string_view text, std::string_view /*wanted*/) {
  return text.find('[');
}

// Reads a file line by line, in large blocks, and passes over the lines that are not wanted.
class LineReader {
 public:
  explicit LineReader(int fd) : m_Fd(fd) {}

  // The next line that the filter wants, or an earlier one. Valid until the next call.
  bool Next(std::string_view& line, Filter filter, std::string_view wanted = "") {
    for (;;) {
      SkipUnwanted(filter, wanted);
      const std::string_view rest(m_Block.get() + m_Begin, m_End - m_Begin);
      const size_t length = IniLineLength(rest);
      const bool isComplete = m_IsAtEnd || length == kMaxIniLine || (length > 0 && rest[length - 1] == '\n');
      if (!isComplete) {
        Refill();
        continue;
      }
      line = rest.substr(0, length);
      m_Begin += length;
      return length > 0;
    }
  }

 private:
  void SkipUnwanted(Filter filter, std::string_view wanted) {
    const std::string_view rest(m_Block.get() + m_Begin, m_End - m_Begin);
    m_Begin += StartOfLine(rest.substr(0, filter(rest, wanted)));
  }

  // Start of the line in which the text ends; the text itself begins with a line.
  static size_t StartOfLine(std::string_view text) {
    const size_t begin = text.rfind('\n') + 1;  // 0 when there is none
    return begin + (text.size() - begin) / kMaxIniLine * kMaxIniLine;
  }

  // Makes the unread rest the beginning of the block and reads on.
  void Refill() {
    std::memmove(m_Block.get(), m_Block.get() + m_Begin, m_End - m_Begin);
    m_End -= m_Begin;
    m_Begin = 0;
    const ssize_t count = ReadSome(m_Fd, m_Block.get() + m_End, kReadBlock - m_End);
    if (count > 0) m_End += static_cast<size_t>(count);
    m_IsAtEnd = count <= 0;
  }

  int m_Fd;
  std::unique_ptr<char[]> m_Block = std::make_unique_for_overwrite<char[]>(kReadBlock);
  size_t m_Begin = 0;
  size_t m_End = 0;
  bool m_IsAtEnd = false;  // of the file, or of what can be read of it
};

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

void CollectSections(LineReader& reader, Result& result) {
  for (std::string_view line; result.HasRoom() && reader.Next(line, FindAnyHeader);) {
    const IniLine parsed = ParseIniLine(line);
    if (parsed.kind == IniLine::kHeader) result.AddName(NameInHeader(parsed.header));
  }
}

bool EnterSection(LineReader& reader, std::string_view section) {
  for (std::string_view line; reader.Next(line, FindHeaderOf, section);) {
    const IniLine parsed = ParseIniLine(line);
    if (parsed.kind == IniLine::kHeader && IsIniHeaderOf(parsed.header, section)) return true;
  }
  return false;
}

void CollectKeys(LineReader& reader, Result& result) {
  for (std::string_view line; result.HasRoom() && reader.Next(line, FindAnyLine);) {
    const IniLine parsed = ParseIniLine(line);
    if (parsed.kind == IniLine::kHeader) return;
    if (parsed.kind == IniLine::kEntry) result.AddName(parsed.key);
  }
}

void FindValue(LineReader& reader, std::string_view key, Result& result) {
  const Filter filter = key.empty() ? FindAnyLine : FindHeaderOrKey;
  for (std::string_view line; reader.Next(line, filter, key);) {
    const IniLine parsed = ParseIniLine(line);
    if (parsed.kind == IniLine::kHeader) return;
    if (parsed.kind == IniLine::kEntry && parsed.key == key) return result.Add(parsed.value);
  }
}

void ReadProfile(int fd, const char* section, const char* key, Result& result) {
  if (!result.HasRoom()) return;
  LineReader reader(fd);
  if (section == nullptr) return CollectSections(reader, result);
  if (!EnterSection(reader, section)) return;
  if (key == nullptr) return CollectKeys(reader, result);
  FindValue(reader, key, result);
}

// Grows the buffer until the answer is certainly complete. On failure the buffer is gone.
bool ReadWithGrowingBuffer(const char* section, const char* key, const char* defaultValue, const char* fileName,
                           std::unique_ptr<char[]>& buffer, uint32_t& size) {
  uint32_t wantedSize = std::max(size, kBufferStep);
  for (; wantedSize <= kLargestBuffer; wantedSize += kBufferStep) {
    if (size != wantedSize) buffer = std::make_unique_for_overwrite<char[]>(wantedSize);
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

bool SetSize(int fd, off_t size) {
  return ::ftruncate(fd, size) == 0;
}

// Writes behind the end of the file; when that fails, the file gets its old size back.
bool AppendText(int fd, std::string_view text) {
  struct stat info {};
  if (::fstat(fd, &info) != 0) return false;
  if (WriteAllAt(fd, text, info.st_size)) return true;
  SetSize(fd, info.st_size);
  return false;
}

void RemoveFile(const char* fileName) {
  // The name may be a link that pointed nowhere: what was made is its target.
  char* const target = ::realpath(fileName, nullptr);
  if (target != nullptr) ::unlink(target);
  std::free(target);
}

bool CreateFile(const char* fileName, std::string_view text) {
  const UniqueFd file =
      AboveStandardDescriptors(UniqueFd(::open(fileName, O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, kFileMode)));
  if (!file) {
    TraceAppendError(fileName);
    return false;
  }
  ::fchmod(file.Get(), kFileMode);
  if (AppendText(file.Get(), text)) return true;
  RemoveFile(fileName);
  return false;
}

bool ReopenAndAppend(const char* fileName, std::string_view text) {
  const UniqueFd file = AboveStandardDescriptors(UniqueFd(::open(fileName, O_WRONLY | O_APPEND | O_CLOEXEC)));
  if (!file) {
    TraceAppendError(fileName);
    return false;
  }
  return AppendText(file.Get(), text);
}

// Writes the text from the offset on and makes it the end of the file. The part behind the old end comes first, since
// it is the one that may find no space; when anything fails the old content is put back.
bool ReplaceFrom(int fd, std::string_view oldContent, size_t offset, std::string_view text) {
  const size_t oldRest = oldContent.size() - offset;
  const size_t newSize = offset + text.size();
  const std::string_view inside = text.substr(0, oldRest);
  const std::string_view beyond = text.substr(inside.size());
  const auto at = [](size_t position) { return static_cast<off_t>(position); };
  if (WriteAllAt(fd, beyond, at(oldContent.size())) && WriteAllAt(fd, inside, at(offset)) &&
      (newSize >= oldContent.size() || SetSize(fd, at(newSize)))) {
    return true;
  }
  WriteAllAt(fd, oldContent.substr(offset), at(offset));
  SetSize(fd, at(oldContent.size()));
  return false;
}

bool ApplyEdit(int fd, const char* fileName, std::string_view content, const IniEdit& edit) {
  switch (edit.kind) {
    case IniEdit::kReplace:
      return ReplaceFrom(fd, content, edit.begin, edit.text + std::string(content.substr(edit.end)));
    case IniEdit::kAppend:
      return ReopenAndAppend(fileName, edit.text);
    case IniEdit::kNothing:
      break;
  }
  return false;
}

bool EditFile(int fd, const char* section, const char* key, const char* value, const char* fileName) {
  try {
    std::string content;
    return ReadToEnd(fd, content) && ApplyEdit(fd, fileName, content, PlanIniEdit(content, section, key, value));
  } catch (const std::bad_alloc&) {
    return false;
  }
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
  TRACE(4, "WritePrivateProfileString(%s, %s, %s, %s)\n", section, key == nullptr ? "<nil>" : key,
        value == nullptr ? "<nil>" : value, fileName);
  const UniqueFd file = AboveStandardDescriptors(UniqueFd(::open(fileName, O_RDWR | O_NONBLOCK | O_CLOEXEC)));
  const int error = errno;
  if (!file && error != ENOENT) {
    TraceAppendError(fileName);
    return 0;
  }
  if (!file) {
    if (key == nullptr || value == nullptr) return 1;
    return CreateFile(fileName, IniSectionText(section, key, value)) ? 1 : 0;
  }
  const unsigned int result = EditFile(file.Get(), section, key, value, fileName) ? 1 : 0;
  TRACE(4, "WritePrivateProfileString rc=0x%04x\n", result);
  return static_cast<int>(result);
}

void CIniFile::SetFilename(const char* name) {
  std::unique_ptr<char[]> copy;
  if (name != nullptr) {
    const size_t size = std::strlen(name) + 1;
    copy = std::make_unique_for_overwrite<char[]>(size);
    std::memcpy(copy.get(), name, size);
  }
  fileName = std::move(copy);
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
  out = isComplete ? buffer.get() : defaultValue;  // a value ends with its line: only a default can be too long
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
  std::vector<std::string> keys;
  GetEnums(keys, source);
  for (const std::string& key : keys) {
    std::string value;
    if (GetString(value, source, key.c_str(), "")) SetString(target, key.c_str(), value.c_str());
  }
  return IsUsable();
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
    buffer = std::make_unique_for_overwrite<char[]>(size);
    length = GetPrivateProfileString(section, nullptr, nullptr, buffer.get(), size, fileName.get());
  } while (length + 2 >= size && (size *= 2) < UINT32_MAX / 2);
  for (const char* name = buffer.get(); *name != '\0'; name += std::strlen(name) + 1) {
    names.emplace_back(name);
  }
  return buffer[0] != '\0';
}

void CIniFile::Flush() const {
  if (isOpen) TRACE(4, "WritePrivateProfileString: ## WARNING: invalid pointer to AppName\n");
}
