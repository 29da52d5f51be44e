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
#include <iterator>
#include <memory>
#include <new>
#include <string>
#include <string_view>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "inventory/fs_sizes.h"
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

// What an automounter answers, which nobody asks: the question alone could make it mount.
constexpr std::string_view kAutofs = "autofs";
constexpr fs_info kAutofsInfo = {kAnswered, 0, 0, 0, 4096, 4096};

struct FreeBlock {
  void operator()(mount_entry* entry) const { std::free(entry); }
};
using EntryOwner = std::unique_ptr<mount_entry, FreeBlock>;

struct Row {
  EntryOwner entry;
  fs_info info = {};  // the last answer
};

struct CloseTable {
  void operator()(FILE* table) const { ::endmntent(table); }
};

// The kernel's list of mounts, kept open to hear of changes: no modification time tells them, and the time of day may
// be set back.
class KernelMountList {
 public:
  // True as well for the first look.
  bool IsDue(time_t uptime) {
    if (!m_List) {
      m_List.Reset(::open(kMtab, O_RDONLY | O_CLOEXEC));
      m_Changed = true;
    } else if (uptime - m_ReadAt <= kMinimumAge) {
      return false;
    }
    pollfd changes{m_List.Get(), POLLPRI, 0};
    if (::poll(&changes, 1, 0) > 0 && (changes.revents & (POLLERR | POLLPRI)) != 0) m_Changed = true;
    return m_Changed;
  }
  void SetRead(time_t uptime) {
    m_Changed = false;
    m_ReadAt = uptime;
  }

 private:
  UniqueFd m_List;
  bool m_Changed = false;
  time_t m_ReadAt = 0;
};

struct State {
  std::vector<Row> rows;   // in their order
  bool isFresh = false;    // the mounted ones were asked since get_MountedFileSystems began
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

// ---- the rows

EntryOwner MakeEntry(std::string_view device, std::string_view mountPoint, std::string_view type, uint32_t source) {
  const size_t size = sizeof(mount_entry) + device.size() + mountPoint.size() + type.size() + 3;
  void* block = std::calloc(1, size);
  if (block == nullptr) {
    TRACE(2, "\nmallocfailure");
    return nullptr;
  }
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
  entry->source = source;
  entry->mounted = source == kConfiguredList ? 0 : 1;
  return entry;
}

bool StandsBefore(const Row& row, const Row& other) {
  if (row.entry->source != other.entry->source) return row.entry->source < other.entry->source;
  return std::strcmp(row.entry->mount_point, other.entry->mount_point) < 0;
}

// Of equal ones the mount that came later comes later.
void ReplaceSource(uint32_t source, std::vector<Row>& added) {
  std::vector<Row>& rows = Table().rows;
  rows.reserve(rows.size() + added.size());
  std::erase_if(rows, [source](const Row& row) { return row.entry->source == source; });
  std::ranges::move(added, std::back_inserter(rows));
  std::ranges::stable_sort(rows, StandsBefore);
  mount_entry* next = nullptr;
  for (auto row = rows.rbegin(); row != rows.rend(); ++row) {
    row->entry->next = next;
    next = row->entry.get();
  }
}

// The figures that are known of the same mount, for one that did not answer.
void TakeFigures(mount_entry& entry, const mount_entry& known) {
  entry.blocks = known.blocks;
  entry.available_blocks = known.available_blocks;
  entry.size = known.size;
  entry.block_size = known.block_size;
  entry.available = known.available;
  entry.used_percent = known.used_percent;
}

void TakeKnownFigures(std::vector<Row>& added) {
  for (Row& row : added) {
    if (row.info.answer == kAnswered || row.info.answer == kRefused) continue;
    const std::vector<Row>& rows = Table().rows;
    const auto [first, end] = std::equal_range(rows.begin(), rows.end(), row, StandsBefore);
    const auto known = std::find_if(first, end, [&row](const Row& each) {
      return std::strcmp(each.entry->device, row.entry->device) == 0 &&
             std::strcmp(each.entry->type, row.entry->type) == 0;
    });
    if (known != end) TakeFigures(*row.entry, *known->entry);
  }
}

// Asks what is mounted, each place once: of several file systems there it is the last one that answers.
void Ask(std::span<Row> rows, const std::atomic<bool>* stop) {
  std::vector<fs_question> questions;
  std::unordered_map<std::string_view, size_t> places;
  questions.reserve(rows.size());
  places.reserve(rows.size());
  const auto isAsked = [](const Row& row) { return row.entry->source == kMountedList && row.entry->type != kAutofs; };
  for (Row& row : rows) {
    if (!isAsked(row)) continue;
    const auto [place, isNew] = places.try_emplace(row.entry->mount_point, questions.size());
    if (isNew) questions.push_back({row.entry->mount_point, {}, {}});
    questions[place->second].server = get_fs_server(row.entry->device, row.entry->type);
  }
  ask_fs_infos(questions, stop);
  for (Row& row : rows)
    row.info = isAsked(row) ? questions[places.at(row.entry->mount_point)].info : kAutofsInfo;
}

// ---- mounted and configured list

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
  return *mount.mnt_dir != '\0';
}

std::vector<Row> ReadRows(FILE* table, unsigned int flags) {
  const uint32_t source = flags & kSourceMask;
  const bool onlyNew = (flags & kOnlyNewMountPoints) != 0;
  std::unordered_set<std::string_view> taken;
  for (const Row& row : Table().rows)
    if (onlyNew && row.entry->source != source) taken.insert(row.entry->mount_point);
  std::vector<Row> added;
  std::vector<char> line(kMountLineSize);
  mntent mount{};
  while (::getmntent_r(table, &mount, line.data(), static_cast<int>(line.size())) != nullptr) {
    if (!IsWanted(mount, flags) || taken.contains(mount.mnt_dir)) continue;
    EntryOwner entry = MakeEntry(mount.mnt_fsname, mount.mnt_dir, mount.mnt_type, source);
    if (!entry) continue;
    if (onlyNew) taken.insert(entry->mount_point);
    added.push_back({std::move(entry)});
  }
  return added;
}

int ReadTable(FILE* table, unsigned int flags, const std::atomic<bool>* stop) {
  const uint32_t source = flags & kSourceMask;
  std::vector<Row> added = ReadRows(table, flags);
  if (source == kMountedList) {
    Ask(added, stop);
    TakeKnownFigures(added);
    Table().isFresh = true;
  }
  for (Row& row : added) {
    mount_entry& entry = *row.entry;
    if (source == kMountedList) set_fs_sizes(entry, row.info, true);
    TRACE(2, "\nadd_mount_entry: dev '%s' fs '%s' mounted %d flag 0x%x]", entry.device, entry.mount_point,
          static_cast<int>(entry.mounted), entry.source);
  }
  const int count = static_cast<int>(added.size());
  ReplaceSource(source, added);
  return count;
}

int ReadFile(const char* file, unsigned int flags, const std::atomic<bool>* stop) {
  TRACE(2, "\nget_mount_table[%s]", file);
  const std::unique_ptr<FILE, CloseTable> table(::setmntent(file, "re"));
  if (table) return ReadTable(table.get(), flags, stop);
  TRACE(2, "\nopen mount tablefailure");
  return -1;
}

// ---- VMFS

int ReadVmfsList(const char* directory) {
  std::vector<std::string> names;
  if (!list_vmfs_names(directory, names)) return -1;
  std::vector<Row> added;
  for (const std::string& name : names) {
    EntryOwner owner = MakeEntry("", std::string(directory) + "/" + name, "vmfs", kVmfsList);
    if (!owner) continue;
    mount_entry& entry = *added.emplace_back(Row{std::move(owner)}).entry;
    get_vmfs_data(&entry, name.c_str());
    TRACE(2, "\nadd_vmfs_entry['%s' %s %d 0x%x]", entry.mount_point, entry.type, static_cast<int>(entry.mounted),
          entry.source);
  }
  const int count = static_cast<int>(added.size());
  ReplaceSource(kVmfsList, added);
  return count;
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

// A time that is still to come was seen before the clock was set back.
bool IsOldEnough(time_t lastSeen, time_t now) {
  return lastSeen < now - kMinimumAge || lastSeen > now;
}

bool IsDue(const char* path, time_t lastSeen, time_t now, time_t& time) {
  return IsOldEnough(lastSeen, now) && GetModificationTime(path, time) &&
         (lastSeen > now ? time != lastSeen : time > lastSeen);
}

bool IsMountedListDue(time_t now, time_t uptime, time_t& time) {
  State& table = Table();
  if (!IsKernelList(kMtab)) return IsDue(kMtab, table.mountedTime, now, time);
  time = now;
  return table.kernelList.IsDue(uptime);
}

void ReadMountedList(time_t time, time_t uptime, const std::atomic<bool>* stop) {
  State& table = Table();
  const int added = ReadFile(kMtab, kMountedList, stop);
  if (added < 0) return;
  table.count = added;
  table.mountedTime = time;
  table.kernelList.SetRead(uptime);
}

void ReadConfiguredList(time_t time) {
  if (ReadFile(kFstab, kConfiguredList | kOnlyNewMountPoints, nullptr) >= 0) Table().configuredTime = time;
}

void BringUpToDate(Row& row) {
  if (row.entry->source == kVmfsList) get_vmfs_data(row.entry.get(), row.entry->mount_point);
  if (row.entry->source == kMountedList) set_fs_sizes(*row.entry, row.info, false);
}

time_t Uptime() {
  timespec time{};
  ::clock_gettime(CLOCK_MONOTONIC, &time);
  return time.tv_sec;
}

}  // namespace

int get_MountedFileSystems(const std::atomic<bool>* stop) {
  State& table = Table();
  table.isFresh = false;
  table.reportedCount = build_fs_table(std::time(nullptr), Uptime(), stop);
  TRACE(2, "\nget_MountedFileSystems/Count=%d", table.reportedCount);
  return table.reportedCount;
}

int build_fs_table() {
  return build_fs_table(std::time(nullptr), Uptime());
}

int build_fs_table(time_t now, time_t uptime, const std::atomic<bool>* stop) {
  State& table = Table();
  time_t time = 0;
  if (IsMountedListDue(now, uptime, time)) {
    ReadMountedList(time, uptime, stop);
    // Always together with the mounted list, which decides what of it is listed.
    time_t configuredTime = table.configuredTime;
    GetModificationTime(kFstab, configuredTime);
    ReadConfiguredList(configuredTime);
  } else if (IsDue(kFstab, table.configuredTime, now, time)) {
    ReadConfiguredList(time);
  }
  if (IsOldEnough(table.mountedTime, now) && GetModificationTime(kVmfs, time) && time > table.vmfsTime) {
    const int added = ReadVmfsList(kVmfs);
    if (added >= 0) {
      table.count += added;
      table.vmfsTime = time;
    }
  }
  return table.count;
}

int get_mount_table(const char* file, unsigned int flags) {
  return (flags & kSourceMask) == kVmfsList ? ReadVmfsList(file) : ReadFile(file, flags, nullptr);
}

int read_mount_table(FILE* table, unsigned int flags) {
  return ReadTable(table, flags, nullptr);
}

mount_entry* get_fs_table(int index) {
  std::vector<Row>& rows = Table().rows;
  if (index < 0 || static_cast<size_t>(index) >= rows.size()) return nullptr;
  Row& row = rows[static_cast<size_t>(index)];
  Ask({&row, 1}, nullptr);
  BringUpToDate(row);
  return row.entry.get();
}

const mount_entry* measure_fs_table(int count, const std::atomic<bool>* stop) {
  State& table = Table();
  const std::span<Row> rows(table.rows.data(), std::min(table.rows.size(), static_cast<size_t>(std::max(count, 0))));
  if (!table.isFresh) Ask(rows, stop);
  std::ranges::for_each(rows, BringUpToDate);
  return rows.empty() ? nullptr : rows.front().entry.get();
}
