#pragma once

#include <cstdint>
#include <span>
#include <string_view>

#include "platform/export.h"

class CRegistryNode;

// Type codes of the entries of a key. They reach callers and other processes' files: they must not change.
enum RegistryType : uint32_t {
  kRegistryNone = 0,          // an entry whose value was taken out
  kRegistryString = 1,        // text with its terminating zero
  kRegistryExpandString = 2,  // the same; references of the form %NAME% are replaced when it is read
  kRegistryBinary = 3,        // a 32-bit length, then that many bytes
  kRegistryNumber = 4,        // 32 bits, kept in the word itself
  kRegistrySubKey = 666,      // a child node, or null for a key that is not there yet
};

// One entry of a key: three words, moved about as plain memory by the node that owns it.
struct RAVD_EXPORT RegistryEntry {
  char* name;                // owned, made with new[]
  uintptr_t word;            // owned text, block or node, or the number itself; see RegistryType
  uint32_t type;             // RegistryType
  uint32_t nameLength : 31;  // with this fills the third word
  uint32_t isPlain : 1;      // no line of this name is ever taken for another entry's

  // An entry of these words. The name, made with new[], and what the word owns are the entry's from then on.
  static RegistryEntry Of(char* name, size_t nameLength, uintptr_t word, uint32_t type);

  // Borrowed; valid while the entry has the name.
  std::string_view Name() const { return {name, nameLength}; }

  // A number of 0 is a value, everything else needs something behind its word.
  bool HoldsValue() const { return type == kRegistryNumber || (type != kRegistryNone && word != 0); }
  // A subkey, with a node or without one.
  bool IsSubKey() const { return type == kRegistrySubKey; }
  // A text that is there, of either type.
  bool IsText() const { return (type == kRegistryString || type == kRegistryExpandString) && word != 0; }

  // What the word stands for, borrowed. Valid for an entry of the matching type that holds a value:
  const char* Text() const { return reinterpret_cast<const char*>(word); }
  uint32_t Number() const { return static_cast<uint32_t>(word); }
  CRegistryNode* Node() const { return reinterpret_cast<CRegistryNode*>(word); }
  std::span<const unsigned char> Block() const;
};

// The value of one entry on its way into a node or out of it. Owns what it holds, a whole subtree included.
// Making one may throw std::bad_alloc. Not shared between threads.
class RAVD_EXPORT CRegistryValue {
 public:
  // No value.
  CRegistryValue() = default;
  // Takes over what the word owns.
  CRegistryValue(uintptr_t word, uint32_t type) : m_Word(word), m_Type(type) {}
  // Frees it, a whole subtree included.
  ~CRegistryValue();
  // Takes the value of the other object, which gets the one that was here:
  CRegistryValue(CRegistryValue&& other) noexcept { Swap(other); }
  CRegistryValue& operator=(CRegistryValue&& other) noexcept {
    Swap(other);
    return *this;
  }

  // Values with copies of their own of the text, which gets its terminating zero, and of the bytes; type is one of the
  // two of texts. A node is taken over:
  static CRegistryValue Text(std::string_view text, uint32_t type);
  static CRegistryValue Block(std::span<const unsigned char> bytes);
  static CRegistryValue Number(uint32_t number) { return {number, kRegistryNumber}; }
  static CRegistryValue SubKey(CRegistryNode* node) { return {reinterpret_cast<uintptr_t>(node), kRegistrySubKey}; }

  // As in RegistryEntry; what the word stands for stays owned by this object:
  uintptr_t Word() const { return m_Word; }
  uint32_t Type() const { return m_Type; }
  // Exchanges the values of this object and of the entry.
  void SwapWith(RegistryEntry& entry);
  // The node of a subkey, which the caller owns from now on; null for everything else.
  CRegistryNode* ReleaseNode();

 private:
  void Swap(CRegistryValue& other) noexcept;

  uintptr_t m_Word = 0;
  uint32_t m_Type = kRegistryNone;
};
