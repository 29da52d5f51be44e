#include "inventory/fs_answer.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <string>
#include <string_view>
#include <vector>

#include "platform/descriptor_io.h"
#include "platform/unique_fd.h"
#include "trace/debug.h"

namespace {

using Clock = std::chrono::steady_clock;

constexpr int kAnswerMs = 1000;
constexpr int kShortestAnswerMs = 100;               // a lively one on a busy machine takes its time, too
constexpr auto kSilence = std::chrono::seconds(60);  // until the next question
constexpr auto kRound = std::chrono::seconds(5);     // questions with less between them belong to one scan

// Beside these, every type that begins with "fuse".
constexpr auto kServedElsewhere = std::to_array<std::string_view>({
    "9p",
    "afs",
    "autofs",
    "beegfs",
    "ceph",
    "cifs",
    "coda",
    "davfs",
    "glusterfs",
    "gpfs",
    "lustre",
    "ncpfs",
    "nfs",
    "nfs4",
    "smb3",
    "smbfs",
    "virtiofs",
});
static_assert(std::ranges::is_sorted(kServedElsewhere));

struct Question {
  std::string mountPoint;
  pid_t child;  // 0 once it has ended
  Clock::time_point asked;
};

struct State {
  std::vector<Question> unanswered;
  std::vector<std::string> served;  // mount points of file systems that may never answer
  int silentCount = 0;              // in this scan
  Clock::time_point lastSilence;
};

// Never destroyed, as the table.
State& Answers() {
  static State& state = *new State;
  return state;
}

bool MayNeverAnswer(std::string_view type) {
  return type.starts_with("fuse") || std::ranges::binary_search(kServedElsewhere, type);
}

// The way to such a mount point leads through the other file system.
bool LiesBelow(std::string_view mountPoint, std::string_view other) {
  return mountPoint.size() > other.size() && mountPoint.starts_with(other) &&
         (other.ends_with('/') || mountPoint[other.size()] == '/');
}

bool LiesBelowServed(std::string_view mountPoint) {
  return std::ranges::any_of(Answers().served,
                             [mountPoint](const std::string& served) { return LiesBelow(mountPoint, served); });
}

bool IsOver(Question& question) {
  if (question.child != 0 && ::waitpid(question.child, nullptr, WNOHANG) != 0) question.child = 0;
  return question.child == 0 && Clock::now() - question.asked >= kSilence;
}

bool OwesAnswer(const char* mountPoint) {
  std::vector<Question>& unanswered = Answers().unanswered;
  std::erase_if(unanswered, IsOver);
  return std::ranges::find(unanswered, mountPoint, &Question::mountPoint) != unanswered.end();
}

// In the child: nothing but system calls, since another thread may have held any lock.
[[noreturn]] void Answer(const char* mountPoint, int answerFd) {
  ::prctl(PR_SET_NAME, "statvfs");
  if (answerFd != 3) ::dup2(answerFd, 3);
  ::close_range(4, ~0U, 0);
  for (const int standard : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO})
    ::close(standard);
  struct statvfs info {};
  if (::statvfs(mountPoint, &info) == 0) [[maybe_unused]]
    const ssize_t written = ::write(3, &info, sizeof info);
  ::_exit(0);
}

// The child has every signal blocked: it is this process' handlers that a signal would run.
pid_t StartChild(const char* mountPoint, int answerFd) {
  sigset_t all;
  sigset_t before;
  ::sigfillset(&all);
  ::pthread_sigmask(SIG_SETMASK, &all, &before);
  const pid_t child = ::fork();
  if (child == 0) Answer(mountPoint, answerFd);
  ::pthread_sigmask(SIG_SETMASK, &before, nullptr);
  return child;
}

// Each silence halves the time for the next question of the same scan.
int PatienceMs() {
  State& state = Answers();
  if (Clock::now() - state.lastSilence > kRound) state.silentCount = 0;
  return std::max(kAnswerMs >> std::min(state.silentCount, 10), kShortestAnswerMs);
}

void CountSilence() {
  State& state = Answers();
  ++state.silentCount;
  state.lastSilence = Clock::now();
}

bool WaitForAnswer(int fd, int patienceMs) {
  const Clock::time_point end = Clock::now() + std::chrono::milliseconds(patienceMs);
  pollfd answer{fd, POLLIN, 0};
  while (true) {
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(end - Clock::now()).count();
    const int found = ::poll(&answer, 1, static_cast<int>(std::max<long long>(left, 0)));
    if (found > 0) return true;
    if (found == 0 || errno != EINTR) return false;
  }
}

bool AskInChild(const mount_entry& entry, struct statvfs& info) {
  std::array<int, 2> ends = {-1, -1};
  if (::pipe2(ends.data(), O_CLOEXEC) != 0) return false;
  const UniqueFd reader(ends[0]);
  UniqueFd writer(ends[1]);
  const pid_t child = StartChild(entry.mount_point, writer.Get());
  if (child < 0) return false;
  writer.Reset();
  Answers().unanswered.push_back({entry.mount_point, child, Clock::now()});
  const int patienceMs = PatienceMs();
  if (!WaitForAnswer(reader.Get(), patienceMs)) {
    TRACE(2, "\nstatvfs: '%s' of type '%s' did not answer within %d ms, it counts as full", entry.mount_point,
          entry.type, patienceMs);
    ::kill(child, SIGKILL);
    CountSilence();
    return false;
  }
  struct statvfs answer {};
  const bool isWhole = ReadSome(reader.Get(), reinterpret_cast<char*>(&answer), sizeof answer) == sizeof answer;
  ::waitpid(child, nullptr, 0);
  Answers().unanswered.pop_back();
  if (isWhole) info = answer;
  return isWhole;
}

}  // namespace

void forget_mounts() {
  Answers().served.clear();
}

void note_mount(const char* mountPoint, const char* type) {
  if (MayNeverAnswer(type)) Answers().served.emplace_back(mountPoint);
}

bool ask_fs_info(const mount_entry& entry, struct statvfs& info) {
  if (!MayNeverAnswer(entry.type) && !LiesBelowServed(entry.mount_point)) {
    return ::statvfs(entry.mount_point, &info) == 0;
  }
  return !OwesAnswer(entry.mount_point) && AskInChild(entry, info);
}
