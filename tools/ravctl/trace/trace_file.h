#pragma once

#include <cstdlib>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "ravctl/trace/trace_layout.h"

namespace ravctl {

// A trace file read into memory; a compressed one (.gz) is unpacked by its content, whatever its name is.
//
// It is read rather than mapped: a daemon that starts cuts the old file to nothing, and a mapping of it would take the
// tool down. Large files cost their size in memory, so a file has a limit: anybody may have packed gigabytes of zeros
// into a megabyte.
class TraceFile {
 public:
  static constexpr size_t kUsualLargest = size_t{256} << 20;  // bytes, unpacked

  // Throws CommandError when the file cannot be opened or read, or holds more than that many bytes. isKept: it is in
  // the directory of a kept run (OpenKept).
  explicit TraceFile(std::string path, size_t largest = kUsualLargest, bool isKept = false);

  const std::string& Path() const { return m_Path; }
  std::string_view Content() const { return {m_Bytes.get(), m_Size}; }
  const TraceLayout& Layout() const { return m_Layout; }
  // What kept a compressed file from being unpacked to its end; empty when nothing did.
  const std::string& Damage() const { return m_Damage; }
  // "2024-05-06 10:11:12.345" of the first entry that stands in the file, header included; empty when there is none.
  std::string_view FirstTime() const;
  // Whether it holds something, but no entry: it is no trace.
  bool HasNoEntry() const { return !Content().empty() && FirstTime().empty(); }

 private:
  void ReadPlain(int fd, size_t size);
  void Unpack(int fd);
  void Grow(size_t room);
  void RefuseAbove(size_t size) const;

  struct Free {
    void operator()(char* bytes) const { std::free(bytes); }
  };

  std::string m_Path;
  size_t m_Largest;
  std::unique_ptr<char, Free> m_Bytes;
  size_t m_Size = 0;
  TraceLayout m_Layout;
  std::string m_Damage;
};

// Which files of an application.
enum class TracePart { kRings, kStart, kRun, kLog };

// The files of an application, in its trace directory.
struct TracePaths {
  std::string log;          // log.<app>
  std::string start;        // log.<app>_i
  std::string startPacked;  // log.<app>_i.gz
  std::string run;          // log.<app>_a
};
TracePaths PathsOf(const std::string& directory, const std::string& application);

// What to read: a file by its path (what holds a '/', or names a file log.* here) or an application by its name.
struct TraceSource {
  std::string what = "ravd";
  std::string directory;  // instead of the configured one when not empty
  TracePart part = TracePart::kRings;
  size_t run = 0;           // 0 for the present one, else the number of a kept one: 1 for the newest
  bool isPrevious = false;  // the same as 1
  size_t Run() const { return isPrevious ? 1 : run; }
};

// The directory in which the source's application traces, as configured; the runs that are kept lie in it.
std::string DirectoryOf(const TraceSource& source);
bool IsPath(const TraceSource& source);

// The files of the source, oldest first. For the rings of an application: its start-up and its run-time ring buffer,
// and where there is neither, its log file. Throws CommandError when there is none or one cannot be read.
std::vector<TraceFile> ReadTraceFiles(const TraceSource& source);

}  // namespace ravctl
