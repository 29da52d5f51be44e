// Looks up a section and a key, given by the first two lines of the input, in the rest of it, and compares the answers
// with those of a reader that is as simple as possible.

#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "platform/ini_file.h"

namespace {

constexpr size_t kMaxInput = 200000;
constexpr const char* kWhiteSpace = " \t\n\v\f\r";

void Require(bool holds) {
  if (!holds) std::abort();
}

std::string MakeFile(const std::string& content) {
  static const int fd = ::memfd_create("ini", MFD_CLOEXEC);
  Require(::ftruncate(fd, 0) == 0 &&
          ::pwrite(fd, content.data(), content.size(), 0) == static_cast<ssize_t>(content.size()));
  return "/proc/self/fd/" + std::to_string(fd);
}

std::string TakeLine(std::string& text) {
  std::string line = text.substr(0, text.find('\n'));
  text.erase(0, line.size() + 1);
  return line.substr(0, line.find('\0'));
}

std::string Trim(std::string text) {
  text.erase(0, std::min(text.find_first_not_of(kWhiteSpace), text.size()));
  return text.erase(text.find_last_not_of(kWhiteSpace) + 1);
}

// What a reader sees of each line.
std::vector<std::string> Lines(const std::string& content) {
  std::vector<std::string> lines;
  for (size_t begin = 0; begin < content.size();) {
    const size_t newline = content.find('\n', begin);
    const size_t end = std::min({newline == std::string::npos ? newline : newline + 1, begin + 1023, content.size()});
    const std::string line = content.substr(begin, end - begin);
    lines.push_back(Trim(line.substr(0, line.find_first_of(std::string(";\0", 2)))));
    begin = end;
  }
  return lines;
}

std::string LookUp(const std::string& content, const std::string& section, const std::string& key) {
  bool isInside = false;
  for (const std::string& line : Lines(content)) {
    const size_t assignment = line.find('=');
    if (line.starts_with('[')) {
      if (isInside) return "";
      isInside = line == "[" + section + "]";
    } else if (isInside && assignment != std::string::npos && Trim(line.substr(0, assignment)) == key) {
      return Trim(line.substr(assignment + 1));
    }
  }
  return "";
}

// Whatever the size: nothing is written beyond it, and what was written is terminated.
void ReadIntoAnySize(const char* section, const char* key, const char* file) {
  for (uint32_t size = 0; size < 12; ++size) {
    char buffer[13];
    std::memset(buffer, '#', sizeof buffer);
    const uint32_t length = CIniFile::GetPrivateProfileString(section, key, "default", buffer, size, file);
    Require(buffer[size] == '#' &&
            (size == 0 || (length < size && buffer[length] == '\0' && buffer[size - 1] == '\0')));
    const bool isList = section == nullptr || key == nullptr;
    Require(!isList || length == 0 || buffer[length - 1] == '\0' || (buffer[size - 2] == '\0' && length == size - 2));
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size > kMaxInput) return 0;
  std::string content(data, data + size);
  const std::string section = TakeLine(content);
  const std::string key = TakeLine(content);
  const std::string file = MakeFile(content);
  CIniFile ini;
  ini.Open(file.c_str(), true);
  std::string value;
  Require(ini.GetString(value, section.c_str(), key.c_str(), "") && value == LookUp(content, section, key));
  std::vector<std::string> sections;
  ini.GetSections(sections);
  std::vector<std::string> keys;
  ini.GetEnums(keys, section.c_str());
  for (const std::string& name : keys) {
    ini.GetString(value, section.c_str(), name.c_str(), "");
    Require(value == LookUp(content, section, name));
  }
  ini.GetNumber(section.c_str(), key.c_str(), 0);
  ReadIntoAnySize(section.c_str(), key.c_str(), file.c_str());
  ReadIntoAnySize(section.c_str(), nullptr, file.c_str());
  ReadIntoAnySize(nullptr, nullptr, file.c_str());
  return 0;
}
