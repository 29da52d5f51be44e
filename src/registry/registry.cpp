#include "registry/registry.h"

#include <algorithm>
#include <cstring>
#include <exception>

#include "platform/cancellation.h"
#include "registry/registry_strings.h"
#include "trace/debug.h"

namespace {

constexpr const char* kPointerKey = "SYSTEM\\CurrentControlSet\\Control\\UUID\\5E2D7A10-4B3C-11D3-9A7E-00C0D1E2F3A4";

const char* TextOrNull(const char* text) {
  return text != nullptr ? text : "<null>";
}

// "hkey_users\Agent" => "HKEY_USERS\Agent"; empty without any separator.
std::string PointerPath(std::string_view text) {
  std::string path(text);
  std::string_view rest = path;
  const size_t rootName = TakePathComponent(rest).size();
  if (rootName == path.size()) return "";
  std::transform(path.begin(), path.begin() + static_cast<std::ptrdiff_t>(rootName), path.begin(),
                 [](char c) { return c >= 'a' && c <= 'z' ? static_cast<char>(c - 'a' + 'A') : c; });
  return path;
}

}  // namespace

char* CRegistry::Buffer::Reserve(size_t size) {
  if (capacity < size) {
    bytes = std::make_unique_for_overwrite<char[]>(size);
    capacity = size;
  }
  return bytes.get();
}

void CRegistry::Buffer::Assign(const char* data, size_t size) {
  std::memcpy(Reserve(size), data, size);
}

void CRegistry::Buffer::Free() {
  bytes.reset();
  capacity = 0;
}

CRegistry::CRegistry() {
  InitClass();
}

CRegistry::CRegistry(CRegistryNode*& hKey) {
  InitClass();
  SetKey(CRegistryNodeRef(hKey));
}

CRegistry::CRegistry(const char* path, CRegistryNode*& hKey, int access) {
  InitClass();
  m_Result = Open(path, hKey, access);
}

CRegistry::CRegistry(CRegistry& other) {
  *this = other;
}

CRegistry& CRegistry::operator=(CRegistry& other) {
  if (this == &other) return *this;
  InitClass();
  SetKey(CRegistryNodeRef(other.m_hKey.Get()));
  try {
    if (other.m_KeyPath.bytes != nullptr)
      m_KeyPath.Assign(other.m_KeyPath.bytes.get(), std::strlen(other.m_KeyPath.bytes.get()) + 1);
  } catch (const std::exception&) {
    m_KeyPath.Free();
  }
  return *this;
}

CRegistry::~CRegistry() {
  const CancellationBlock block;
  FreeClass();
}

void CRegistry::InitClass() {
  TRACE(2, "\nCRegistry::InitClass");
  m_Result = 0;
  m_ValueSize = m_ValueType = 0;
  m_ExpandStrings = true;
  m_EnumKeyCount = m_EnumKeyPos = 0;
  m_EnumValCount = m_EnumValType = m_EnumValPos = 0;
  SetKey({});
  m_ValueBuffer.Free();
  m_KeyPath.Free();
  SetupTree(false);
  RestoreRootEntries();
}

void CRegistry::FreeClass() {
  SetKey({});
  m_ValueBuffer.Free();
  m_KeyPath.Free();
  SaveTree();
}

void CRegistry::SetKey(CRegistryNodeRef key) {
  m_hKey = std::move(key);
  m_EnumKeyVersion = m_EnumValVersion = 0;
}

CRegistryNode* CRegistry::KeepKeyHandle() {
  CRegistryNode* key = m_hKey.Release();
  SetKey({});
  return key;
}

bool CRegistry::Close() {
  const bool wasOpen = static_cast<bool>(m_hKey);
  SetKey({});
  return wasOpen;
}

int CRegistry::Open(const char* path, CRegistryNode* parent, int /*access*/) {
  TRACE(2, "\nCRegistry::Open \"%s\", hKey = %d\n", TextOrNull(path),
        static_cast<int>(reinterpret_cast<uintptr_t>(parent)));
  int result = kNoKey;
  try {
    if (path != nullptr) result = OpenPath(path, parent);
  } catch (const std::exception&) {
    TRACE(2, "\nCRegistry::Open ##ERROR while opening !!!\n");
  }
  if (result != kSuccess) {
    SetKey({});
    m_KeyPath.Free();
  }
  return SetResult(result);
}

int CRegistry::OpenPath(const char* path, CRegistryNode* parent) {
  const size_t length = std::strlen(path);
  m_KeyPath.Assign(path, length + 1);
  CRegistryNodeRef key(parent != nullptr ? parent : &MRootNode);
  for (std::string_view rest(path, length); !rest.empty();) {
    key = key->FindSubKey(TakePathComponent(rest));
    if (!key) return kNoKey;
  }
  SetKey(std::move(key));
  return kSuccess;
}

int CRegistry::CreateKey(CRegistryNode* parent, const char* path, bool /*flag*/, int /*access*/) {
  TRACE(2, "CRegistry::CreateKey \"%s\"\n", TextOrNull(path));
  parent = NodeOrCurrent(parent);
  if (parent == nullptr || path == nullptr) return SetResult(kNoKey);
  try {
    return SetResult(CreatePath(parent, path));
  } catch (const std::exception&) {
    return SetResult(kNoKey);
  }
}

int CRegistry::CreatePath(CRegistryNode* parent, std::string_view path) {
  CRegistryNodeRef key(parent);
  while (!path.empty()) {
    CRegistryNodeRef child;
    const CRegistryNode::Creation creation = key->FindOrCreateSubKey(TakePathComponent(path), child);
    if (!child) return kNoKey;
    if (creation == CRegistryNode::Creation::kCreated) MarkDirty();
    key = std::move(child);
  }
  SetKey(std::move(key));
  return kSuccess;
}

int CRegistry::DeleteKey(const char* name) {
  TRACE(2, "CRegistry::DeleteKey \"%s\"\n", TextOrNull(name));
  CRegistryNode* node = m_hKey.Get();
  if (name == nullptr || node == nullptr) return SetResult(kMissingArgument);
  CRegistryValue removed;
  {
    const CCriticalSectionLock lock(*node);
    const RegistryEntry* entry = node->Find(name);
    if (entry == nullptr || !entry->IsSubKey() || !node->Remove(name, removed)) return SetResult(kMissingArgument);
  }
  ForgetRootKey(*node, removed);
  MarkDirty();
  return SetResult(kSuccess);
}

int CRegistry::OpenPointerKey(const char* keyPath, const char* valueName, CRegistryNode* parent, int access) {
  TRACE(2, "CRegistry::OpenPointer \"%s\"\n", TextOrNull(keyPath));
  if (Open(keyPath, parent, access) != kSuccess) return kNoKey;
  try {
    std::string text;
    QueryValue(text, valueName);
    SetKey({});
    const std::string path = PointerPath(text);
    return path.empty() ? SetResult(kNoKey) : Open(path.c_str(), nullptr, -1);
  } catch (const std::exception&) {
    SetKey({});
    return SetResult(kNoKey);
  }
}

int CRegistry::OpenUUIDPointer(const char* valueName, CRegistryNode* parent, int access, const char* /*reserved*/,
                               bool /*reservedFlag*/) {
  return OpenPointerKey(kPointerKey, valueName, parent, access);
}

bool CRegistry::GetProductRegistryRoot(std::string& value, const char* valueName) {
  CRegistry registry;
  return registry.Open(kPointerKey, HKEY_LOCAL_MACHINE) == kSuccess &&
         registry.QueryValue(value, valueName) == kSuccess;
}
