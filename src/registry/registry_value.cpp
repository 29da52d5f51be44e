#include "registry/registry_value.h"

#include <cstring>
#include <utility>

#include "registry/registry_node.h"

RegistryEntry RegistryEntry::Of(char* name, size_t nameLength, uintptr_t word, uint32_t type) {
  unsigned int special = 0;
  for (const char c : std::string_view(name, nameLength))
    special |= static_cast<unsigned int>(c == '=') | static_cast<unsigned int>(c == '[') |
               static_cast<unsigned int>(c == ']') | static_cast<unsigned int>(c == '\n');
  return {name, word, type, static_cast<uint32_t>(nameLength) & 0x7fffffffU, special == 0};
}

std::span<const unsigned char> RegistryEntry::Block() const {
  const auto* block = reinterpret_cast<const unsigned char*>(word);
  uint32_t length = 0;
  std::memcpy(&length, block, sizeof length);
  return {block + sizeof length, length};
}

CRegistryValue::~CRegistryValue() {
  if (m_Word == 0) return;
  switch (m_Type) {
    case kRegistryString:
    case kRegistryExpandString:
      delete[] reinterpret_cast<char*>(m_Word);
      break;
    case kRegistryBinary:
      delete[] reinterpret_cast<unsigned char*>(m_Word);
      break;
    case kRegistrySubKey:
      CRegistryNode::Discard(reinterpret_cast<CRegistryNode*>(m_Word));
      break;
    default:
      break;
  }
}

CRegistryValue CRegistryValue::Text(std::string_view text, uint32_t type) {
  char* copy = new char[text.size() + 1];
  if (!text.empty()) std::memcpy(copy, text.data(), text.size());
  copy[text.size()] = '\0';
  return {reinterpret_cast<uintptr_t>(copy), type};
}

CRegistryValue CRegistryValue::Block(std::span<const unsigned char> bytes) {
  const auto length = static_cast<uint32_t>(bytes.size());
  auto* block = new unsigned char[sizeof length + bytes.size()];
  std::memcpy(block, &length, sizeof length);
  if (!bytes.empty()) std::memcpy(block + sizeof length, bytes.data(), bytes.size());
  return {reinterpret_cast<uintptr_t>(block), kRegistryBinary};
}

void CRegistryValue::SwapWith(RegistryEntry& entry) {
  std::swap(m_Word, entry.word);
  std::swap(m_Type, entry.type);
}

CRegistryNode* CRegistryValue::ReleaseNode() {
  if (m_Type != kRegistrySubKey) return nullptr;
  return reinterpret_cast<CRegistryNode*>(std::exchange(m_Word, 0));
}

void CRegistryValue::Swap(CRegistryValue& other) noexcept {
  std::swap(m_Word, other.m_Word);
  std::swap(m_Type, other.m_Type);
}
