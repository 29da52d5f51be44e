// How the registry handle counts and enumerates subkeys and values.

#include <algorithm>
#include <cstring>
#include <exception>

#include "registry/registry.h"

namespace {

void CopyName(const char* from, char* name, unsigned int& nameLen) {
  if (nameLen == 0) return;
  nameLen = static_cast<unsigned int>(::strnlen(from, nameLen - 1));
  std::memcpy(name, from, nameLen);
  name[nameLen] = '\0';
}

// Where the next entry of an enumeration stands, counted from a place where so many were behind it already.
template <typename Filter>
size_t FindNth(std::span<const RegistryEntry> entries, size_t position, unsigned int left, Filter isCandidate) {
  for (; position < entries.size(); ++position) {
    if (isCandidate(entries[position]) && left-- == 0) break;
  }
  return position;
}

}  // namespace

int CRegistry::NoOfSubKeys(unsigned int* count) {
  if (count == nullptr) return SetResult(kMissingArgument);
  *count = 0;
  CRegistryNode* node = m_hKey.Get();
  if (node == nullptr) return SetResult(kMissingArgument);
  const CCriticalSectionLock lock(*node);
  *count = static_cast<unsigned int>(std::ranges::count_if(node->Entries(), &RegistryEntry::IsSubKey));
  return SetResult(kSuccess);
}

int CRegistry::EnumKey(char* name, unsigned int* nameLen, unsigned int index, char* /*className*/,
                       unsigned int* classLen) {
  if (!m_hKey || name == nullptr || nameLen == nullptr) return SetResult(kMissingArgument);
  const int result = EnumKeyEntry(*m_hKey.Get(), index, name, *nameLen);
  if (result == kSuccess && classLen != nullptr) *classLen = 0;
  return SetResult(result);
}

int CRegistry::EnumKey(char* name, unsigned int nameLen, unsigned int index, char* className, unsigned int classLen) {
  return EnumKey(name, &nameLen, index, className, &classLen);
}

int CRegistry::EnumKeyEntry(CRegistryNode& node, unsigned int index, char* name, unsigned int& nameLen) {
  const CCriticalSectionLock lock(node);
  const std::span<const RegistryEntry> entries = node.Entries();
  const bool goesOn = m_EnumKeyVersion == node.Version() && index >= m_EnumKeyCount;
  const size_t position = FindNth(entries, goesOn ? m_EnumKeyPos : 0, goesOn ? index - m_EnumKeyCount : index,
                                  [](const RegistryEntry& entry) { return entry.IsSubKey(); });
  if (position == entries.size()) return kNoValue;
  CopyName(entries[position].name, name, nameLen);
  m_EnumKeyCount = index + 1;
  m_EnumKeyPos = static_cast<uint32_t>(position + 1);
  m_EnumKeyVersion = node.Version();
  return kSuccess;
}

int CRegistry::EnumVal(char* name, unsigned int* nameLen, unsigned int index, unsigned int type, unsigned char* data,
                       unsigned int* dataLen) {
  if (!m_hKey || name == nullptr || nameLen == nullptr) return SetResult(kMissingArgument);
  return SetResult(EnumValEntry(*m_hKey.Get(), index, type, name, *nameLen, data, dataLen));
}

int CRegistry::EnumVal(char* name, unsigned int nameLen, unsigned int index, unsigned int type, unsigned char* data,
                       unsigned int dataLen) {
  return EnumVal(name, &nameLen, index, type, data, &dataLen);
}

int CRegistry::EnumValEntry(CRegistryNode& node, unsigned int index, unsigned int type, char* name,
                            unsigned int& nameLen, unsigned char* data, unsigned int* dataLen) {
  const CCriticalSectionLock lock(node);
  const std::span<const RegistryEntry> entries = node.Entries();
  const bool goesOn = m_EnumValVersion == node.Version() && m_EnumValType == type && index >= m_EnumValCount;
  const size_t position = FindNth(entries, goesOn ? m_EnumValPos : 0, goesOn ? index - m_EnumValCount : index,
                                  [type](const RegistryEntry& entry) {
                                    if (entry.IsSubKey() || !entry.HoldsValue()) return false;
                                    return type == kAnyType || entry.type == type;
                                  });
  if (position == entries.size()) return kNoValue;
  CopyName(entries[position].name, name, nameLen);
  CopyEnumData(node, entries[position], data, dataLen);
  m_EnumValCount = index + 1;
  m_EnumValType = type;
  m_EnumValPos = static_cast<uint32_t>(position + 1);
  m_EnumValVersion = node.Version();
  return kSuccess;
}

// The node's lock is held, so that the reads by name find this entry.
void CRegistry::CopyEnumData(CRegistryNode& node, const RegistryEntry& entry, unsigned char* data,
                             unsigned int* dataLen) {
  if (dataLen == nullptr) return;
  const unsigned int size = *dataLen;
  if (data != nullptr && entry.IsText()) {
    QueryValue(reinterpret_cast<char*>(data), entry.name, dataLen, &node);
    return;
  }
  *dataLen = 0;
  if (data == nullptr || entry.type != kRegistryNumber || size < sizeof(uint32_t)) return;
  const uint32_t number = entry.Number();
  std::memcpy(data, &number, sizeof number);
  *dataLen = sizeof number;
}
