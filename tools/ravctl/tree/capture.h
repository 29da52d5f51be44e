#pragma once

#include <sys/types.h>

#include <cstdint>
#include <set>
#include <string>
#include <string_view>
#include <vector>

namespace ravctl {

enum class EntryType { kFile, kDirectory, kLink };

// A part of a file with holes.
struct StoredRange {
  uint64_t offset = 0;
  uint64_t length = 0;
};

struct CapturedEntry {
  std::string path;  // without the first slash
  EntryType type = EntryType::kFile;
  std::string content = {};              // bytes of a file, target of a link
  uint64_t size = 0;                     // of a file, holes included
  std::vector<StoredRange> ranges = {};  // where the content stands in a file with holes; empty for one without
  mode_t mode = 0644;
  int64_t modified = 0;  // seconds since 1970
};

// What is there and could not be captured.
struct Uncaptured {
  std::string path;
  std::string reason;
  bool needsRoot = false;
};

// How a path that matches is captured.
enum class CaptureKind {
  kContent,  // a file with its content, a directory by its name
  kName,     // that it is there: a link by its target, anything else as an empty directory or file
  // A file with its content from a directory where others may write: neither a link nor one of several names of a file,
  // which could make anything else come along, and of root or of the caller. What is not is noted.
  kOwnContent,
};

// Collects files of this machine as they are found by their absolute paths: every link on the way is an entry of its
// own, and its target is followed. What does not exist is passed over; what cannot be read is noted, and so is a
// directory that a pattern leads through and that cannot be listed. Files that grow
// while they are read are taken as far as they were. One thread.
class Capture {
 public:
  // Paths with the patterns of fnmatch(3) in their names. limit: so many bytes of each file; what is longer is cut
  // there.
  void AddMatching(const std::string& pattern, CaptureKind kind, uint64_t limit);
  void Add(const std::string& path, CaptureKind kind, uint64_t limit);
  // What was read by other means.
  void AddEntry(CapturedEntry entry);
  void AddText(const std::string& path, std::string text);
  void AddUncaptured(const std::string& path, const std::string& reason, bool needsRoot);

  std::vector<CapturedEntry>& Entries() { return m_Entries; }
  const std::vector<Uncaptured>& Missing() const { return m_Missing; }
  uint64_t Bytes() const { return m_Bytes; }

 private:
  // The path with every link resolved, the last one too when wanted; empty when something on the way is not there.
  std::string Resolve(const std::string& path, bool followsLast);
  bool IsNew(const std::string& path);
  void AddLink(const std::string& path, const std::string& target);
  void AddFailure(const std::string& path, int error);
  void AddMatchingBelow(const std::string& directory, std::string_view pattern, CaptureKind kind, uint64_t limit);
  void TakeFile(const std::string& path, uint64_t limit, CaptureKind kind);

  std::vector<CapturedEntry> m_Entries;
  std::vector<Uncaptured> m_Missing;
  std::set<std::string, std::less<>> m_Seen;
  std::set<std::string, std::less<>> m_Noted;  // as missing
  uint64_t m_Bytes = 0;
};

}  // namespace ravctl
