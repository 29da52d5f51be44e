#include "inventory/mount_table.h"

#include <fcntl.h>
#include <linux/magic.h>
#include <mntent.h>
#include <poll.h>
#include <sys/stat.h>
#include <sys/statfs.h>
#include <sys/statvfs.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <limits>
#include <memory>
#include <new>
#include <string>
#include <vector>

#include "platform/unique_fd.h"
#include "trace/debug.h"

namespace {

constexpr const char* kMtab = "/etc/mtab";
constexpr const char* kFstab = "/etc/fstab";
constexpr const char* kVmfs = "/vmfs";
constexpr const char* kVmkfstools = "/usr/sbin/vmkfstools";

constexpr time_t kMinimumAge = 60;  // seconds
constexpr unsigned int kSourceMask = 0xF;

// A mount point of PATH_MAX characters may come with four characters for each.
constexpr size_t kMountLineSize = 65536;
constexpr size_t kMaxOutput = 65536;  // bytes of a tool's output that are looked at

struct TypeFlagRow {
  std::string_view type;
  uint32_t flags;
};

// The first hit counts.
constexpr auto kTypeFlagRows = std::to_array<TypeFlagRow>({
    {"ext", 0},        {"ext2", 0x4000}, {"minix", 0},      {"xiafs", 0x8000},    {"hpfs", 0x10},
    {"msdos", 1},      {"umsdos", 1},    {"vfat", 1},       {"proc", 0},          {"nfs", 4},
    {"iso9660", 0x40}, {"smbfs", 0},     {"ncpfs", 0},      {"affs", 0},          {"ufs", 0x200},
    {"romfs", 0x2000}, {"sysv", 0x1000}, {"xenix", 0x1000}, {"coherent", 0x1000}, {"ntfs", 0x20},
});

struct VolumeTypeRow {
  std::string_view type;
  int code;
};

constexpr auto kVolumeTypeRows = std::to_array<VolumeTypeRow>({
    {"adfs", 2},    {"affs", 0},     {"autofs", 0},  {"btrfs", 2}, {"cifs", 0},     {"coda", 0},  {"coherent", 2},
    {"cramfs", 16}, {"debugfs", 0},  {"devpts", 0},  {"efs", 2},   {"ext", 2},      {"ext2", 2},  {"ext3", 2},
    {"ext4", 2},    {"hfs", 2},      {"hfsplus", 2}, {"hpfs", 2},  {"iso9660", 8},  {"jfs", 2},   {"minix", 2},
    {"msdos", 1},   {"ncpfs", 2},    {"nfs", 4},     {"nfs4", 4},  {"ntfs", 2},     {"qnx4", 2},  {"ramfs", 16},
    {"reiser4", 2}, {"reiserfs", 2}, {"romfs", 0},   {"smbfs", 4}, {"squashfs", 0}, {"sysv", 2},  {"ubifs", 0},
    {"udf", 8},     {"ufs", 2},      {"umsdos", 0},  {"usbfs", 0}, {"vfat", 2},     {"xenix", 2}, {"xfs", 2},
});
static_assert(kVolumeTypeRows.size() == 42 && std::ranges::is_sorted(kVolumeTypeRows, {}, &VolumeTypeRow::type));

constexpr size_t kVolumeTypeLength = 16;  // characters of a type that are looked at

__extension__ typedef unsigned __int128 Wide;  // a block count times a block size

struct FreeBlock {
  void operator()(mount_entry* entry) const { std::free(entry); }
};
using EntryOwner = std::unique_ptr<mount_entry, FreeBlock>;

struct CloseTable {
  void operator()(FILE* table) const { ::endmntent(table); }
};
struct ClosePipe {
  void operator()(FILE* pipe) const { ::pclose(pipe); }
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

uint32_t FlagsOfType(std::string_view type) {
  const auto row = std::ranges::find(kTypeFlagRows, type, &TypeFlagRow::type);
  return row == kTypeFlagRows.end() ? 0 : row->flags;
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
  entry->type_flags = FlagsOfType(type);
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

// ---- size figures

uint64_t ToKiB(uint64_t count, uint64_t unit) {
  const Wide size = unit % 1024 == 0 ? Wide{count} * (unit / 1024) : Wide{count} * unit / 1024;
  return static_cast<uint64_t>(std::min(size, Wide{std::numeric_limits<uint64_t>::max()}));
}

uint32_t UsedPercent(uint64_t blocks, uint64_t available) {
  if (blocks == 0) return 100;
  if (available >= blocks) return 0;
  return static_cast<uint32_t>(Wide{blocks - available} * 100 / blocks);
}

void SetTotals(mount_entry& entry, const struct statvfs& info) {
  entry.blocks = info.f_blocks;
  entry.size = ToKiB(info.f_blocks, info.f_frsize);
  entry.block_size = static_cast<uint32_t>(info.f_bsize / 512);
}

void SetUsage(mount_entry& entry, const struct statvfs& info) {
  entry.available_blocks = info.f_bavail;
  entry.available = ToKiB(info.f_bavail, info.f_frsize);
  entry.used_percent = UsedPercent(info.f_blocks, info.f_bavail);
}

void SetNothingAvailable(mount_entry& entry) {
  entry.used_percent = 100;
  entry.available = 0;
  entry.available_blocks = 0;
}

void SetSizes(mount_entry& entry) {
  struct statvfs info {};
  if (::statvfs(entry.mount_point, &info) != 0) {
    SetNothingAvailable(entry);
    return;
  }
  TRACE(3, "\nadd_mount_entry: fs '%s' f_blocks %lld f_frsize %ld f_bsize %ld f_bfree %lld f_bavail %lld",
        entry.mount_point, static_cast<long long>(info.f_blocks), static_cast<long>(info.f_frsize),
        static_cast<long>(info.f_bsize), static_cast<long long>(info.f_bfree), static_cast<long long>(info.f_bavail));
  SetTotals(entry, info);
  SetUsage(entry, info);
}

void RefreshSizes(mount_entry& entry) {
  struct statvfs info {};
  if (::statvfs(entry.mount_point, &info) != 0) {
    SetNothingAvailable(entry);
    return;
  }
  TRACE(3, "\nget_fs_table: fs '%s' f_blocks %lld f_frsize %ld f_bsize %ld f_bfree %lld f_bavail %lld\n",
        entry.mount_point, static_cast<long long>(info.f_blocks), static_cast<long>(info.f_frsize),
        static_cast<long>(info.f_bsize), static_cast<long long>(info.f_bfree), static_cast<long long>(info.f_bavail));
  if (std::string_view(entry.device).starts_with("/dev/")) SetTotals(entry, info);
  SetUsage(entry, info);
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
  if (entry.mounted != 0) SetSizes(entry);
  TRACE(2, "\nadd_mount_entry: dev '%s' fs '%s' mounted %d flag 0x%x]", entry.device, entry.mount_point,
        static_cast<int>(entry.mounted), entry.source);
  return true;
}

// ---- VMFS

bool ListVmfsNames(const char* directory, std::vector<std::string>& names) {
  std::error_code error;
  std::filesystem::directory_iterator entry(directory, error);
  for (; !error && entry != std::filesystem::directory_iterator(); entry.increment(error)) {
    std::string name = entry->path().filename().string();
    if (name.find(':') != std::string::npos) names.push_back(std::move(name));
  }
  std::ranges::sort(names);
  return !error;
}

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
  if (!ListVmfsNames(directory, names)) return -1;
  RemoveSource(kVmfsList);
  return static_cast<int>(
      std::ranges::count_if(names, [directory](const std::string& name) { return AddVmfsEntry(directory, name); }));
}

// The name comes from a directory and goes to a shell of root.
bool IsPlainShellWord(std::string_view text) {
  constexpr std::string_view kPlain = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789/._:-+@,=%";
  return !text.empty() && text.front() != '-' && text.find_first_not_of(kPlain) == std::string_view::npos;
}

std::string ReadOutput(FILE* pipe) {
  std::string output;
  std::array<char, 512> part{};
  while (output.size() < kMaxOutput) {
    const size_t size = std::fread(part.data(), 1, part.size(), pipe);
    if (size == 0) break;
    output.append(part.data(), size);
  }
  return output;
}

// Ties go to the even neighbour; what no unsigned number can hold goes to the nearest one that it can.
uint64_t Round(double value) {
  const double rounded = std::nearbyint(value);
  if (!(rounded > 0)) return 0;
  if (rounded >= std::ldexp(1.0, 64)) return std::numeric_limits<uint64_t>::max();
  return static_cast<uint64_t>(rounded);
}

void SetVmfsSizes(mount_entry& entry, const vmfs_usage& usage) {
  entry.blocks = static_cast<uint64_t>(std::max(usage.blocks, 0));
  entry.available_blocks = static_cast<uint64_t>(std::max(usage.available_blocks, 0));
  entry.block_size = static_cast<uint32_t>(std::max(usage.block_size, 0) / 512);
  entry.size = Round(usage.capacity / 1024);
  entry.available = Round(usage.available / 1024);
  const double usedPercent = (usage.capacity - usage.available) * 100 / usage.capacity;
  entry.used_percent = static_cast<uint32_t>(std::min<uint64_t>(Round(usedPercent), 100));
  TRACE(3, "\nget_vmfs_data[%d %d %d %d %d %d]", static_cast<int>(entry.size), static_cast<int>(entry.blocks),
        static_cast<int>(entry.block_size), static_cast<int>(entry.available_blocks), static_cast<int>(entry.available),
        static_cast<int>(entry.used_percent));
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
  while (::getmntent_r(table, &mount, line.data(), static_cast<int>(line.size())) != nullptr) {
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
    RefreshSizes(*entry);
  }
  return entry;
}

void get_vmfs_data(mount_entry* entry, const char* volume) {
  const std::string command = std::string(kVmkfstools) + " -l " + volume;
  TRACE(2, "\nget_vmfs_data: cmd '%s'", command.c_str());
  std::unique_ptr<FILE, ClosePipe> pipe(IsPlainShellWord(volume) ? ::popen(command.c_str(), "re") : nullptr);
  if (!pipe) {
    TRACE(3, "\nget_vmfs_data: popen '%s' failed", command.c_str());
    return;
  }
  vmfs_usage usage;
  const int items = parse_vmfs_usage(ReadOutput(pipe.get()), usage);
  if (items == 5) SetVmfsSizes(*entry, usage);
  pipe.reset();
  TRACE(2, "\nget_vmfs_data[%d items found]", items);
}

int parse_vmfs_usage(std::string_view output, vmfs_usage& usage) {
  constexpr std::string_view kLineEnds = "\f\n\r\v";
  while (!output.empty()) {
    const std::string line(output.substr(0, output.find_first_of(kLineEnds)));
    output.remove_prefix(std::min(line.size() + 1, output.size()));
    vmfs_usage found;
    const int items =
        std::sscanf(line.c_str(), "Capacity %lf (%d file blocks * %d), %lf (%d blocks) \n", &found.capacity,
                    &found.blocks, &found.block_size, &found.available, &found.available_blocks);
    if (items != 5 || !(found.capacity > 0)) continue;
    usage = found;
    return items;
  }
  return -1;
}

int get_fs_voltype(const char* type) {
  if (type == nullptr) return 0;
  const std::string_view name = std::string_view(type).substr(0, kVolumeTypeLength);
  const auto row = std::ranges::lower_bound(kVolumeTypeRows, name, {}, &VolumeTypeRow::type);
  return row != kVolumeTypeRows.end() && row->type == name ? row->code : 0;
}
