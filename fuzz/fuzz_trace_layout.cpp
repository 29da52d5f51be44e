// Trace files: whatever the bytes, the layout and the entries lie inside the content, no byte belongs to two parts, and
// what is unpacked and checked does no harm.

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "platform/unique_fd.h"
#include "ravctl/base/error.h"
#include "ravctl/trace/trace_check.h"
#include "ravctl/trace/trace_entry.h"

namespace {

constexpr size_t kMaxInput = 64 * 1024;
constexpr size_t kMaxUnpacked = 1024 * 1024;

void Require(bool holds) {
  if (!holds) std::abort();
}

bool LiesIn(std::string_view part, std::string_view whole) {
  return part.empty() || (part.data() >= whole.data() && part.data() + part.size() <= whole.data() + whole.size());
}

void CheckEntries(std::string_view part) {
  const char* end = part.data();
  ravctl::ForEachEntry(part, [&](std::string_view whole) {
    Require(LiesIn(whole, part) && whole.data() >= end && ravctl::StartsEntry(whole) && whole.ends_with('\n'));
    end = whole.data() + whole.size();
    const ravctl::TraceEntry entry = ravctl::ParseEntry(whole);
    for (const std::string_view view : {entry.time, entry.thread, entry.tag, entry.text})
      Require(LiesIn(view, whole));
    return true;
  });
}

void CheckLayout(std::string_view content) {
  ravctl::TraceLayout layout = ravctl::FindLayout(content);
  Require(LiesIn(layout.header, content) && LiesIn(layout.beginLine, content) && layout.wrapOffset <= content.size());
  Require(!layout.marker || content.substr(*layout.marker).starts_with(ravctl::kEndMarker));
  for (const std::string_view part : layout.parts) {
    Require(LiesIn(part, content));
    CheckEntries(part);
  }
  std::erase_if(layout.parts, [](std::string_view part) { return part.empty(); });
  std::ranges::sort(layout.parts, {}, [](std::string_view part) { return part.data(); });
  const auto overlap = [](std::string_view one, std::string_view next) {
    return next.data() < one.data() + one.size();
  };
  Require(std::ranges::adjacent_find(layout.parts, overlap) == layout.parts.end());
}

// In memory where the system has such a place.
struct File {
  std::string path = ::access("/dev/shm", W_OK) == 0 ? "/dev/shm/fuzz-trace-XXXXXX" : "/tmp/fuzz-trace-XXXXXX";
  UniqueFd fd{::mkostemp(path.data(), O_CLOEXEC)};

  ~File() { ::unlink(path.c_str()); }
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size > kMaxInput) return 0;
  CheckLayout({reinterpret_cast<const char*>(data), size});
  static const File file;
  Require(::ftruncate(file.fd.Get(), 0) == 0 && ::pwrite(file.fd.Get(), data, size, 0) == static_cast<ssize_t>(size));
  try {
    const ravctl::TraceFile trace(file.path, kMaxUnpacked);
    CheckLayout(trace.Content());
    ravctl::CheckTrace(trace);
  } catch (const ravctl::CommandError&) {
  }
  return 0;
}
