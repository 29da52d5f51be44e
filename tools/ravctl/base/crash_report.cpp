#include "ravctl/base/crash_report.h"

#include <execinfo.h>
#include <fcntl.h>
#include <ucontext.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <csignal>
#include <cstdint>
#include <optional>
#include <vector>

#include "ravctl/base/mapping.h"
#include "ravctl/base/text.h"

namespace ravctl {

namespace {

constexpr auto kFaults = std::to_array({SIGSEGV, SIGBUS, SIGILL, SIGFPE, SIGABRT});
constexpr int kMostFrames = 64;
constexpr size_t kStackSize = 64 * 1024;
constexpr std::string_view kFrame = "@ ";  // an address, the innermost first
// Code of these is not to blame.
constexpr auto kRuntime =
    std::to_array<std::string_view>({"ravctl", "libc.so", "libstdc++.so", "libgcc_s.so", "ld-linux", "libm.so"});

int reportFd = -1;

// ---- in the signal: nothing that takes a lock or memory

void Put(std::string_view text) {
  [[maybe_unused]] const ssize_t written = ::write(reportFd, text.data(), text.size());
}

void PutFrame(uintptr_t address) {
  std::array<char, 32> line{};
  char* end = std::copy(kFrame.begin(), kFrame.end(), line.data());
  end = std::to_chars(end, line.data() + line.size() - 1, address, 16).ptr;
  *end++ = '\n';
  Put({line.data(), end});
}

void PutMappings() {
  std::array<char, 4096> bytes{};
  const int maps = ::open("/proc/self/maps", O_RDONLY | O_CLOEXEC);
  for (ssize_t got = 0; (got = ::read(maps, bytes.data(), bytes.size())) > 0;)
    Put({bytes.data(), static_cast<size_t>(got)});
  ::close(maps);
}

void Report(int signal, siginfo_t*, void* context) {
  Put(kCrashMark);
  PutFrame(static_cast<uintptr_t>(static_cast<ucontext_t*>(context)->uc_mcontext.gregs[REG_RIP]));
  PutMappings();
  // The callers last: a damaged stack may end this, too.
  std::array<void*, kMostFrames> frames{};
  const int count = ::backtrace(frames.data(), kMostFrames);
  for (int number = 0; number < count; ++number)
    PutFrame(reinterpret_cast<uintptr_t>(frames[static_cast<size_t>(number)]) - 1);  // within the call
  ::raise(signal);
}

// ---- in the parent

bool IsRuntime(const Mapping& mapping) {
  return std::ranges::any_of(kRuntime, [&](std::string_view name) { return mapping.Name().starts_with(name); });
}

std::string PlaceIn(const Mapping& mapping, uintptr_t address) {
  std::array<char, 16> digits{};
  const auto end =
      std::to_chars(digits.data(), digits.data() + digits.size(), address - mapping.begin + mapping.offset, 16);
  return mapping.Name() + " at 0x" + std::string(digits.data(), end.ptr);
}

}  // namespace

void ReportCrashesTo(int fd) {
  static std::array<char, kStackSize> stack;
  reportFd = fd;
  std::array<void*, 1> frame{};
  ::backtrace(frame.data(), 1);  // its first call loads a library
  stack_t own{};
  own.ss_sp = stack.data();
  own.ss_size = stack.size();
  ::sigaltstack(&own, nullptr);
  struct sigaction action {};
  action.sa_sigaction = Report;
  action.sa_flags = SA_SIGINFO | SA_ONSTACK | static_cast<int>(SA_RESETHAND);
  for (const int signal : kFaults)
    ::sigaction(signal, &action, nullptr);
}

std::string PlaceOfCrash(std::string_view report) {
  std::vector<Mapping> mappings;
  std::vector<uintptr_t> frames;
  for (const std::string& line : SplitList(report, '\n')) {
    if (line.starts_with(kFrame)) {
      if (const auto address = ParseHex(std::string_view(line).substr(kFrame.size()))) frames.push_back(*address);
    } else if (std::optional<Mapping> mapping = ParseMapping(line)) {
      mappings.push_back(*std::move(mapping));
    }
  }
  std::string place;
  for (const uintptr_t address : frames) {
    const auto found = std::ranges::find_if(
        mappings, [address](const Mapping& each) { return address >= each.begin && address < each.end; });
    const bool isFirst = address == frames.front() && place.empty();
    if (found == mappings.end()) {
      if (isFirst) place = "no code";
    } else if (isFirst) {
      place = PlaceIn(*found, address);
      if (!IsRuntime(*found)) return place;
    } else if (!IsRuntime(*found)) {
      return place + ", called from " + PlaceIn(*found, address);
    }
  }
  return place;
}

}  // namespace ravctl
