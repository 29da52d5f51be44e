#include "ravctl/tree/confine.h"

#include <cap-ng.h>
#include <grp.h>
#include <linux/audit.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstddef>
#include <cstdint>

#include "ravctl/base/error.h"

namespace ravctl {

namespace {

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr rlim_t kMemory = RLIM_INFINITY;
#else
constexpr rlim_t kMemory = rlim_t{4} << 30;
#endif

struct LimitRow {
  __rlimit_resource resource;
  rlim_t most;
};
constexpr auto kLimits =
    std::to_array<LimitRow>({{RLIMIT_AS, kMemory}, {RLIMIT_CPU, 600}, {RLIMIT_NPROC, 512}, {RLIMIT_CORE, 0}});

void Require(bool isDone, const char* what) {
  if (!isDone) throw SystemFailure("cannot give up rights", what, errno);
}

void SetLimits() {
  for (const LimitRow& row : kLimits) {
    rlimit limit{};
    Require(::getrlimit(row.resource, &limit) == 0, "getrlimit");
    limit = {std::min(limit.rlim_cur, row.most), std::min(limit.rlim_max, row.most)};
    Require(::setrlimit(row.resource, &limit) == 0, "setrlimit");
  }
}

void RefuseFileSystemCalls() {
  const auto refuse = static_cast<uint32_t>(SECCOMP_RET_ERRNO) | ENOSYS;
  std::array<sock_filter, 8> program = {{
      BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, arch)),
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, AUDIT_ARCH_X86_64, 1, 0),
      BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
      BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_statfs, 1, 0),
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_fstatfs, 0, 1),
      BPF_STMT(BPF_RET | BPF_K, refuse),
      BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
  }};
  const sock_fprog filter = {static_cast<unsigned short>(program.size()), program.data()};
  Require(::prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &filter) == 0, "seccomp");
}

}  // namespace

void Confine(const Reader& reader) {
  SetLimits();
  ::capng_clear(CAPNG_SELECT_BOTH);
  Require(::capng_apply(CAPNG_SELECT_BOUNDS) == 0, "bounding set");
  if (reader.user != ::geteuid()) {
    Require(::setgroups(0, nullptr) == 0, "setgroups");
    Require(::setresgid(reader.group, reader.group, reader.group) == 0, "setresgid");
    Require(::setresuid(reader.user, reader.user, reader.user) == 0, "setresuid");
  }
  Require(::capng_apply(CAPNG_SELECT_CAPS) == 0, "capabilities");
  Require(::prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0, "no_new_privs");
  RefuseFileSystemCalls();
}

}  // namespace ravctl
