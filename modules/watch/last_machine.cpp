#include <algorithm>
#include <cstdio>

#include "registry/registry.h"
#include "watch/watch.h"

namespace {

constexpr const char* kParent = "HKEY_LOCAL_MACHINE\\SOFTWARE\\ravd";
constexpr const char* kKey = "HKEY_LOCAL_MACHINE\\SOFTWARE\\ravd\\Machine";
constexpr const char* kName = "Machine";
constexpr size_t kMaxLine = 1000;  // a line of the registry file has 1,023
constexpr unsigned int kMaxRecords = 8192;

std::string ValueName(unsigned int index) {
  char name[8];
  std::snprintf(name, sizeof name, "%04u", index);
  return name;
}

}  // namespace

MachineRecords LoadLastMachine() {
  CRegistry registry;
  MachineRecords machine;
  if (registry.Open(kKey, nullptr) != CRegistry::kSuccess) return machine;
  std::string text, line;
  for (unsigned int i = 0; i < kMaxRecords && registry.QueryValue(line, ValueName(i).c_str()) == CRegistry::kSuccess;
       ++i)
    text += line + '\n';
  ParseRecords(text.append(kEndLine), machine);
  return machine;
}

void SaveLastMachine(const MachineRecords& machine) {
  CRegistry registry;
  registry.Open("", nullptr);  // the root, which an empty registry has as well
  if (registry.CreateKey(nullptr, kParent) != CRegistry::kSuccess) return;
  registry.DeleteKey(kName);
  registry.Open("", nullptr);
  if (registry.CreateKey(nullptr, kKey) != CRegistry::kSuccess) return;
  std::string text = ToText(machine);
  text.resize(text.size() - kEndLine.size());
  unsigned int index = 0;
  for (size_t begin = 0, end; begin < text.size() && index < kMaxRecords; begin = end + 1) {
    end = text.find('\n', begin);
    if (end - begin <= kMaxLine) registry.SetValue(ValueName(index++).c_str(), text.substr(begin, end - begin).c_str());
  }
}
