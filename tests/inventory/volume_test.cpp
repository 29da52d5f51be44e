#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <fstream>
#include <map>
#include <sstream>

#include "inventory/fs_type.h"
#include "inventory/mount_table.h"
#include "inventory/system_volume.h"
#include "inventory/vmfs_volume.h"
#include "support/fixture_root.h"
#include "support/trace_capture.h"

namespace {

std::map<std::string, struct statvfs> g_FileSystems;  // answers in place of the system's
std::vector<std::string> g_Asked;

}  // namespace

// The code under test asks here for sizes; what the test did not set up comes from the system.
extern "C" int statvfs(const char* path, struct statvfs* info) noexcept {
  g_Asked.emplace_back(path);
  if (const auto found = g_FileSystems.find(path); found != g_FileSystems.end()) {
    *info = found->second;
    return 0;
  }
  const int fd = ::open(path, O_PATH | O_CLOEXEC);
  const int result = ::fstatvfs(fd, info);
  if (fd >= 0) ::close(fd);
  return result;
}

namespace {

struct statvfs Sizes(unsigned long bsize, unsigned long frsize, fsblkcnt_t blocks, fsblkcnt_t available) {
  struct statvfs info {};
  info.f_bsize = bsize;
  info.f_frsize = frsize;
  info.f_blocks = blocks;
  info.f_bavail = available;
  return info;
}

void WriteAged(const std::string& path, const char* text, time_t modified) {
  std::ofstream(path) << text;
  const timespec times[2] = {{modified, 0}, {modified, 0}};
  ASSERT_EQ(::utimensat(AT_FDCWD, path.c_str(), times, 0), 0);
}

// The whole table, one "source device mount-point" per entry.
std::vector<std::string> Table() {
  std::vector<std::string> table;
  for (int index = 0; const mount_entry* entry = get_fs_table(index); ++index) {
    table.push_back(std::to_string(entry->source) + " " + entry->device + " " + entry->mount_point);
    EXPECT_EQ(entry->mount_point_length, std::strlen(entry->mount_point));
  }
  return table;
}

constexpr const char* kMtab =
    "/dev/sda2 /var ext4 rw 0 0\nproc /proc proc rw 0 0\nserver:/x /dead nfs rw 0 0\nserver:/y /dead4 nfs4 rw 0 0\n"
    "/dev/sda1 / ext2 rw 0 0\ntmpfs /run tmpfs rw 0 0\nnone /run tmpfs rw 0 0\n/dev/sdb1 /data\\040disk xfs rw 0 0\n"
    "/dev/sda3 none swap sw 0 0\nx /y ignore rw 0 0\nlonely\n//nas/share /gone cifs rw 0 0\n";
constexpr const char* kFstab =
    "# configured\n/dev/sda1 / ext2 defaults 0 1\n/dev/sdd1 /backup ext3 defaults 0 0\n/dev/cdrom /media iso9660 "
    "ro,noauto 0 0\nserver:/x /other nfs defaults 0 0\n/dev/sde1 /archive ntfs defaults 0 0";

using MountTable = RootedTest;

TEST_F(MountTable, SourcesAreMergedSortedAndMeasured) {
  root.WriteFile("/etc/mtab", kMtab);
  root.WriteFile("/etc/fstab", kFstab);
  RunTraced(root, 3, [](TraceCapture& trace) {
    g_FileSystems = {{"/", Sizes(4096, 4096, 1000, 250)},
                     {"/var", Sizes(4096, 512, uint64_t{1} << 62, uint64_t{1} << 61)},
                     {"/data disk", Sizes(65536, 1536, 3, 1)},
                     {"/proc", Sizes(4096, 4096, 0, 0)},
                     {"/run", Sizes(4096, 4096, 10, 99)}};
    std::vector<CSystemVolume> volumes;
    CSystemVolume::ScanSystemVolumes(volumes);
    EXPECT_EQ(Table(), (std::vector<std::string>{"1 /dev/sda1 /", "1 /dev/sdb1 /data disk", "1 //nas/share /gone",
                                                 "1 proc /proc", "1 tmpfs /run", "1 none /run", "1 /dev/sda2 /var",
                                                 "2 /dev/sde1 /archive", "2 /dev/sdd1 /backup"}));
    for (const char* path : {"/dead", "/dead4", "/other", "/backup", "/archive", "/y"})
      EXPECT_EQ(std::count(g_Asked.begin(), g_Asked.end(), path), 0) << path;
    EXPECT_EQ(get_fs_table(4)->used_percent, 0U);

    std::ostringstream found;
    for (const CSystemVolume& volume : volumes) {
      found << volume.MountPoints.at(0) << '|' << volume.Type << '|' << volume.VolumeType << '|' << volume.TypeFlags
            << '|' << volume.Blocks << ' ' << volume.AvailableBlocks << ' ' << volume.Size << ' ' << volume.BlockSize
            << ' ' << volume.Available << ' ' << volume.UsedPercent << '\n';
    }
    EXPECT_EQ(found.str(),
              "/|ext2|2|16384|1000 250 4000 8 1000 75\n"
              "/data disk|xfs|2|0|3 1 4 128 1 66\n"
              "/gone|cifs|0|0|0 0 0 0 0 100\n"
              "/proc|proc|0|0|0 0 0 8 0 100\n"
              "/var|ext4|2|0|4611686018427387904 2305843009213693952 2305843009213693952 8 1152921504606846976 50\n");
    EXPECT_TRUE(trace.Has("get_mount_table(): Mountpoint '/dead4' of type 'nfs4' was ignored."));
    EXPECT_TRUE(trace.Has("add_mount_entry: dev '/dev/sdd1' fs '/backup' mounted 0 flag 0x2]"));

    // Totals follow only for devices of /dev; the usage always does.
    g_FileSystems["/"] = Sizes(4096, 4096, 2000, 500);
    g_FileSystems["/run"] = Sizes(4096, 4096, 20, 5);
    EXPECT_EQ(get_fs_table(0)->size, 8000U);
    EXPECT_EQ(get_fs_table(4)->blocks, 10U);
    EXPECT_EQ(get_fs_table(4)->used_percent, 75U);
  });
}

TEST_F(MountTable, SourcesAreReadAgainOnlyWhenChangedAndOld) {
  root.MakeDirectory("/etc");
  root.Run([] {
    WriteAged("/etc/mtab", "/dev/a /a ext4 rw 0 0\n", 1000);
    constexpr const char* kTwo = "/dev/a /a ext4 rw 0 0\n/dev/b /b ext4 rw 0 0\n";
    EXPECT_EQ(build_fs_table(2000), 1);
    WriteAged("/etc/mtab", kTwo, 1000);
    EXPECT_EQ(build_fs_table(3000), 1);  // not newer
    WriteAged("/etc/mtab", kTwo, 1010);
    EXPECT_EQ(build_fs_table(1060), 1);  // too early
    EXPECT_EQ(build_fs_table(1061), 2);
    WriteAged("/etc/fstab", "/dev/b /b ext4 rw 0 0\n/dev/c /c ext4 rw 0 0\n", 1011);
    EXPECT_EQ(build_fs_table(1062), 2);
    EXPECT_EQ(Table(), (std::vector<std::string>{"1 /dev/a /a", "1 /dev/b /b", "2 /dev/c /c"}));
    ::unlink("/etc/mtab");
    EXPECT_EQ(get_mount_table("/etc/mtab", 1), -1);
    EXPECT_EQ(build_fs_table(9000), 2);
    EXPECT_EQ(Table().size(), 3U);
  });
}

TEST_F(MountTable, KernelListIsFollowedBehindALink) {
  root.MakeLink("/etc/mtab", "/proc/self/mounts");
  root.MakeDirectory("/added");
  root.Run(
      [] {
        const time_t now = std::time(nullptr);
        const int before = build_fs_table(now);
        ASSERT_EQ(::mount("none", "/added", "tmpfs", 0, nullptr), 0);
        EXPECT_EQ(build_fs_table(now + 60), before);
        EXPECT_EQ(build_fs_table(now + 61), before + 1);
        ASSERT_EQ(::umount("/added"), 0);
        EXPECT_EQ(build_fs_table(now + 122), before);
        g_Asked.clear();
        EXPECT_EQ(build_fs_table(now + 999), before);
        EXPECT_TRUE(g_Asked.empty());
      },
      FixtureRoot::kProc);
}

TEST_F(MountTable, VmfsVolumesAreMeasuredByTheirTool) {
  root.WriteFile("/etc/mtab", "/dev/a /a ext4 rw 0 0\n");
  root.MakeDirectory("/vmfs/vmhba1:0:0:1");
  root.MakeDirectory("/vmfs/a:b; touch owned");
  root.MakeDirectory("/vmfs/volumes");
  root.WriteFile("/tools/vmkfstools",
                 "#!/bin/sh\necho noise\necho \"Capacity 5120.000000 (10 file blocks * 1048576), 2560.0 (5 blocks)\"\n",
                 0755);
  RunTraced(
      root, 3,
      [](TraceCapture& trace) {
        const time_t now = std::time(nullptr);
        EXPECT_EQ(build_fs_table(now), 1);  // the mounted list is too young
        EXPECT_EQ(build_fs_table(now + 99), 3);
        EXPECT_EQ(get_fs_table(2)->size, 0U);  // no tool
        ASSERT_EQ(::mount("/tools", "/usr/sbin", nullptr, MS_BIND, nullptr), 0);
        const mount_entry* entry = get_fs_table(2);
        EXPECT_STREQ(entry->mount_point, "/vmfs/vmhba1:0:0:1");
        EXPECT_TRUE(entry->size == 5 && entry->available == 2);  // 2.5 goes to 2
        EXPECT_TRUE(trace.Has("get_vmfs_data[5 10 2048 5 2 50]"));
        EXPECT_TRUE(trace.Has("get_vmfs_data[-1 items found]"));
        EXPECT_NE(::access("owned", F_OK), 0);
      },
      FixtureRoot::kUsr);
}

TEST_F(MountTable, ToolOutputAndTypesAreLookedUpByTheirTables) {
  const std::pair<const char*, double> outputs[] = {
      {"\n\nCapacity\n", 0},
      {"Capacity nan (1 file blocks * 2), 3 (4 blocks)", 0},
      {"Capacity 9 (1 file blocks * 2), 3\n (4 blocks)", 0},
      {"Capacity 0 (1\rCapacity 9 (1 file blocks * 2), 3 (4 blocks)", 9},
  };
  for (const auto& [output, capacity] : outputs) {
    vmfs_usage usage;
    EXPECT_EQ(parse_vmfs_usage(output, usage), capacity > 0 ? 5 : -1) << output;
    EXPECT_EQ(usage.capacity, capacity) << output;
  }
  const std::pair<const char*, int> types[] = {{"adfs", 2},   {"xfs", 2},    {"msdos", 1}, {"smbfs", 4}, {"udf", 8},
                                               {"ramfs", 16}, {"umsdos", 0}, {"ext44", 0}, {"", 0}};
  for (const auto& [type, code] : types)
    EXPECT_EQ(get_fs_voltype(type), code) << type;
}

// In a process of its own, since the table is kept for the life of a process.
void CompareWithFindmnt() {
  std::map<std::string, std::string> expected;  // the last mount on a place counts
  FILE* pipe = ::popen("findmnt -rnb -o TARGET,FSTYPE,SIZE", "re");
  for (std::array<char, 4096> line{}; std::fgets(line.data(), line.size(), pipe) != nullptr;) {
    std::istringstream columns(line.data());
    std::string target, type;
    uint64_t bytes = 0;
    columns >> target >> type >> bytes;
    if (type != "tmpfs" && !type.starts_with("nfs")) expected[target] = type + " " + std::to_string(bytes / 1024);
  }
  ASSERT_EQ(::pclose(pipe), 0);
  std::vector<CSystemVolume> volumes;
  CSystemVolume::ScanSystemVolumes(volumes);
  std::map<std::string, std::string> found;
  for (const CSystemVolume& volume : volumes)
    found[volume.MountPoint] = volume.Type + " " + std::to_string(volume.Size);
  EXPECT_EQ(found, expected);
}

TEST(SystemVolume, MountsOfThisMachineAreThoseOfFindmnt) {
  if (::access("/usr/bin/findmnt", X_OK) != 0 || ::access("/etc/mtab", R_OK) != 0) GTEST_SKIP() << "no findmnt or mtab";
  EXPECT_EXIT((CompareWithFindmnt(), std::_Exit(HasFailure() ? 1 : 0)), ::testing::ExitedWithCode(0), "");
}

}  // namespace
