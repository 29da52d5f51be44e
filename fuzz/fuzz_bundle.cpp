// The bundle reader: no archive leads out of its directory, holds more than a bundle may, or harms the reader.

#include <dirent.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <filesystem>

#include "platform/unique_fd.h"
#include "ravctl/base/error.h"
#include "ravctl/tree/bundle_reader.h"

namespace {

constexpr size_t kMaxInput = 64 * 1024;

// In memory where the system has such a place; emptied before each input.
struct Place {
  std::filesystem::path above = std::filesystem::exists("/dev/shm") ? "/dev/shm" : "/tmp";
  std::filesystem::path root;

  Place() {
    std::string name = above / "fuzz-bundle-XXXXXX";
    if (::mkdtemp(name.data()) == nullptr) std::abort();
    root = name;
  }
  ~Place() { std::filesystem::remove_all(root); }
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size > kMaxInput) return 0;
  static const Place place;
  const std::filesystem::path inside = place.root / "in";
  std::filesystem::remove_all(inside);
  std::filesystem::create_directory(inside);
  const UniqueFd directory(::open(inside.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  const UniqueFd archive(::memfd_create("bundle", MFD_CLOEXEC));
  if (!directory || ::write(archive.Get(), data, size) != static_cast<ssize_t>(size)) std::abort();
  ::lseek(archive.Get(), 0, SEEK_SET);
  try {
    ravctl::UnpackBundle(archive.Get(), "bundle", directory.Get());
  } catch (const ravctl::CommandError&) {
  }
  for (const auto& entry : std::filesystem::directory_iterator(place.root)) {
    if (entry.path() != inside) std::abort();
  }
  for (const auto& entry : std::filesystem::recursive_directory_iterator(inside)) {
    if (!entry.is_symlink()) continue;
    const std::filesystem::path target = std::filesystem::read_symlink(entry);
    const std::string there = (entry.path().parent_path() / target).lexically_normal();
    if (target.is_relative() && !there.starts_with(inside.string())) std::abort();
  }
  return 0;
}
