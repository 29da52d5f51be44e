#include "inventory/fs_type.h"

#include <algorithm>
#include <array>

namespace {

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

}  // namespace

uint32_t get_fs_type_flags(std::string_view type) {
  const auto row = std::ranges::find(kTypeFlagRows, type, &TypeFlagRow::type);
  return row == kTypeFlagRows.end() ? 0 : row->flags;
}

int get_fs_voltype(const char* type) {
  if (type == nullptr) return 0;
  const std::string_view name = std::string_view(type).substr(0, kVolumeTypeLength);
  const auto row = std::ranges::lower_bound(kVolumeTypeRows, name, {}, &VolumeTypeRow::type);
  return row != kVolumeTypeRows.end() && row->type == name ? row->code : 0;
}
