// Sets and deletes a key, given with its section and value by the first three lines of the input, in the rest of it.
// What surrounds the entry must stay, and what the format can carry must read back.

#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

#include "platform/ini_file.h"

namespace {

constexpr size_t kMaxInput = 20000;
constexpr std::string_view kWhiteSpace = " \t\n\v\f\r";

void Require(bool holds) {
  if (!holds) std::abort();
}

class File {
 public:
  explicit File(const std::string& content) : m_Fd(::memfd_create("ini", MFD_CLOEXEC)) {
    Require(::write(m_Fd, content.data(), content.size()) == static_cast<ssize_t>(content.size()));
  }
  ~File() { ::close(m_Fd); }
  File(const File&) = delete;
  File& operator=(const File&) = delete;

  std::string Path() const { return "/proc/self/fd/" + std::to_string(m_Fd); }

  std::string Content() const {
    std::string content(static_cast<size_t>(::lseek(m_Fd, 0, SEEK_END)), '\0');
    Require(::pread(m_Fd, content.data(), content.size(), 0) == static_cast<ssize_t>(content.size()));
    return content;
  }

 private:
  int m_Fd;
};

std::string TakeLine(std::string& text) {
  std::string line = text.substr(0, text.find('\n'));
  text.erase(0, line.size() + 1);
  return line.substr(0, line.find('\0'));
}

bool IsTrimmed(std::string_view text) {
  return text.empty() || (kWhiteSpace.find(text.front()) == text.npos && kWhiteSpace.find(text.back()) == text.npos);
}

bool CanCarry(std::string_view section, std::string_view key, std::string_view value) {
  return section.find(';') == section.npos && section.size() < 1000 && IsTrimmed(key) &&
         key.find_first_of(";=") == key.npos && !key.starts_with('[') && IsTrimmed(value) && !value.empty() &&
         value.find(';') == value.npos && key.size() + value.size() < 1000;
}

// Whether a reader and a writer see the same lines.
bool IsPlain(std::string_view content) {
  while (!content.empty()) {
    const std::string_view line = content.substr(0, content.find('\n'));
    const bool isComment = line.starts_with(';');
    if (line.size() > 1000 || line.find_first_of(std::string_view("\0\r\v\f", 4)) != line.npos) return false;
    if (!isComment && (!IsTrimmed(line) || line.find(';') != line.npos)) return false;
    content.remove_prefix(std::min(line.size() + 1, content.size()));
  }
  return true;
}

size_t CommonPrefix(std::string_view one, std::string_view other) {
  return static_cast<size_t>(std::mismatch(one.begin(), one.end(), other.begin(), other.end()).first - one.begin());
}

// The change is one region: what comes before and behind it is the same in both files.
void RequireOneChange(const std::string& before, const std::string& after, size_t written) {
  const size_t head = CommonPrefix(before, after);
  const std::string restBefore(before.rbegin(), before.rend() - static_cast<std::ptrdiff_t>(head));
  const std::string restAfter(after.rbegin(), after.rend() - static_cast<std::ptrdiff_t>(head));
  Require(restAfter.size() - CommonPrefix(restBefore, restAfter) <= written);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size > kMaxInput) return 0;
  std::string content(data, data + size);
  const std::string section = TakeLine(content);
  const std::string key = TakeLine(content);
  const std::string value = TakeLine(content);
  const File file(content);
  CIniFile ini;
  Require(ini.Open(file.Path().c_str(), true));
  Require(ini.SetString(section.c_str(), key.c_str(), value.c_str()));
  const std::string once = file.Content();
  RequireOneChange(content, once, section.size() + key.size() + value.size() + 8);
  std::string read;
  ini.GetString(read, section.c_str(), key.c_str(), "");
  Require(read == value || !IsPlain(content) || !CanCarry(section, key, value));
  // A long line is written in full but replaced by pieces, so only a short one settles at once.
  const bool isSettled =
      section.size() < 1000 && key.find_first_of("=") == key.npos && key.size() + value.size() < 1000;
  ini.SetString(section.c_str(), key.c_str(), value.c_str());
  const std::string twice = file.Content();
  ini.SetString(section.c_str(), key.c_str(), value.c_str());
  const std::string thrice = file.Content();
  Require(!isSettled || thrice == twice || !CanCarry(section, key, value));
  if (ini.DeleteKey(section.c_str(), key.c_str())) RequireOneChange(thrice, file.Content(), 1);
  ini.DeleteSection(section.c_str());
  return 0;
}
