#pragma once

#include <atomic>
#include <cstdint>
#include <cstdio>
#include <span>
#include <string_view>
#include <utility>

#include "platform/critical_section.h"
#include "platform/export.h"
#include "registry/registry_value.h"

class CRegistryNodeRef;

// One key of the registry tree: its values and its subkeys in one array under one name space, sorted by name in the
// order of CStrMap::compare, with the lock, the array, its capacity and its count as CStrMap has them.
//
// Threads: any thread may use a node. The operations take the node's own recursive lock; those marked "lock held" are
// called with it held (CCriticalSectionLock lock(node)) and what they return is valid until it is left. No operation
// holds the locks of two nodes at once.
// Ownership: a node owns its names, its values and its subkeys. Whoever keeps a pointer to a node that somebody else
// may delete keeps it through a CRegistryNodeRef: deleting a key frees what it holds at once, and the empty node itself
// with the last reference. A deleted node stays empty: it refuses insertions and finds nothing.
// Failure: std::bad_alloc where memory is allocated; the node is then as it was before.
// Depth: nothing here recurses, so a tree may be as deep as memory allows.
//
// Cost: a look-up is a binary search. Names that come in order are appended; in a large node the others gather in a
// short sorted run behind the main one, which takes it up when it is full, so that filling a node of any size costs
// about the same per name.
class RAVD_EXPORT CRegistryNode : public CCriticalSection {
 public:
  // What came of FindOrCreateSubKey.
  enum class Creation {
    kFound,    // the subkey was there
    kCreated,  // it was made
    kIsValue,  // the name is that of a value
    kRefused,  // the node was deleted
  };

  // A key without entries, with one reference, which is its maker's.
  constexpr CRegistryNode() = default;
  // Runs deleteNode first. Only for nodes that never were part of a tree; the others go through Discard.
  ~CRegistryNode();

  // Writes the content of this node and of all below it as text: values, subkeys, an empty line. Each node is locked
  // while its entries are looked at, never while the file is written. Null file: nothing. Write errors stay in the
  // stream for the caller to see (ferror). An entry that the text cannot carry is traced; what of it comes back when it
  // is read is written, see AppendRegistryLine.
  void dumpNode(FILE* file);

  // Reads lines into this node until an empty line or the end of the file. True when at least one value line was taken
  // in this node or below it. Entries of the same name are replaced. The stream is read in blocks: where it stands
  // afterwards is not said. After a read error, which stays in the stream, errno is its number.
  bool restoreNode(FILE* file);

  // Frees the values of all entries, whole subtrees included; the names stay until the node goes.
  void deleteNode();

  // Takes the node and all below it from the tree: frees what they hold, and each node with its last reference. The
  // caller has removed the node from its parent. Null is allowed.
  static void Discard(CRegistryNode* node);

  // The subkey of that name; empty when there is none, when the name is a value or when the subkey has no node.
  CRegistryNodeRef FindSubKey(std::string_view name);
  // As FindSubKey, but a missing subkey is made. child is set for kFound and kCreated.
  Creation FindOrCreateSubKey(std::string_view name, CRegistryNodeRef& child);

  // Stores the value under the name; value then holds what was there before, to be freed when no lock is held. False
  // when the node was deleted: value is as it was.
  bool Exchange(std::string_view name, CRegistryValue& value);
  // Removes the entry; removed then holds its value. False when there is none.
  bool Remove(std::string_view name, CRegistryValue& removed);

  // As Exchange. Lock held, or the node is still unknown to others.
  bool Store(std::string_view name, CRegistryValue& value);
  // Lock held. Null when there is no entry of that name.
  RegistryEntry* Find(std::string_view name);
  // Lock held. All entries in order.
  std::span<const RegistryEntry> Entries();
  // Lock held. Where in Entries() the first name behind this one stands.
  size_t PositionBehind(std::string_view name);
  // Lock held. Changes with every change of what Entries() gives and is never 0.
  uint64_t Version() const { return m_Version; }

 private:
  friend class CRegistryNodeRef;

  static constexpr uint32_t kGrowth = 16;        // entries; a large array grows by half
  static constexpr uint32_t kDirectLimit = 512;  // up to this count every name is inserted at its place at once
  static constexpr uint32_t kTailLimit = 512;

  void Pin() { m_References.fetch_add(1, std::memory_order_relaxed); }
  void Unpin() {
    if (m_References.fetch_sub(1, std::memory_order_acq_rel) == 1) delete this;
  }

  // The lock is held.
  uint32_t Count() const { return static_cast<uint32_t>(m_Count); }
  bool IsBehindLast(std::string_view name) const;
  RegistryEntry& InsertEntry(std::string_view name, bool isBehindLast);
  void OpenGap(uint32_t position);
  void Grow();
  void MergeTail();

  // The steps of deleting; they take the lock.
  static void DeleteSubtree(CRegistryNode* top);
  void BeginDeletion(CRegistryNode* parent);
  bool TakeNextValue(const char*& name, CRegistryValue& value);
  void EndDeletion();
  void FreeNames();

  // Guarded by the lock
  RegistryEntry* m_Entries = nullptr;
  uint32_t m_Capacity = 0;
  int32_t m_Count = 0;
  uint32_t m_SortedCount = 0;  // length of the main run; the tail behind it is sorted, too
  bool m_IsDeleted = false;
  uint64_t m_Version = 1;

  // Used by the one thread that deletes the node
  CRegistryNode* m_DeletionParent = nullptr;
  uint32_t m_DeletionPosition = 0;

  std::atomic<uint32_t> m_References = 1;  // the tree's own and those of CRegistryNodeRef
};

// A pointer to a node that keeps the node's memory from being freed. Not shared between threads.
class CRegistryNodeRef {
 public:
  // Null.
  CRegistryNodeRef() = default;
  // Adds a reference; null is allowed.
  explicit CRegistryNodeRef(CRegistryNode* node) : m_Node(node) {
    if (m_Node != nullptr) m_Node->Pin();
  }
  // Gives the reference back.
  ~CRegistryNodeRef() {
    if (m_Node != nullptr) m_Node->Unpin();
  }
  // Takes the pointer and the reference of the other object, which gets those that were here:
  CRegistryNodeRef(CRegistryNodeRef&& other) noexcept : m_Node(other.Release()) {}
  CRegistryNodeRef& operator=(CRegistryNodeRef&& other) noexcept {
    std::swap(m_Node, other.m_Node);
    return *this;
  }

  // The node, borrowed as long as this object keeps it; null for none:
  CRegistryNode* Get() const { return m_Node; }
  CRegistryNode* operator->() const { return m_Node; }
  explicit operator bool() const { return m_Node != nullptr; }
  // Gives the pointer away with its reference, which nobody returns.
  CRegistryNode* Release() { return std::exchange(m_Node, nullptr); }

 private:
  CRegistryNode* m_Node = nullptr;
};
