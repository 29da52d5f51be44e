#include "prove/faults.h"

namespace {

bool IsMemoryCall(const std::string& name) {
  return name == "brk" || name == "mmap" || name == "munmap" || name == "mprotect" || name == "mremap";
}

bool WasInjected() {
  const std::vector<SystemCall> calls = ReadCalls();
  return std::any_of(calls.begin(), calls.end(), [](const SystemCall& call) {
    return call.line.ends_with("(INJECTED)") || call.line.find(" = ?") != std::string::npos;
  });
}

std::vector<std::string> Repeats(const std::string& fault, int number) {
  if (fault.starts_with("signal")) return {""};
  // A call that is interrupted for ever is repeated for ever.
  return {"", fault == "error=EINTR" ? ".." + std::to_string(number + 3) : "+"};
}

}  // namespace

FaultRoot::FaultRoot() {
  MakeDirectory("/etc/pelrix");
  std::filesystem::copy("/proc/self/exe", HostPath("/prove"));
}

std::vector<std::string> Strace(const std::string& option, const std::string& worker, int bytes) {
  return {"/usr/bin/strace", "-o",     "/calls", "-s", std::to_string(bytes), "-xx", "-e", option,
          "/prove",          "worker", worker};
}

std::vector<std::string> Errors() {
  if (IsShort()) return {"error=EIO", "error=EINTR"};
  return {"error=ENOSPC", "error=EIO", "error=EDQUOT", "error=EROFS", "error=EACCES", "error=EINTR"};
}

int ForEachFault(const FaultRun& run) {
  // The first run of all makes directories.
  for (int tries = 0; tries < 2; ++tries) {
    run.prepare();
    EXPECT_EQ(RunCommand(Strace("trace=all", run.worker)), 0) << ReadWholeFile("/stderr");
  }
  int count = 0;
  for (const SystemCall& call : ReadCalls()) {
    if (IsMemoryCall(call.name)) continue;
    for (const std::string& fault : run.faults) {
      for (const std::string& repeat : Repeats(fault, call.number)) {
        const std::string what = call.name + ":" + fault + ":when=" + std::to_string(call.number) + repeat;
        run.prepare();
        const int status = RunCommand(Strace("inject=" + what, run.worker));
        EXPECT_TRUE(WasInjected()) << what;
        run.check(status, what);
        if (testing::Test::HasFailure()) return count;
        ++count;
      }
    }
  }
  return count;
}
