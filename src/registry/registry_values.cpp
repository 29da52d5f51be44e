// The operations of the registry handle on values.

#include <cstring>
#include <exception>

#include "registry/registry.h"
#include "registry/registry_strings.h"
#include "trace/debug.h"

namespace {

uint32_t SizeOf(const RegistryEntry* entry) {
  if (entry == nullptr) return 0;
  if (entry->type == kRegistryNumber) return sizeof(uint32_t);
  if (entry->IsText()) return static_cast<uint32_t>(std::strlen(entry->Text())) + 1;
  return entry->type == kRegistryBinary && entry->HoldsValue() ? static_cast<uint32_t>(entry->Block().size()) : 0;
}

void CopyBytes(const RegistryEntry& entry, char* to, uint32_t size) {
  if (entry.type == kRegistryNumber) {
    const uint32_t number = entry.Number();
    std::memcpy(to, &number, sizeof number);
  } else {
    std::memcpy(to, entry.IsText() ? static_cast<const void*>(entry.Text()) : entry.Block().data(), size);
  }
}

// False when the type or the arguments do not make a value.
bool MakeValue(const unsigned char* data, uint32_t size, uint32_t type, CRegistryValue& value) {
  if (data == nullptr && size > 0) return false;
  if (type == kRegistryBinary) {
    value = CRegistryValue::Block({data, size});
  } else if (type == kRegistryString || type == kRegistryExpandString) {
    value = CRegistryValue::Text({reinterpret_cast<const char*>(data), size}, type);
  } else if (type == kRegistryNumber && size == sizeof(uint32_t)) {
    uint32_t number = 0;
    std::memcpy(&number, data, sizeof number);
    value = CRegistryValue::Number(number);
  } else {
    return false;
  }
  return true;
}

bool IsTextType(uint32_t type) {
  return type == kRegistryString || type == kRegistryExpandString;
}

}  // namespace

unsigned int CRegistry::GetValueSize(const char* name, CRegistryNode* node) {
  node = NodeOrCurrent(node);
  if (name == nullptr || node == nullptr) return 0;
  const CCriticalSectionLock lock(*node);
  return SizeOf(node->Find(name));
}

const char* CRegistry::GetValue(const char* name, CRegistryNode* node) {
  m_ValueSize = 0;
  node = NodeOrCurrent(node);
  if (name == nullptr || node == nullptr) return nullptr;
  try {
    return ReadValue(*node, name);
  } catch (const std::exception&) {
    m_ValueSize = 0;
    return nullptr;
  }
}

const char* CRegistry::ReadValue(CRegistryNode& node, std::string_view name) {
  {
    const CCriticalSectionLock lock(node);
    const RegistryEntry* entry = node.Find(name);
    m_ValueSize = SizeOf(entry);
    if (m_ValueSize == 0) return nullptr;
    CopyBytes(*entry, m_ValueBuffer.Reserve(m_ValueSize), m_ValueSize);
    m_ValueType = entry->type;
  }
  if (m_ValueType == kRegistryExpandString && m_ExpandStrings) {
    const std::string expanded = ExpandEnvironment(m_ValueBuffer.bytes.get());
    m_ValueBuffer.Assign(expanded.c_str(), expanded.size() + 1);
    m_ValueSize = static_cast<uint32_t>(expanded.size());
  }
  return m_ValueBuffer.bytes.get();
}

int CRegistry::QueryValue(unsigned int* number, const char* name, CRegistryNode* node) {
  const char* value = GetValue(name, node);
  if (value == nullptr || number == nullptr || m_ValueSize != sizeof *number) return SetResult(kNoValue);
  std::memcpy(number, value, sizeof *number);
  return SetResult(kSuccess);
}

int CRegistry::QueryValue(std::string& text, const char* name, CRegistryNode* node) {
  const char* value = GetValue(name, node);
  if (value == nullptr || !IsTextType(m_ValueType)) return SetResult(kNoValue);
  try {
    text = value;
  } catch (const std::exception&) {
    return SetResult(kNoValue);
  }
  return SetResult(kSuccess);
}

int CRegistry::QueryValue(char* buffer, const char* name, unsigned int* count, CRegistryNode* node) {
  const char* value = GetValue(name, node);
  if (value == nullptr || !IsTextType(m_ValueType)) return SetResult(kNoValue);
  if (count == nullptr) {
    TRACE(1, "CRegistry::QueryValue: ** ERROR **  pdwCount is a NULL pointer\n");
    return SetResult(kTooSmall);
  }
  const auto length = static_cast<unsigned int>(std::strlen(value));
  if (buffer == nullptr) {
    *count = length + 1;
    return SetResult(kSuccess);
  }
  if (*count <= length) {
    std::memcpy(buffer, value, *count);
    return SetResult(kTooSmall);
  }
  std::memcpy(buffer, value, length + 1);
  *count = length;
  return SetResult(kSuccess);
}

int CRegistry::QueryValue(char* buffer, const char* name, unsigned int count, CRegistryNode* node) {
  return QueryValue(buffer, name, &count, node);
}

bool CRegistry::SetValue(const char* name, const unsigned char* data, unsigned int size, unsigned int type,
                         CRegistryNode* node) {
  node = NodeOrCurrent(node);
  if (node == nullptr) return SetResult(kMissingArgument) == kSuccess;
  MarkDirty();
  TRACE(2, "CRegistry::SetValue \"%s\" %d %d\n", name != nullptr ? name : "<null>", static_cast<int>(size),
        static_cast<int>(type));
  try {
    CRegistryValue value;
    const bool isStored = MakeValue(data, size, type, value) && (name == nullptr || StoreValue(*node, name, value));
    return SetResult(isStored ? kSuccess : kMissingArgument) == kSuccess;
  } catch (const std::exception&) {
    return SetResult(kMissingArgument) == kSuccess;
  }
}

bool CRegistry::StoreValue(CRegistryNode& node, const char* name, CRegistryValue& value) {
  if (!node.Exchange(name, value)) return false;
  // A save that was on its way may have passed this key before the value stood in it.
  MarkDirty();
  ForgetRootKey(node, value);
  if (value.Word() != 0 || value.Type() == kRegistryNumber) {
    TRACE(2, "CRegistry::SetValue oEntry = %p\n", reinterpret_cast<void*>(value.Word()));
  }
  return true;
}

int CRegistry::SetValue(const char* name, unsigned int number) {
  unsigned char data[sizeof number];
  std::memcpy(data, &number, sizeof number);
  SetValue(name, data, sizeof data, kRegistryNumber);
  return m_Result;
}

int CRegistry::SetValue(const char* name, const char* text) {
  if (text == nullptr) return SetResult(kMissingArgument);
  SetValue(name, reinterpret_cast<const unsigned char*>(text), static_cast<unsigned int>(std::strlen(text)),
           kRegistryString);
  return m_Result;
}

int CRegistry::DeleteValue(const char* name) {
  TRACE(2, "CRegistry::DeleteValue \"%s\"\n", name != nullptr ? name : "<null>");
  CRegistryNode* node = m_hKey.Get();
  if (node == nullptr) return SetResult(kMissingArgument);
  MarkDirty();
  if (name == nullptr) return SetResult(kSuccess);
  CRegistryValue removed;
  if (node->Remove(name, removed)) {
    MarkDirty();
    ForgetRootKey(*node, removed);
  }
  return SetResult(kSuccess);
}
