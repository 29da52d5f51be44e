#pragma once

#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

// Directory trees in memory, one per size, that a benchmark fills and then enters as its root, so that the code reads
// its real paths and no disk is measured. Works in private namespaces; what cannot be set up ends the program.
class FixtureTrees {
 public:
  FixtureTrees() {
    std::string pattern = (std::filesystem::temp_directory_path() / "ravd-bench-trees-XXXXXX").string();
    const int flags = CLONE_NEWNS | (::geteuid() != 0 ? CLONE_NEWUSER : 0);
    if (::unshare(flags) != 0 || ::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
        ::mkdtemp(pattern.data()) == nullptr || ::mount("tmpfs", pattern.c_str(), "tmpfs", 0, nullptr) != 0) {
      std::perror("fixture trees");
      std::exit(1);
    }
    m_Root = pattern;
    m_MachineRoot = ::open("/", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  }
  ~FixtureTrees() {
    Leave();
    ::umount2(m_Root.c_str(), MNT_DETACH);
    std::error_code ignored;
    std::filesystem::remove(m_Root, ignored);
  }
  FixtureTrees(const FixtureTrees&) = delete;
  FixtureTrees& operator=(const FixtureTrees&) = delete;

  // Missing directories are made. Before the first Enter only.
  void Write(long size, const std::string& path, const std::string& content) const {
    const std::filesystem::path file = Path(size) + path;
    std::filesystem::create_directories(file.parent_path());
    std::ofstream(file, std::ios::binary) << content;
  }

  bool Enter(long size) const { return Leave() && ::chroot(Path(size).c_str()) == 0 && ::chdir("/") == 0; }

  // Where a tree lies while none is entered, for this process and those that it starts.
  std::string Path(long size) const { return m_Root.string() + "/" + std::to_string(size); }

  // Back to the machine's own root.
  bool Leave() const { return ::fchdir(m_MachineRoot) == 0 && ::chroot(".") == 0; }

 private:
  std::filesystem::path m_Root;
  int m_MachineRoot = -1;
};
