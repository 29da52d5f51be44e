// Looks up a section and a key, given by the first two lines of the input, in the rest of it as an adapter name file.
// But for the blanks behind a value the answer is that of the reader of INI files.

#include <sys/mman.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

#include "inventory/adapter_file.h"
#include "platform/ini_file.h"

namespace {

constexpr size_t kMaxInput = 65536;
constexpr size_t kMaxValue = 259;

void Require(bool holds) {
  if (!holds) std::abort();
}

std::string MakeFile(const std::string& content) {
  static const int fd = ::memfd_create("adapters", MFD_CLOEXEC);
  Require(::ftruncate(fd, 0) == 0 &&
          ::pwrite(fd, content.data(), content.size(), 0) == static_cast<ssize_t>(content.size()));
  return "/proc/self/fd/" + std::to_string(fd);
}

std::string TakeLine(std::string& text) {
  std::string line = text.substr(0, text.find('\n'));
  text.erase(0, line.size() + 1);
  return line.substr(0, line.find('\0'));
}

std::string_view WithoutBlanksBehind(std::string_view text) {
  return text.substr(0, text.find_last_not_of(" \t") + 1);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size > kMaxInput) return 0;
  std::string content(data, data + size);
  const std::string section = TakeLine(content);
  const std::string key = TakeLine(content);
  const std::string file = MakeFile(content);
  const AdapterFileText text(content);
  std::string_view value;
  const bool found = text.Find(section, key, value);
  Require(found ? !value.empty() && value.size() <= kMaxValue && value.find(';') == std::string_view::npos
                : value.empty());
  char expected[kMaxValue + 1];
  CIniFile::GetPrivateProfileString(section.c_str(), key.c_str(), "", expected, sizeof expected, file.c_str());
  Require(WithoutBlanksBehind(value) == WithoutBlanksBehind(expected));

  std::string name;
  const CAdapterFile adapters(file.c_str());
  Require(adapters.GetDeviceName(name, section.c_str(), "", key.c_str()) == found && name == value);
  adapters.GetVendorName(name, section.c_str(), key.c_str());
  return 0;
}
