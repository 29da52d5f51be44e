#pragma once

#include <archive.h>
#include <archive_entry.h>

#include <algorithm>
#include <functional>
#include <string>

// A tar.gz archive with whatever a test wants in it.
//
//   ArchiveFile().File("etc/x", "text").Link("etc/y", "x").Bytes()
class ArchiveFile {
 public:
  ArchiveFile() : m_Archive(::archive_write_new()), m_Bytes(size_t{16} << 20, '\0') {
    ::archive_write_set_format_pax_restricted(m_Archive);
    ::archive_write_add_filter_gzip(m_Archive);
    ::archive_write_open_memory(m_Archive, m_Bytes.data(), m_Bytes.size(), &m_Used);
  }
  ~ArchiveFile() { ::archive_write_free(m_Archive); }
  ArchiveFile(const ArchiveFile&) = delete;
  ArchiveFile& operator=(const ArchiveFile&) = delete;

  ArchiveFile& File(const std::string& path, const std::string& content) { return Add(path, AE_IFREG, content); }
  ArchiveFile& Directory(const std::string& path) { return Add(path, AE_IFDIR); }
  ArchiveFile& Link(const std::string& path, const std::string& target) {
    return Add(path, AE_IFLNK, "", [&](archive_entry* entry) { ::archive_entry_set_symlink(entry, target.c_str()); });
  }
  ArchiveFile& HardLink(const std::string& path, const std::string& target) {
    return Add(path, AE_IFREG, "", [&](archive_entry* entry) { ::archive_entry_set_hardlink(entry, target.c_str()); });
  }
  ArchiveFile& Device(const std::string& path) {
    return Add(path, AE_IFCHR, "", [](archive_entry* entry) { ::archive_entry_set_rdev(entry, 0x101); });
  }
  // Nothing but a last byte, behind a hole.
  ArchiveFile& Sparse(const std::string& path, size_t size) {
    Add(path, AE_IFREG, "", [&](archive_entry* entry) {
      ::archive_entry_set_size(entry, static_cast<la_int64_t>(size));
      ::archive_entry_sparse_add_entry(entry, static_cast<la_int64_t>(size - 1), 1);
    });
    const std::string part(size_t{1} << 20, 'x');
    for (size_t left = size; left > 0; left -= std::min(left, part.size()))
      ::archive_write_data(m_Archive, part.data(), std::min(left, part.size()));
    return *this;
  }

  std::string Bytes() {
    ::archive_write_close(m_Archive);
    return m_Bytes.substr(0, m_Used);
  }

 private:
  ArchiveFile& Add(
      const std::string& path, unsigned int type, const std::string& content = "",
      const std::function<void(archive_entry*)>& describe = [](archive_entry*) {}) {
    archive_entry* entry = ::archive_entry_new();
    ::archive_entry_set_pathname(entry, path.c_str());
    ::archive_entry_set_filetype(entry, type);
    ::archive_entry_set_perm(entry, 0644);
    ::archive_entry_set_size(entry, static_cast<la_int64_t>(content.size()));
    describe(entry);
    ::archive_write_header(m_Archive, entry);
    if (!content.empty()) ::archive_write_data(m_Archive, content.data(), content.size());
    ::archive_entry_free(entry);
    return *this;
  }

  archive* m_Archive;
  std::string m_Bytes;
  size_t m_Used = 0;
};
