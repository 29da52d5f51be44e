#include <sys/mount.h>

#include <fstream>

#include "inventory/fs_sizes.h"
#include "inventory/fs_type.h"
#include "inventory/mount_table.h"
#include "inventory/system_volume.h"
#include "inventory/vmfs_volume.h"
#include "support/trace_capture.h"

namespace {

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
    "/dev/sda2 /vault ext4 rw 0 0\nproc /proc proc rw 0 0\nserver:/x /dead nfs rw 0 0\nserver:/y /dead4 nfs4 rw 0 0\n"
    "/dev/sda1 /boot ext2 rw 0 0\ntmpfs /run tmpfs rw 0 0\nnone /run tmpfs rw 0 0\n/dev/sdb1 /data\\040disk xfs rw 0 0\n"
    "/dev/sda3 none swap sw 0 0\nx /y ignore rw 0 0\nlonely\n//nas/share /gone cifs rw 0 0\nauto /auto autofs rw 0 0\n";
constexpr const char* kFstab =
    "# configured\n/dev/sda1 /boot ext2 defaults 0 1\n/dev/sdd1 /backup ext3 defaults 0 0\n/dev/cdrom /media iso9660 "
    "ro,noauto 0 0\nserver:/x /other nfs defaults 0 0\n/dev/sde1 /archive ntfs defaults 0 0";

using MountTable = RootedTest;

TEST_F(MountTable, SourcesAreMergedSortedAndMeasured) {
  root.WriteFile("/etc/mtab", kMtab);
  root.WriteFile("/etc/fstab", kFstab);
  for (const char* place : {"/boot", "/vault", "/run", "/data disk"})
    root.MakeDirectory(place);
  RunTraced(root, 3, FixtureRoot::kProc, [](TraceCapture& trace) {
    const auto mount = [](const char* place, const char* size, unsigned long flags = 0) {
      ASSERT_EQ(::mount("none", place, "tmpfs", flags, size), 0);
    };
    mount("/boot", "nr_blocks=1000");
    WriteWholeFile("/boot/kernel", std::string(750 * 4096, 'k'));
    mount("/vault", "nr_blocks=10000000000");
    mount("/run", "nr_blocks=10");
    std::vector<CSystemVolume> volumes;
    CSystemVolume::ScanSystemVolumes(volumes);
    EXPECT_EQ(Table(), (std::vector<std::string>{"1 auto /auto", "1 /dev/sda1 /boot", "1 /dev/sdb1 /data disk",
                                                 "1 //nas/share /gone", "1 proc /proc", "1 tmpfs /run", "1 none /run",
                                                 "1 /dev/sda2 /vault", "2 /dev/sde1 /archive", "2 /dev/sdd1 /backup"}));
    std::ostringstream found;
    for (const CSystemVolume& volume : volumes) {
      if (volume.MountPoint == "/data disk") continue;  // as large as the machine's own
      found << volume.MountPoints.at(0) << '|' << volume.Type << '|' << volume.VolumeType << '|' << volume.TypeFlags
            << '|' << volume.Blocks << ' ' << volume.AvailableBlocks << ' ' << volume.Size << ' ' << volume.BlockSize
            << ' ' << volume.Available << ' ' << volume.UsedPercent << ' ' << volume.Answer << '\n';
    }
    EXPECT_EQ(found.str(),
              "/auto|autofs|0|0|0 0 0 8 0 100 1\n"  // it would be refused, was it asked
              "/boot|ext2|2|16384|1000 250 4000 8 1000 75 1\n"
              "/gone|cifs|0|0|0 0 0 0 0 100 2\n"
              "/proc|proc|0|0|0 0 0 8 0 100 1\n"
              "/vault|ext4|2|0|10000000000 10000000000 40000000000 8 40000000000 0 1\n");
    EXPECT_EQ(trace.Missing(R"(get_mount_table(): Mountpoint '/dead4' of type 'nfs4' was ignored.
add_mount_entry: dev '/dev/sdd1' fs '/backup' mounted 0 flag 0x2]
add_mount_entry: fs '/boot' f_blocks 1000 f_frsize 4096 f_bsize 4096 f_bfree 250 f_bavail 250
get_fs_table: fs '/boot' f_blocks 1000 f_frsize 4096 f_bsize 4096 f_bfree 250 f_bavail 250)"),
              "");

    // Totals follow only for devices of /dev; the usage always does.
    mount("/boot", "nr_blocks=1500", MS_REMOUNT);
    mount("/run", "nr_blocks=20", MS_REMOUNT);
    WriteWholeFile("/run/lock", std::string(5 * 4096, 'l'));
    EXPECT_EQ(get_fs_table(1)->size, 6000U);
    EXPECT_EQ(get_fs_table(6)->blocks, 10U);
    EXPECT_EQ(get_fs_table(6)->used_percent, 25U);
  });
}

TEST_F(MountTable, SourcesAreReadAgainOnlyWhenChangedAndOld) {
  root.MakeDirectory("/etc");
  root.Run([] {
    WriteAged("/etc/mtab", "/dev/a /a ext4 rw 0 0\n", 1000);
    constexpr const char* kTwo = "/dev/a /a ext4 rw 0 0\n/dev/b /b ext4 rw 0 0\n";
    const auto build = [](time_t now) { return build_fs_table(now, 0); };
    EXPECT_EQ(build(2000), 1);
    WriteAged("/etc/mtab", kTwo, 1000);
    EXPECT_EQ(build(3000), 1);  // not newer
    WriteAged("/etc/mtab", kTwo, 1010);
    EXPECT_EQ(build(1060), 1);  // too early
    EXPECT_EQ(build(1061), 2);
    WriteAged("/etc/fstab", "/dev/b /b ext4 rw 0 0\n/dev/c /c ext4 rw 0 0\n", 1011);
    EXPECT_EQ(build(1062), 2);
    EXPECT_EQ(Table(), (std::vector<std::string>{"1 /dev/a /a", "1 /dev/b /b", "2 /dev/c /c"}));
    ::unlink("/etc/mtab");
    EXPECT_EQ(get_mount_table("/etc/mtab", 1), -1);
    EXPECT_EQ(build(9000), 2);
    EXPECT_EQ(Table().size(), 3U);
    WriteAged("/etc/mtab", kTwo, 1010);
    EXPECT_EQ(build(700), 2) << "the clock was set back, and nothing changed";
    WriteAged("/etc/mtab", "/dev/a /a ext4 rw 0 0\n", 690);
    EXPECT_EQ(build(700), 1);
  });
}

TEST_F(MountTable, KernelListIsFollowedBehindALink) {
  root.MakeLink("/etc/mtab", "/proc/self/mounts");
  root.MakeDirectory("/added");
  RunTraced(root, 2, FixtureRoot::kProc, [](TraceCapture& trace) {
    constexpr time_t kNow = 1'000'000'000;
    const int before = build_fs_table(kNow, 5);
    ASSERT_EQ(::mount("none", "/added", "tmpfs", 0, nullptr), 0);
    EXPECT_EQ(build_fs_table(kNow + 3600, 65), before) << "the clock tells nothing";
    EXPECT_EQ(build_fs_table(kNow - 3600, 66), before + 1);
    ASSERT_EQ(::umount("/added"), 0);
    EXPECT_EQ(build_fs_table(kNow, 127), before);
    EXPECT_EQ(build_fs_table(kNow, 999), before);
    EXPECT_EQ(trace.Count("get_mount_table[/etc/mtab]"), 3) << "nothing changed";
  });
}

TEST_F(MountTable, VmfsVolumesAreMeasuredByTheirTool) {
  root.WriteFile("/etc/mtab", "/dev/a /a ext4 rw 0 0\n");
  root.MakeDirectory("/vmfs/vmhba1:0:0:1");
  root.MakeDirectory("/vmfs/a:b; touch owned");
  root.MakeDirectory("/vmfs/volumes");
  root.WriteFile("/tools/vmkfstools",
                 "#!/bin/sh\necho noise\necho \"Capacity 5120.000000 (10 file blocks * 1048576), 2560.0 (5 blocks)\"\n",
                 0755);
  RunTraced(root, 3, FixtureRoot::kUsr, [](TraceCapture& trace) {
    const time_t now = std::time(nullptr);
    EXPECT_EQ(build_fs_table(now, 0), 1);  // the mounted list is too young
    EXPECT_EQ(build_fs_table(now + 99, 0), 3);
    EXPECT_EQ(get_fs_table(2)->size, 0U);  // no tool
    ASSERT_EQ(::mount("/tools", "/usr/sbin", nullptr, MS_BIND, nullptr), 0);
    const mount_entry* entry = get_fs_table(2);
    EXPECT_STREQ(entry->mount_point, "/vmfs/vmhba1:0:0:1");
    EXPECT_TRUE(entry->size == 5 && entry->available == 2);  // 2.5 goes to 2
    EXPECT_TRUE(trace.Has("get_vmfs_data[5 10 2048 5 2 50]"));
    EXPECT_TRUE(trace.Has("get_vmfs_data[-1 items found]"));
    EXPECT_NE(::access("owned", F_OK), 0);
  });
}

TEST_F(MountTable, ToolOutputTypesAndFiguresAreTakenApart) {
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
  // Vendor rows are the table's; what is not listed, and what is longer than is looked at.
  const std::pair<const char*, int> types[] = {{"adfs", 2}, {"xfs", 2}, {"msdos", 1}, {"ext44", 0}, {"", 0}};
  for (const auto& [type, code] : types)
    EXPECT_EQ(get_fs_voltype(type), code) << type;
  EXPECT_EQ(get_kib(3, 1536), 4U);
  EXPECT_EQ(get_kib(uint64_t{1} << 62, 512), uint64_t{1} << 61);
  EXPECT_EQ(get_kib(~uint64_t{0}, 4096), ~uint64_t{0});
  EXPECT_EQ(get_used_percent(3, 1) + get_used_percent(10, 99), 66U);
  const std::array<const char*, 3> servers[] = {{"nas:/a", "nfs4", "nas"},
                                                {"//nas/a", "cifs", "//nas"},
                                                {"[fe80::1]:/a", "nfs", "[fe80::1]"},
                                                {"me@host:", "fuse.sshfs", "me@host"},
                                                {"portal", "fuse.portal", "portal"},
                                                {"/dev/fuse", "fuse", ""},
                                                {"overlay", "overlay", ""},
                                                {"none", "fuse.x", ""}};
  for (const auto& [source, type, server] : servers)
    EXPECT_EQ(get_fs_server(source, type), server) << source;
}

}  // namespace
