// Starting a program and waiting for it from a process that has 1,000 descriptors open, beside fork and exec and
// beside posix_spawn, which both leave the descriptors alone, and beside closing every number up to the limit.

#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include "platform/process.h"

namespace {

constexpr int kDescriptors = 1000;
char program[] = "/bin/true";
char* arguments[] = {program, nullptr};

// Inheritable ones, so that somebody has to close them.
void OpenDescriptors() {
  static const bool isDone = [] {
    rlimit limit = {};
    ::getrlimit(RLIMIT_NOFILE, &limit);
    limit.rlim_cur = limit.rlim_max;
    ::setrlimit(RLIMIT_NOFILE, &limit);
    for (int count = 0; count < kDescriptors; ++count) {
      if (::dup(0) < 0) return false;
    }
    return true;
  }();
  if (!isDone) std::abort();
}

void Wait(benchmark::State& state, pid_t child) {
  int status = -1;
  if (::waitpid(child, &status, 0) != child || status != 0) state.SkipWithError("the program failed");
}

void BM_ExecuteCmd(benchmark::State& state) {
  OpenDescriptors();
  for (auto _ : state) {
    if (!CProcess::ExecuteCmd(program, nullptr, false, state.range(0) != 0)) state.SkipWithError("the program failed");
  }
}

void BM_ForkAndExec(benchmark::State& state) {
  OpenDescriptors();
  for (auto _ : state) {
    const pid_t child = ::fork();
    if (child == 0) {
      ::execv(program, arguments);
      ::_exit(1);
    }
    Wait(state, child);
  }
}

void BM_PosixSpawn(benchmark::State& state) {
  OpenDescriptors();
  for (auto _ : state) {
    pid_t child = -1;
    ::posix_spawn(&child, program, nullptr, nullptr, arguments, environ);
    Wait(state, child);
  }
}

void BM_ForkCloseAllAndExec(benchmark::State& state) {
  OpenDescriptors();
  const long limit = ::sysconf(_SC_OPEN_MAX);
  state.counters["limit"] = static_cast<double>(limit);
  for (auto _ : state) {
    const pid_t child = ::fork();
    if (child == 0) {
      for (int fd = 3; fd < limit; ++fd) {
        ::close(fd);
      }
      ::execv(program, arguments);
      ::_exit(1);
    }
    Wait(state, child);
  }
}

}  // namespace

// Argument: whether the child inherits the descriptors.
BENCHMARK(BM_ExecuteCmd)->Arg(0)->Arg(1)->UseRealTime()->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_ForkAndExec)->UseRealTime()->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_PosixSpawn)->UseRealTime()->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_ForkCloseAllAndExec)->UseRealTime()->Unit(benchmark::kMicrosecond);
BENCHMARK_MAIN();
