#include "platform/process.h"

#include <fstream>
#include <sstream>

namespace {

constexpr const char* kProc = "/proc/";

std::string FileOfProcess(uint32_t pid, const char* name) {
  return kProc + std::to_string(pid) + "/" + name;
}

// "VmRSS:     10244 kB" with the key "VmRSS:" => 10244 * 1024
bool ParseStatusLine(const std::string& line, const std::string& key, uint64_t& value) {
  std::istringstream words(line);
  std::string word;
  uint64_t number = 0;
  if (!(words >> word) || word != key || !(words >> number)) return false;
  std::string unitName;
  words >> unitName;
  if (unitName == "kB") number *= 1024;
  if (unitName == "MB") number *= 1024 * 1024;
  if (unitName == "GB") number *= 1024 * 1024 * 1024;
  value = number;
  return true;
}

}  // namespace

void CProcess::GetProcessMemorySpecificInfo(uint32_t pid, uint64_t& value, const std::string& key, unit inUnit) {
  std::ifstream status(FileOfProcess(pid, "status"));
  std::string line;
  while (std::getline(status, line)) {
    if (ParseStatusLine(line, key, value)) break;
  }
  value >>= 10 * static_cast<unsigned int>(inUnit);
}
