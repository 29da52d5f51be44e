#include "trace/ring_buffer.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <new>

#include "platform/descriptor_io.h"
#include "platform/regular_file.h"
#include "trace/mapped_copy.h"

namespace {

constexpr mode_t kMode = 0700;
constexpr uint32_t kMaxFactor = 2;
constexpr int64_t kSizeUnit = 256;       // pages per factor and weight
constexpr int64_t kStartUpMultiple = 4;  // the start-up buffer against the run-time buffer
constexpr int64_t kBoundary = 1024;      // where the entries behind the header block begin
constexpr int64_t kFillerLines = 64;     // written at once

}  // namespace

void RingBuffer::Configure(uint32_t factor, uint32_t weight) {
  m_RunTimePath[0] = m_StartUpPath[0] = '\0';
  m_Factor = factor;
  m_Weight = weight;
  m_Size = 0;
}

void RingBuffer::SetPaths(const char* directory, const char* name) {
  std::snprintf(m_RunTimePath, sizeof m_RunTimePath, "%s/log.%s_a", directory, name);
  std::snprintf(m_StartUpPath, sizeof m_StartUpPath, "%s/log.%s_i", directory, name);
}

int64_t RingBuffer::ComputeSize() {
  m_Factor = std::min(m_Factor, kMaxFactor);
  const long page = ::sysconf(_SC_PAGESIZE);
  return int64_t{page < 1 ? 4096 : page} * int64_t{m_Factor * m_Weight} * kSizeUnit;
}

RingBuffer::Failure RingBuffer::Create(Phase phase, std::string_view filler) {
  m_Phase = phase;
  m_Size = ComputeSize() * (phase == Phase::kStartUp ? kStartUpMultiple : 1);
  if (const Failure failure = Open(); failure.step != Failure::Step::kNone) return failure;
  if (!Reserve() || !Fill(filler)) {
    [[maybe_unused]] const int emptied = ::ftruncate(m_File.Get(), 0);  // what was taken may be what filled the disk
    Close();
    return {Failure::Step::kFill};
  }
  void* mapping = ::mmap(nullptr, static_cast<size_t>(m_Size), PROT_READ | PROT_WRITE, MAP_SHARED, m_File.Get(), 0);
  if (mapping == MAP_FAILED) {
    const int error = errno;
    Close();
    return {Failure::Step::kMap, error};
  }
  mapped_copy::CatchLostPages();
  m_Mapping = static_cast<char*>(mapping);
  m_WriteOffset = m_WrapOffset = m_HeaderSize = 0;
  m_HeaderLimit = m_Size / 2;
  return {};
}

RingBuffer::Failure RingBuffer::Open() {
  // A path that was cut would be that of another file, of the log file even.
  if (std::strlen(Path()) + 1 >= kPathSize) return {Failure::Step::kOpen, ENAMETOOLONG};
  m_File = OpenRegularFile(Path(), O_RDWR | O_CREAT | O_TRUNC, kMode);
  return m_File ? Failure{} : Failure{Failure::Step::kOpen, errno};
}

// Whether the file system has the room. One that does not know its own is believed; one that cannot set room aside is
// asked by the filling alone.
bool RingBuffer::Reserve() const {
  struct statvfs info {};
  const bool isTold = ::fstatvfs(m_File.Get(), &info) == 0 && info.f_blocks != 0;
  if (isTold && static_cast<uint64_t>(m_Size) / info.f_frsize > info.f_bfree) return false;
  int result = 0;
  do {
    result = ::fallocate(m_File.Get(), 0, 0, m_Size);
  } while (result != 0 && errno == EINTR);
  return result == 0 || errno == EOPNOTSUPP || errno == ENOSYS;
}

// Every 1 KiB of a new buffer is a line of its own.
bool RingBuffer::Fill(std::string_view filler) const {
  const size_t blockSize = filler.size() * kFillerLines;
  const std::unique_ptr<char[]> block(new (std::nothrow) char[blockSize]);
  if (block == nullptr) return false;
  for (size_t at = 0; at < blockSize; at += filler.size())
    std::memcpy(block.get() + at, filler.data(), filler.size());
  const auto line = static_cast<int64_t>(filler.size());
  const int64_t whole = (m_Size + line - 1) / line * line;
  for (int64_t at = 0; at < whole; at += line * kFillerLines) {
    const auto part = static_cast<size_t>(std::min(whole - at, line * kFillerLines));
    if (!WriteAllAt(m_File.Get(), {block.get(), part}, at)) return false;
  }
  return true;
}

void RingBuffer::Close() {
  if (m_Mapping != nullptr) ::munmap(m_Mapping, static_cast<size_t>(m_Size));
  m_File.Reset();
  m_Mapping = nullptr;
}

void RingBuffer::ForgetInChild() {
  m_File.Release();
  m_Mapping = nullptr;
}

RingBuffer::Result RingBuffer::Append(std::string_view entry, time_t second) {
  mapped_copy::UnblockBusErrors(second);
  const bool fits = Fits(m_WriteOffset, entry, m_Size);
  if (!fits) {
    const auto left = static_cast<size_t>(m_Size - m_WriteOffset);
    if (!mapped_copy::Fill(m_Mapping + m_WriteOffset, '.', left)) return Result::kLost;
    m_WriteOffset = m_WrapOffset;
  }
  if (!Put(m_WriteOffset, entry)) return Result::kLost;
  return fits ? Result::kWritten : Result::kWrapped;
}

bool RingBuffer::AddToHeader(std::string_view entry, time_t second) {
  mapped_copy::UnblockBusErrors(second);
  return !Fits(m_HeaderSize, entry, m_HeaderLimit) || Put(m_HeaderSize, entry);
}

void RingBuffer::EndHeader() {
  m_HeaderLimit = m_WriteOffset = (m_HeaderSize + 2 * kBoundary) & ~(kBoundary - 1);
}

bool RingBuffer::Fits(int64_t offset, std::string_view entry, int64_t end) const {
  return offset + static_cast<int64_t>(entry.size() + kEndMarker.size()) <= end;
}

bool RingBuffer::Put(int64_t& offset, std::string_view entry) {
  if (!mapped_copy::Put(m_Mapping + offset, entry, kEndMarker)) return false;
  offset += static_cast<int64_t>(entry.size());
  return true;
}
