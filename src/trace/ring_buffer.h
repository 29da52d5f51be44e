#pragma once

#include <cstdint>
#include <ctime>
#include <string_view>

#include "platform/unique_fd.h"

// The ring buffer files: memory-mapped text, written in a circle. docs/trace-files.md draws their layout; every byte of
// them is written here.
//
//   Configure, SetPaths, Create, StartHeader, AddToHeader..., EndHeader, Append (the "Begin" entry), MarkBegin,
//   Append...
//
// An entry that does not fit in front of the end goes behind the "Begin" entry, and the caller writes the header block
// anew: StartHeader, AddToHeader... The entry comes first, so that nothing that befalls the header loses it.
// A file that somebody cut short makes an operation fail; there is nothing left to write to then, and the caller closes
// it. Used under the lock of the trace object.
class RingBuffer {
 public:
  static constexpr std::string_view kEndMarker = "## TRACE-END ##\n";  // stands behind the newest entry
  enum class Phase { kStartUp, kRunTime };

  // Page size x factor x weight x 256 bytes, the start-up buffer four times that; a factor above 2 is taken as 2.
  // Without paths, as it stays when nothing is traced.
  void Configure(uint32_t factor, uint32_t weight);
  void SetPaths(const char* directory, const char* name);
  // The size of the run-time buffer with what was configured, 0 for none. Caps the factor.
  int64_t ComputeSize();

  // Which step failed and why.
  struct Failure {
    enum class Step { kNone, kOpen, kFill, kMap };
    Step step = Step::kNone;
    int error = 0;
  };
  // Makes the file, full of copies of the filler line, and maps it. The space is asked for first: a buffer for which
  // there is none fails at once and takes nothing.
  Failure Create(Phase phase, std::string_view filler);
  void Close();
  // In a forked child: the file is the parent's. What is mapped stays mapped.
  void ForgetInChild();

  // The second is that of the entry: the first one of a second takes SIGBUS out of the signals that the thread blocks.
  enum class Result { kWritten, kWrapped, kLost };
  Result Append(std::string_view entry, time_t second);

  // The header block from offset 0. An entry that would run into the "Begin" entry is left out. False: the file is
  // lost.
  void StartHeader() { m_HeaderSize = 0; }
  bool AddToHeader(std::string_view entry, time_t second);
  // Entries start at the KiB that leaves 1 to 2 KiB of filler behind the block.
  void EndHeader();
  // A wrap goes on behind the entry written last.
  void MarkBegin() { m_WrapOffset = m_WriteOffset; }

  bool IsOpen() const { return m_Mapping != nullptr; }
  int Descriptor() const { return m_File.Get(); }
  uint32_t Factor() const { return m_Factor; }
  uint32_t Weight() const { return m_Weight; }
  int64_t Size() const { return m_Size; }
  const char* Path(Phase phase) const { return phase == Phase::kStartUp ? m_StartUpPath : m_RunTimePath; }
  const char* Path() const { return Path(m_Phase); }  // of the current file

 private:
  static constexpr size_t kPathSize = 256;

  Failure Open();
  bool Reserve() const;
  bool Fill(std::string_view filler) const;
  bool Fits(int64_t offset, std::string_view entry, int64_t end) const;
  bool Put(int64_t& offset, std::string_view entry);

  UniqueFd m_File;
  uint32_t m_Factor = 0;
  uint32_t m_Weight = 0;
  int64_t m_Size = 0;         // of the current file
  int64_t m_WriteOffset = 0;  // where the next entry goes
  int64_t m_WrapOffset = 0;   // behind the "Begin" entry
  char* m_Mapping = nullptr;  // the whole file
  char m_RunTimePath[kPathSize] = {};
  char m_StartUpPath[kPathSize] = {};
  Phase m_Phase = Phase::kStartUp;
  int64_t m_HeaderSize = 0;   // of the header block, as far as it was written
  int64_t m_HeaderLimit = 0;  // where it has to end
};
