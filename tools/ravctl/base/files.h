#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace ravctl {

// The one reader and the one writer of whole files.

// Appends the content of a regular file. Result: 0 or the number of the error.
int ReadFileInto(const std::string& path, std::string& content);
// The whole content of a regular file. Throws CommandError.
std::string ReadWholeFile(const std::string& path);
// The same, none when there is no file.
std::optional<std::string> ReadFileIfThere(const std::string& path);

// A new file of mode 0600 with that content, down to the disk, or none at all: one that exists is not overwritten, one
// that could not be completed is taken away again. Throws CommandError.
void WriteNewFile(const std::string& path, std::string_view content);

// After an edit that failed: tells why as far as that can be found out, and whether the file is as it was. old: what it
// held, none when it was not there. Throws CommandError.
[[noreturn]] void ThrowNotWritten(const std::string& path, const std::optional<std::string>& old,
                                  std::string_view wanted);

// "/etc/a" => "/etc", "/a" => "/", "a" => "."
std::string DirectoryPart(const std::string& path);

// A directory that nobody else can enter, below the temporary one (TMPDIR, /tmp without it). It goes with the object,
// and with it all that is in it.
class TemporaryDirectory {
 public:
  // Throws CommandError when there is no place for it, which names TMPDIR where that is set.
  TemporaryDirectory();
  ~TemporaryDirectory() { Remove(); }
  TemporaryDirectory(const TemporaryDirectory&) = delete;
  TemporaryDirectory& operator=(const TemporaryDirectory&) = delete;

  // Absolute.
  const std::string& Path() const { return m_Path; }
  // Before the object goes, or in another process instead of it.
  void Remove() const;

 private:
  std::string m_Path;
};

}  // namespace ravctl
