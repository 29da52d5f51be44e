#include "inventory/mount_table.h"

#include <fcntl.h>
#include <linux/magic.h>
#include <mntent.h>
#include <poll.h>
#include <sys/stat.h>
#include <sys/statfs.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>
#include <string>
#include <string_view>
#include <vector>

#include "inventory/fs_answer.h"
#include "inventory/fs_size.h"
#include "inventory/fs_type.h"
#include "inventory/vmfs_volume.h"
#include "platform/unique_fd.h"
#include "trace/debug.h"

namespace {

constexpr const char* kMtab = "/etc/mtab";
constexpr const char* kFstab = "/etc/fstab";
constexpr const char* kVmfs = "/vmfs";

constexpr time_t kMinimumAge = 60;  // seconds
constexpr unsigned int kSourceMask = 0xF;

// A mount point of PATH_MAX characters may come with four characters for each.
constexpr size_t kMountLineSize = 65536;

struct FreeBlock {
  void operator()(mount_entry* entry) const { std::free(entry); }
};
using EntryOwner = std::unique_ptr<mount_entry, FreeBlock>;

struct CloseTable {
  void operator()(FILE* table) const { ::endmntent(table); }
};

// The kernel's list of mounts, kept open to hear of changes. Its modification time is that of the first look at it.
class KernelMountList {
 public:
  // Whether the mounts changed since the list was last read; true as well for the first look.
  bool HasChanged() {
    if (!m_List) {
      m_List.Reset(::open(kMtab, O_RDONLY | O_CLOEXEC));
      m_Changed = true;
    }
    pollfd changes{m_List.Get(), POLLPRI, 0};
    if (::poll(&changes, 1, 0) > 0 && (changes.revents & (POLLERR | POLLPRI)) != 0) m_Changed = true;
    return m_Changed;
  }
  void SetRead() { m_Changed = false; }

 private:
  UniqueFd m_List;
  bool m_Changed = false;
};

struct State {
  mount_entry* head = nullptr;
  time_t mountedTime = 0;  // modification times last seen
  time_t configuredTime = 0;
  time_t vmfsTime = 0;
  int count = 0;
  int reportedCount = 0;  // last result of get_MountedFileSystems
  KernelMountList kernelList;
};

// Never destroyed: other static objects may ask for volumes to the end.
State& Table() {
  static State& state = *new State;
  return state;
}

// ---- the list

EntryOwner MakeEntry(std::string_view device, std::string_view mountPoint, std::string_view type) {
  const size_t size = sizeof(mount_entry) + device.size() + mountPoint.size() + type.size() + 3;
  void* block = std::calloc(1, size);
  if (block == nullptr) return nullptr;
  char* texts = static_cast<char*>(block) + sizeof(mount_entry);
  const auto append = [&texts](std::string_view text) {
    char* place = texts;
    std::memcpy(place, text.data(), text.size());
    texts += text.size() + 1;
    return place;
  };
  EntryOwner entry(new (block) mount_entry{});
  entry->device_length = device.size();
  entry->device = append(device);
  entry->mount_point_length = mountPoint.size();
  entry->mount_point = append(mountPoint);
  entry->type_length = type.size();
  entry->type = append(type);
  entry->type_flags = get_fs_type_flags(type);
  return entry;
}

bool StandsBehind(const mount_entry& entry, const mount_entry& other) {
  if (entry.source != other.source) return entry.source > other.source;
  return std::strcmp(entry.mount_point, other.mount_point) > 0;
}

// Behind the entries that are equal to it: the mount that came later comes later.
mount_entry& Insert(EntryOwner entry) {
  mount_entry** link = &Table().head;
  while (*link != nullptr && !StandsBehind(**link, *entry)) {
    link = &(*link)->next;
  }
  entry->next = *link;
  *link = entry.release();
  return **link;
}

void RemoveSource(uint32_t source) {
  mount_entry** link = &Table().head;
  while (*link != nullptr) {
    if ((*link)->source != source) {
      link = &(*link)->next;
      continue;
    }
    const EntryOwner removed(*link);
    *link = removed->next;
  }
}

bool IsInTable(std::string_view mountPoint) {
  for (const mount_entry* entry = Table().head; entry != nullptr; entry = entry->next) {
    if (entry->mount_point == mountPoint) return true;
  }
  return false;
}

// ---- mounted and configured list

// Before anything touches the mount point: an NFS mount whose server is gone would hold the caller up.
bool IsWanted(const mntent& mount, unsigned int flags) {
  const std::string_view type = mount.mnt_type;
  if (type == "ignore" || type == "swap") return false;
  if (type == "nfs") {
    TRACE(3, "\nget_mount_table(): Mountpoint '%s' of type 'nfs' was ignored.", mount.mnt_dir);
    return false;
  }
  if (type == "nfs4") {
    TRACE(3, "\nget_mount_table(): Mountpoint '%s' of type 'nfs4' was ignored.", mount.mnt_dir);
    return false;
  }
  if ((flags & kConfiguredList) != 0 && ::hasmntopt(&mount, "noauto") != nullptr) return false;
  if (*mount.mnt_dir == '\0') return false;
  return (flags & kOnlyNewMountPoints) == 0 || !IsInTable(mount.mnt_dir);
}

bool AddMountEntry(const mntent& mount, unsigned int flags) {
  EntryOwner owner = MakeEntry(mount.mnt_fsname, mount.mnt_dir, mount.mnt_type);
  if (!owner) {
    TRACE(2, "\nmallocfailure");
    return false;
  }
  owner->mounted = flags & kMountedList;
  owner->source = flags & kSourceMask;
  mount_entry& entry = Insert(std::move(owner));
  if (entry.mounted != 0) set_fs_sizes(entry);
  TRACE(2, "\nadd_mount_entry: dev '%s' fs '%s' mounted %d flag 0x%x]", entry.device, entry.mount_point,
        static_cast<int>(entry.mounted), entry.source);
  return true;
}

// ---- VMFS

bool AddVmfsEntry(const char* directory, const std::string& name) {
  EntryOwner owner = MakeEntry("", std::string(directory) + "/" + name, "vmfs");
  if (!owner) {
    TRACE(2, "\nmallocfailure");
    return false;
  }
  owner->mounted = 1;
  owner->source = kVmfsList;
  mount_entry& entry = Insert(std::move(owner));
  get_vmfs_data(&entry, name.c_str());
  TRACE(2, "\nadd_vmfs_entry['%s' %s %d 0x%x]", entry.mount_point, entry.type, static_cast<int>(entry.mounted),
        entry.source);
  return true;
}

int ReadVmfsList(const char* directory) {
  std::vector<std::string> names;
  if (!list_vmfs_names(directory, names)) return -1;
  RemoveSource(kVmfsList);
  return static_cast<int>(
      std::ranges::count_if(names, [directory](const std::string& name) { return AddVmfsEntry(directory, name); }));
}

// ---- when to read

bool GetModificationTime(const char* path, time_t& time) {
  struct stat info {};
  if (::stat(path, &info) != 0) return false;
  time = info.st_mtime;
  return true;
}

bool IsKernelList(const char* path) {
  struct statfs info {};
  return ::statfs(path, &info) == 0 && info.f_type == PROC_SUPER_MAGIC;
}

bool IsOldEnough(time_t lastSeen, time_t now) {
  return lastSeen < now - kMinimumAge;
}

// The time of the mounted list when it is due for reading.
bool IsMountedListDue(time_t now, time_t& time) {
  State& table = Table();
  if (!IsOldEnough(table.mountedTime, now) || !GetModificationTime(kMtab, time)) return false;
  if (!IsKernelList(kMtab)) return time > table.mountedTime;
  time = now;
  return table.kernelList.HasChanged();
}

void ReadMountedList(time_t time) {
  State& table = Table();
  const int added = get_mount_table(kMtab, kMountedList);
  if (added < 0) return;
  table.count = added;
  table.mountedTime = time;
  table.kernelList.SetRead();
}

void ReadConfiguredList(time_t time) {
  if (get_mount_table(kFstab, kConfiguredList | kOnlyNewMountPoints) >= 0) Table().configuredTime = time;
}

}  // namespace

int get_MountedFileSystems() {
  State& table = Table();
  table.reportedCount = build_fs_table();
  TRACE(2, "\nget_MountedFileSystems/Count=%d", table.reportedCount);
  return table.reportedCount;
}

int build_fs_table() {
  return build_fs_table(std::time(nullptr));
}

int build_fs_table(time_t now) {
  State& table = Table();
  time_t time = 0;
  if (IsMountedListDue(now, time)) {
    ReadMountedList(time);
    // Always together with the mounted list, which decides what of it is listed.
    time_t configuredTime = table.configuredTime;
    GetModificationTime(kFstab, configuredTime);
    ReadConfiguredList(configuredTime);
  } else if (IsOldEnough(table.configuredTime, now) && GetModificationTime(kFstab, time) &&
             time > table.configuredTime) {
    ReadConfiguredList(time);
  }
  if (IsOldEnough(table.mountedTime, now) && GetModificationTime(kVmfs, time) && time > table.vmfsTime) {
    const int added = get_mount_table(kVmfs, kVmfsList);
    if (added >= 0) {
      table.count += added;
      table.vmfsTime = time;
    }
  }
  return table.count;
}

int get_mount_table(const char* file, unsigned int flags) {
  if ((flags & kSourceMask) == kVmfsList) return ReadVmfsList(file);
  TRACE(2, "\nget_mount_table[%s]", file);
  const std::unique_ptr<FILE, CloseTable> table(::setmntent(file, "re"));
  if (!table) {
    TRACE(2, "\nopen mount tablefailure");
    return -1;
  }
  return read_mount_table(table.get(), flags);
}

int read_mount_table(FILE* table, unsigned int flags) {
  RemoveSource(flags & kSourceMask);
  std::vector<char> line(kMountLineSize);
  mntent mount{};
  int added = 0;
  const bool isMountedList = (flags & kMountedList) != 0;
  if (isMountedList) forget_mounts();
  while (::getmntent_r(table, &mount, line.data(), static_cast<int>(line.size())) != nullptr) {
    if (isMountedList) note_mount(mount.mnt_dir, mount.mnt_type);
    if (IsWanted(mount, flags) && AddMountEntry(mount, flags)) ++added;
  }
  return added;
}

mount_entry* get_fs_table(int index) {
  if (index < 0) return nullptr;
  mount_entry* entry = Table().head;
  for (; entry != nullptr && index > 0; --index) {
    entry = entry->next;
  }
  if (entry == nullptr) return nullptr;
  if (entry->source == kVmfsList) {
    get_vmfs_data(entry, entry->mount_point);
  } else if (entry->mounted != 0) {
    refresh_fs_sizes(*entry);
  }
  return entry;
}
