#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include "platform/critical_section.h"
#include "platform/export.h"
#include "registry/registry_node.h"
#include "registry/registry_value.h"

// Handle to the process-wide registry: a tree of keys with typed values, kept in the text file /etc/pelrix/registry.
//
// The first object of the process loads the tree, and the destruction of an object saves it when it has changed. An
// object holds one current key, a copy of the value it read last and the state of its enumerations. Paths below a key
// separate their components by backslashes; a rest without any backslash may use slashes. Names are case-sensitive.
//
//   CRegistry registry("SOFTWARE\\Agent", CRegistry::HKEY_LOCAL_MACHINE, 0);
//   unsigned int port = 0;
//   if (registry.QueryValue(&port, "Port") == CRegistry::kSuccess) ...
//
// Threads: an object belongs to one thread at a time; any number of objects may be at work at once. Each access to a
// key takes that key's lock, one at a time. Loading and saving are serialised; a save locks each key only while its
// entries are turned into text, and neither reading and writing nor opening further objects waits for the disk.
// Ownership: the tree owns the keys. An object borrows its current key and keeps its memory from being freed: a key
// that somebody else deletes becomes empty for good. Reads find nothing in it, SetValue and CreateKey fail. The same
// holds for the root key handles and for what KeepKeyHandle gives away.
// Cancellation of a thread is held back while it loads, saves or destroys an object.
// Failure: by result code, which is
// also left in m_Result; nothing throws. A name, path or text argument that is null counts as missing.
class RAVD_EXPORT CRegistry {
 public:
  // The result codes, which reach callers in other binaries and do not change.
  enum Result : int {
    kSuccess = 0,           // done
    kNoKey = -1,            // key not found, a component of the path is a value, no parent key
    kMissingArgument = 22,  // an argument, or the current key, is missing or not what it has to be
    kTooSmall = 34,         // character buffer of QueryValue too small, or without a count
    kNoValue = 61,          // no such value, wrong type, or an index past the end
  };

  // Type filter of EnumVal that takes every value.
  static constexpr unsigned int kAnyType = 999;

  // The root keys, borrowed; set by the first object of the process. Null when the tree that was loaded has no such key
  // and after the key was deleted:
  static CRegistryNode* HKEY_LOCAL_MACHINE;
  static CRegistryNode* HKEY_CURRENT_USER;
  static CRegistryNode* HKEY_USERS;
  static CRegistryNode* HKEY_CLASSES_ROOT;
  static CRegistryNode* HKEY_CURRENT_CONFIG;
  // The same, for those who would not refer to data of a library:
  static CRegistryNode* LocalMachine();
  static CRegistryNode* CurrentUser();
  static CRegistryNode* Users();
  static CRegistryNode* ClassesRoot();
  static CRegistryNode* CurrentConfig();

  // Without a current key. This and the others load the tree when nobody did before.
  CRegistry();
  // With the current key hKey. It is looked at after the tree was loaded, so a root key handle may be given by the
  // first object, too.
  explicit CRegistry(CRegistryNode*& hKey);
  // As Open, whose result is in m_Result.
  CRegistry(const char* path, CRegistryNode*& hKey, int access);
  // Both objects have the same current key afterwards. What was read and enumerated is not copied:
  CRegistry(CRegistry& other);
  CRegistry& operator=(CRegistry& other);
  // Saves the tree when it was changed, as SaveTree; the result of that shows in the trace alone.
  ~CRegistry();

  // Everything back to what the constructor without arguments makes.
  void InitClass();
  // Gives up the current key and returns it. Its memory stays for good, so that it can be used as a parent key.
  CRegistryNode* KeepKeyHandle();
  // Forgets the current key; whether there was one.
  bool Close();

  // Keys: the arguments access, flag, reserved and reservedFlag mean nothing.

  // A null parent stands for the root, whose subkeys are the root keys. On failure there is no current key.
  int Open(const char* path, CRegistryNode* parent, int access = 0);
  // Makes the keys of the path that are missing. A null parent stands for the current key. On failure the current key
  // stays as it was, and so do the keys made on the way.
  int CreateKey(CRegistryNode* parent, const char* path, bool flag = false, int access = 0);
  // How many subkeys the current key has; 0 without one, which is kMissingArgument.
  int NoOfSubKeys(unsigned int* count);
  // The name of one subkey of the current key, counted from 0 in the order of the names; kNoValue past the end. It is
  // cut to *nameLen - 1 characters and terminated; *nameLen is what was copied. A size of 0 copies nothing. className
  // and classLen may be null: there are no classes, and *classLen becomes 0:
  int EnumKey(char* name, unsigned int* nameLen, unsigned int index, char* className, unsigned int* classLen);
  int EnumKey(char* name, unsigned int nameLen, unsigned int index, char* className, unsigned int classLen);
  // Deletes a subkey of the current key with all that is below it. kMissingArgument when there is none of that name.
  int DeleteKey(const char* name);
  // Opens the key whose path, from a root key name in any case on, is the text of that value of the key at keyPath.
  // kNoKey, and no current key, when one of the two is not there.
  int OpenPointerKey(const char* keyPath, const char* valueName, CRegistryNode* parent, int access = 0);
  // The same for a value of the product's own key, which is below parent at
  // SYSTEM\CurrentControlSet\Control\UUID\5E2D7A10-4B3C-11D3-9A7E-00C0D1E2F3A4.
  int OpenUUIDPointer(const char* valueName, CRegistryNode* parent, int access, const char* reserved,
                      bool reservedFlag);
  // The text of a value of the product's own key below HKEY_LOCAL_MACHINE. False, and value unchanged, when it is not
  // there.
  static bool GetProductRegistryRoot(std::string& value, const char* valueName);

  // Values: a null node stands for the current key, and without one there is nothing to read.

  // Bytes, for texts with the terminating zero; 0 when there is no such value.
  unsigned int GetValueSize(const char* name, CRegistryNode* node = nullptr);
  // The value's bytes, texts with their zero, expandable texts expanded. Valid until the next read through this object
  // or its end.
  const char* GetValue(const char* name, CRegistryNode* node = nullptr);
  // Any value of exactly four bytes counts as a number. kNoValue, and *number unchanged, when there is none.
  int QueryValue(unsigned int* number, const char* name, CRegistryNode* node = nullptr);
  // A text of either type, without its zero. kNoValue, and text unchanged, when there is none.
  int QueryValue(std::string& text, const char* name, CRegistryNode* node = nullptr);
  // *count: size of the buffer before, length of the text afterwards; its size with the zero for a null buffer. A text
  // that does not fit is cut, without a zero, and *count stays: kTooSmall, as for a null count. kNoValue when there is
  // no text of that name:
  int QueryValue(char* buffer, const char* name, unsigned int* count, CRegistryNode* node = nullptr);
  int QueryValue(char* buffer, const char* name, unsigned int count, CRegistryNode* node = nullptr);

  // Stores a value in place of what had the name. type is kRegistryString, kRegistryExpandString, kRegistryBinary or
  // kRegistryNumber (four bytes); anything else is kMissingArgument, and so is the lack of a key. The tree is written
  // at the next save. Texts need no terminating zero. A null name stores nothing and succeeds. True for kSuccess.
  bool SetValue(const char* name, const unsigned char* data, unsigned int size, unsigned int type,
                CRegistryNode* node = nullptr);
  // The same for the current key:
  int SetValue(const char* name, unsigned int number);
  int SetValue(const char* name, const char* text);
  // One value of the current key, counted from 0 among those of the type (or kAnyType) in the order of the names;
  // kNoValue past the end. The name as in EnumKey. Texts are copied as by QueryValue with dataLen as its count, numbers
  // when there is room for four bytes; *dataLen is 0 for everything else. data and dataLen may be null:
  int EnumVal(char* name, unsigned int* nameLen, unsigned int index, unsigned int type, unsigned char* data,
              unsigned int* dataLen);
  int EnumVal(char* name, unsigned int nameLen, unsigned int index, unsigned int type, unsigned char* data,
              unsigned int dataLen);
  // Deletes a value of the current key. A missing value is no failure. A subkey of that name goes with all that is
  // below it.
  int DeleteValue(const char* name);

  // The process-wide tree.

  // Reads one file into the node. False when it cannot be opened or read, is empty or has no value line, or when memory
  // is missing; the node then holds what was read before.
  static bool ReadTree(const char* path, CRegistryNode& node);
  // Loads the tree from the registry file, else from its backup, else from the default file, and sets the root keys.
  // Does nothing when it was loaded before, unless forced: then the keys of the file replace those of the tree, and
  // changes that were not saved are lost with them.
  static void SetupTree(bool forceSetup);
  // Writes the tree when it has changed: completely and down to the disk as registry.new, which then takes the place
  // of the registry file, whose old content stays as its backup - unless that content did not load: then the backup,
  // from which the tree may have come, stays as it is; so it does when the new content is the old one. There is a
  // registry file at every moment, except on a file system without second names for a file. When a step fails, it is
  // traced, the registry file is as it was, and the next save tries again - except when registry.new cannot be opened:
  // then the changes count as saved until the next one. Processes that save at once do so one after the other: a save
  // that has waited a second for another one fails as above, and so do those of the next five seconds without waiting.
  // A tree is never written when reading a file failed for a reason that says nothing about its content (no memory, no
  // descriptors, no permission, an error of the disk): what was not read may be all of it.
  static void SaveTree();

  // The state that callers may look at. They set m_ExpandStrings alone.

  int m_Result;             // of the last operation
  uint32_t m_ValueSize;     // of the value read last; after expansion without the terminating zero
  uint32_t m_ValueType;     // of the value read last
  bool m_ExpandStrings;     // expand texts of type 2 when they are read; set by the caller
  uint32_t m_EnumKeyCount;  // after EnumKey: index + 1
  uint32_t m_EnumKeyPos;    // after EnumKey: position of the entry + 1
  uint32_t m_EnumValCount;  // after EnumVal: index + 1
  uint32_t m_EnumValType;   // after EnumVal: the filter
  uint32_t m_EnumValPos;    // after EnumVal: position of the entry + 1

 private:
  // A copy that is made again and again: its memory is kept while it is large enough.
  struct Buffer {
    std::unique_ptr<char[]> bytes;
    size_t capacity = 0;

    char* Reserve(size_t size);
    void Assign(const char* data, size_t size);
    void Free();
  };

  void FreeClass();
  void SetKey(CRegistryNodeRef key);
  CRegistryNode* NodeOrCurrent(CRegistryNode* node) const { return node != nullptr ? node : m_hKey.Get(); }
  int SetResult(int result) { return m_Result = result; }
  int OpenPath(const char* path, CRegistryNode* parent);
  int CreatePath(CRegistryNode* parent, std::string_view path);
  const char* ReadValue(CRegistryNode& node, std::string_view name);
  static bool StoreValue(CRegistryNode& node, const char* name, CRegistryValue& value);
  int EnumKeyEntry(CRegistryNode& node, unsigned int index, char* name, unsigned int& nameLen);
  int EnumValEntry(CRegistryNode& node, unsigned int index, unsigned int type, char* name, unsigned int& nameLen,
                   unsigned char* data, unsigned int* dataLen);
  void CopyEnumData(CRegistryNode& node, const RegistryEntry& entry, unsigned char* data, unsigned int* dataLen);

  enum class TreeState {
    kClean,    // as loaded or saved
    kChanged,  // a change was made or asked for since then
    kSaving,   // a save is on its way that has every change in it
  };

  // The tree was changed, or a change was asked for. Called after the change, so that a save on its way cannot miss it.
  static void MarkDirty();
  // A tree without the first root key gets the entries of all root keys that it lacks.
  static void RestoreRootEntries();
  static bool LoadTree();
  static bool LoadFile(const char* path);
  static void TakeRootKeys();
  // After an entry was taken from a node: a root key that went with it leaves no handle behind.
  static void ForgetRootKey(const CRegistryNode& parent, const CRegistryValue& removed);
  static bool ReplaceRegistryFile();

  static constexpr const char* MPRegistry = "/etc/pelrix/registry";
  static constexpr const char* MPRegistryOld = "/etc/pelrix/registry.old";
  static constexpr const char* MPRegistryTemp = "/etc/pelrix/registry.new";
  static constexpr const char* MPRegistryDefault = "/etc/pelrix/registry.default";

  // Never destroyed, so that objects of static storage may use the registry to the end.
  static CRegistryNode& MRootNode;
  static CCriticalSection& MClassLock;  // serialises SetupTree and SaveTree; taken before the lock of a node

  static std::atomic<TreeState> MTreeState;
  static std::atomic<bool> MIsSetup;

  CRegistryNodeRef m_hKey;
  Buffer m_ValueBuffer;
  Buffer m_KeyPath;
  uint64_t m_EnumKeyVersion;  // of the key's entries when EnumKey looked at them last, 0 = none: the next index goes
  uint64_t m_EnumValVersion;  // on from there as long as they are the same
};
