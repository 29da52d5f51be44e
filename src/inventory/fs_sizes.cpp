#include "inventory/fs_sizes.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/statvfs.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <limits>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "platform/child_start.h"
#include "platform/descriptor_io.h"
#include "platform/unique_fd.h"
#include "trace/debug.h"

namespace {

using Clock = std::chrono::steady_clock;

constexpr int kAnswerMs = 1000;
constexpr int kEndMs = 50;                             // for a killed helper to be gone
constexpr auto kSilence = std::chrono::minutes(1);     // until the next question
constexpr auto kForgotten = std::chrono::minutes(10);  // not mounted any more
constexpr int kMaxSilences = 5;                        // waited for in one call

// ---- the helper, where another thread may have held any lock: system calls only

// Opened as a path, a place where an automounter waits is looked at and not mounted.
fs_info Ask(const char* mountPoint) {
  fs_info info;
  info.answer = kRefused;
  const int place = ::open(mountPoint, O_PATH | O_CLOEXEC);
  struct statvfs answer {};
  if (place >= 0 && ::fstatvfs(place, &answer) == 0) {
    info = {kAnswered, answer.f_blocks, answer.f_bfree, answer.f_bavail, answer.f_frsize, answer.f_bsize};
  }
  if (place >= 0) ::close(place);
  return info;
}

constexpr int kHelperPipe = 3;

[[noreturn]] void AnswerAll(std::span<const fs_question* const> questions, int pipe, unsigned int endOfDescriptors) {
  ::prctl(PR_SET_NAME, "statvfs");
  if (pipe != kHelperPipe) ::dup2(pipe, kHelperPipe);
  CloseDescriptors(kHelperPipe + 1, endOfDescriptors);
  for (const int standard : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO})
    ::close(standard);
  for (const fs_question* question : questions) {
    const fs_info info = Ask(question->mount_point);
    if (::write(kHelperPipe, &info, sizeof info) != sizeof info) break;
  }
  ::_exit(0);
}

// ---- what is kept from call to call

struct Silence {
  std::string server;
  pid_t helper;
  Clock::time_point asked;
};

struct State {
  std::map<std::string, Silence, std::less<>> silences;  // by mount point
  std::vector<pid_t> hanging;                            // helpers that were killed and have not ended yet
};

// Never destroyed, as the mount table.
State& Kept() {
  static State& state = *new State;
  return state;
}

bool HasEnded(pid_t helper) {
  return ::waitpid(helper, nullptr, WNOHANG) != 0;
}

// ---- the helper, seen from outside

class Helper {
 public:
  explicit Helper(std::span<fs_question* const> questions) : m_Questions(questions) {
    Kept().hanging.reserve(Kept().hanging.size() + 1);
    std::array<int, 2> ends = {-1, -1};
    if (::pipe2(ends.data(), O_CLOEXEC) != 0) return;
    m_Pipe.Reset(ends[0]);
    const UniqueFd writer(ends[1]);
    // Every signal is blocked in the helper: it is the handlers of this process that one would run.
    const unsigned int endOfDescriptors = DescriptorLimit();
    sigset_t all;
    sigset_t before;
    ::sigfillset(&all);
    ::pthread_sigmask(SIG_SETMASK, &all, &before);
    m_Process = ::fork();
    if (m_Process == 0) AnswerAll(questions, writer.Get(), endOfDescriptors);
    ::pthread_sigmask(SIG_SETMASK, &before, nullptr);
  }
  // Left in the list when it hangs in the kernel.
  ~Helper() {
    if (m_Process <= 0 || HasEnded(m_Process)) return;
    ::kill(m_Process, SIGKILL);
    Kept().hanging.push_back(m_Process);
  }
  Helper(const Helper&) = delete;
  Helper& operator=(const Helper&) = delete;

  // 0 or less: it could not be started.
  pid_t Process() const { return m_Process; }

  // Takes the answers in their order; how many there were before a silence or the end.
  size_t TakeAnswers() {
    size_t taken = 0;
    std::array<fs_info, 1024> answers;
    while (taken < m_Questions.size() && WaitForAnswer()) {
      const ssize_t size = ReadSome(m_Pipe.Get(), reinterpret_cast<char*>(answers.data()), sizeof answers);
      if (size <= 0) break;  // it was ended by somebody else
      const size_t count = std::min(static_cast<size_t>(size) / sizeof(fs_info), m_Questions.size() - taken);
      for (size_t index = 0; index < count; ++index)
        m_Questions[taken++]->info = answers[index];
      if (taken < m_Questions.size()) ::poll(nullptr, 0, 1);  // for more: not a wake-up for each
    }
    return taken;
  }

  void End() {
    ::kill(m_Process, SIGKILL);
    for (int waitedMs = 0; waitedMs < kEndMs && m_Process > 0; ++waitedMs) {
      if (HasEnded(m_Process))
        m_Process = 0;
      else
        ::poll(nullptr, 0, 1);
    }
  }

 private:
  bool WaitForAnswer() const {
    const Clock::time_point end = Clock::now() + std::chrono::milliseconds(kAnswerMs);
    pollfd answer{m_Pipe.Get(), POLLIN, 0};
    while (true) {
      const auto left = std::chrono::ceil<std::chrono::milliseconds>(end - Clock::now()).count();
      const int found = ::poll(&answer, 1, static_cast<int>(std::max<long long>(left, 0)));
      if (found > 0) return true;
      if (found == 0 || errno != EINTR) return false;
    }
  }

  std::span<fs_question* const> m_Questions;
  UniqueFd m_Pipe;
  pid_t m_Process = -1;
};

// ---- the way through the questions

// Whether a mount point is left alone, a minute long and while a helper hangs there.
bool IsLeftAlone(const Silence& silence) {
  return Clock::now() - silence.asked < kSilence ||
         std::ranges::find(Kept().hanging, silence.helper) != Kept().hanging.end();
}

// Whether the way to a mount point leads through one of the others. The root leads everywhere and holds nobody up.
template <typename Places>
bool LiesBelow(std::string_view mountPoint, const Places& others) {
  for (size_t slash = mountPoint.rfind('/'); slash != 0 && slash != std::string_view::npos;
       slash = mountPoint.rfind('/', slash - 1)) {
    if (others.contains(mountPoint.substr(0, slash))) return true;
  }
  return false;
}

class Walk {
 public:
  Walk(std::span<fs_question> questions, const std::atomic<bool>* stop) : m_Stop(stop) {
    std::erase_if(Kept().hanging, HasEnded);
    std::erase_if(Kept().silences, [](const auto& each) {
      return !IsLeftAlone(each.second) && Clock::now() - each.second.asked > kForgotten;
    });
    for (const auto& [mountPoint, silence] : Kept().silences)
      if (IsLeftAlone(silence)) TakeAsSilent(mountPoint, silence.server);
    PutInTurn(questions);
    CloseSilent();
  }

  void Run() {
    for (int silences = 0; !m_Open.empty() && silences < kMaxSilences; ++silences) {
      Helper helper(m_Open);
      if (helper.Process() <= 0) {
        TRACE(1, "\nstatvfs: no helper could be started, %zu file systems are not asked", m_Open.size());
        return;
      }
      const size_t answered = helper.TakeAnswers();
      for (size_t index = 0; index < answered && !Kept().silences.empty(); ++index)
        Kept().silences.erase(m_Open[index]->mount_point);
      if (answered < m_Open.size()) NoteSilence(*m_Open[answered], helper.Process());
      helper.End();
      m_Open.erase(m_Open.begin(), m_Open.begin() + static_cast<ptrdiff_t>(answered));
      CloseSilent();
      if (m_Stop != nullptr && *m_Stop) return;
    }
  }

 private:
  // Those that were silent come behind the others, the one that was asked last at the end; then what lies below them.
  static Clock::time_point Turn(const fs_question& question) {
    const auto& silences = Kept().silences;
    const auto silence = silences.find(std::string_view(question.mount_point));
    if (silence != silences.end()) return silence->second.asked;
    return LiesBelow(question.mount_point, silences) ? Clock::time_point::max() : Clock::time_point::min();
  }

  void PutInTurn(std::span<fs_question> questions) {
    m_Open.reserve(questions.size());
    std::vector<std::pair<Clock::time_point, fs_question*>> turns;
    turns.reserve(questions.size());
    for (fs_question& question : questions)
      turns.emplace_back(Turn(question), &question);
    std::ranges::stable_sort(turns, {}, &std::pair<Clock::time_point, fs_question*>::first);
    for (const auto& [turn, question] : turns)
      m_Open.push_back(question);
  }

  void TakeAsSilent(const std::string& mountPoint, const std::string& server) {
    m_SilentPlaces.insert(mountPoint);
    if (!server.empty()) m_SilentServers.insert(server);
  }

  void NoteSilence(const fs_question& question, pid_t helper) {
    TRACE(2, "\nstatvfs: '%s' did not answer within %d ms", question.mount_point, kAnswerMs);
    const std::string server(question.server);
    Kept().silences.insert_or_assign(question.mount_point, Silence{server, helper, Clock::now()});
    TakeAsSilent(question.mount_point, server);
  }

  bool IsSilent(const fs_question& question) const {
    return m_SilentPlaces.contains(std::string_view(question.mount_point)) ||
           m_SilentServers.contains(question.server) || LiesBelow(question.mount_point, m_SilentPlaces);
  }

  void CloseSilent() {
    if (m_SilentPlaces.empty()) return;
    std::erase_if(m_Open, [this](fs_question* question) {
      if (!IsSilent(*question)) return false;
      question->info.answer = kSilent;
      return true;
    });
  }

  const std::atomic<bool>* m_Stop;
  std::vector<fs_question*> m_Open;  // in their turn
  std::set<std::string, std::less<>> m_SilentPlaces;
  std::set<std::string, std::less<>> m_SilentServers;
};

}  // namespace

void ask_fs_infos(std::span<fs_question> questions, const std::atomic<bool>* stop) {
  Walk(questions, stop).Run();
}

std::string_view get_fs_server(std::string_view source, std::string_view type) {
  if (source.starts_with("//")) return source.substr(0, source.find('/', 2));
  if (source.starts_with('/')) return {};
  const size_t end = std::min(source.find(":/"), source.find_last_of(':'));
  if (end != std::string_view::npos) return source.substr(0, end);
  return type.starts_with("fuse") && source != "none" ? source : std::string_view();
}

// ---- entries

namespace {

__extension__ typedef unsigned __int128 Wide;  // a block count times a block size

void TraceAnswer(const mount_entry& entry, const fs_info& info, bool isNew) {
  const auto blocks = static_cast<long long>(info.blocks);
  const auto unit = static_cast<long>(info.unit);
  const auto blockSize = static_cast<long>(info.block_size);
  const auto free = static_cast<long long>(info.free_blocks);
  const auto available = static_cast<long long>(info.available_blocks);
  if (isNew) {
    TRACE(3, "\nadd_mount_entry: fs '%s' f_blocks %lld f_frsize %ld f_bsize %ld f_bfree %lld f_bavail %lld",
          entry.mount_point, blocks, unit, blockSize, free, available);
  } else {
    TRACE(3, "\nget_fs_table: fs '%s' f_blocks %lld f_frsize %ld f_bsize %ld f_bfree %lld f_bavail %lld\n",
          entry.mount_point, blocks, unit, blockSize, free, available);
  }
}

}  // namespace

uint64_t get_kib(uint64_t count, uint64_t unit) {
  const Wide size = unit % 1024 == 0 ? Wide{count} * (unit / 1024) : Wide{count} * unit / 1024;
  return static_cast<uint64_t>(std::min(size, Wide{std::numeric_limits<uint64_t>::max()}));
}

uint32_t get_used_percent(uint64_t blocks, uint64_t available) {
  if (blocks == 0) return 100;
  if (available >= blocks) return 0;
  return static_cast<uint32_t>(Wide{blocks - available} * 100 / blocks);
}

void set_fs_sizes(mount_entry& entry, const fs_info& info, bool isNew) {
  entry.answer = info.answer;
  if (info.answer == kRefused) {
    entry.used_percent = 100;
    entry.available = 0;
    entry.available_blocks = 0;
  }
  if (info.answer != kAnswered) return;
  TraceAnswer(entry, info, isNew);
  if (isNew || std::string_view(entry.device).starts_with("/dev/")) {
    entry.blocks = info.blocks;
    entry.size = get_kib(info.blocks, info.unit);
    entry.block_size = static_cast<uint32_t>(info.block_size / 512);
  }
  entry.available_blocks = info.available_blocks;
  entry.available = get_kib(info.available_blocks, info.unit);
  entry.used_percent = get_used_percent(info.blocks, info.available_blocks);
}
