#pragma once

#include <optional>
#include <string>

namespace ravctl {

// The whole content of a regular file, null when there is none. Throws CommandError when it cannot be read.
std::optional<std::string> ReadIfThere(const std::string& path);

// A copy of a file's content in a directory that nobody else can enter, below the temporary one (TMPDIR). What the
// library makes of it is what it would make of the file. Directory and copy go with the object.
class PrivateCopy {
 public:
  // Null content: the copy is missing, as the file is. Throws CommandError when there is no place for it.
  explicit PrivateCopy(const std::optional<std::string>& content);
  ~PrivateCopy();
  PrivateCopy(const PrivateCopy&) = delete;
  PrivateCopy& operator=(const PrivateCopy&) = delete;

  const std::string& Path() const { return m_Path; }
  std::optional<std::string> Read() const { return ReadIfThere(m_Path); }

 private:
  void Fill(const std::string& content) const;
  void Remove() const;

  std::string m_Directory;
  std::string m_Path;
};

}  // namespace ravctl
