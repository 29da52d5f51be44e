// Shows the live trace of an application on the screen: follows its start-up ring buffer, then its run-time ring
// buffer, until the process ends.
//
// Usage: trace_follow DIRECTORY APPLICATION PID

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>

#include "platform/unique_fd.h"

namespace {

constexpr std::string_view kEndMarker = "## TRACE-END ##\n";
constexpr std::string_view kBegin = "### Begin of RingBuffer. ###\n";
constexpr useconds_t kPollUs = 100000;

// One ring buffer file, mapped for reading, and how much of it was shown.
class RingBufferView {
 public:
  ~RingBufferView() { Close(); }

  // False while there is no such file, or when it is the one that is shown already.
  bool Open(const std::string& path) {
    const UniqueFd file(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
    struct stat info {};
    if (!file || ::fstat(file.Get(), &info) != 0 || info.st_size == 0 || info.st_ino == m_Inode) return false;
    const auto size = static_cast<size_t>(info.st_size);
    void* mapping = ::mmap(nullptr, size, PROT_READ, MAP_SHARED, file.Get(), 0);
    if (mapping == MAP_FAILED) return false;
    Close();
    m_Text = std::string_view(static_cast<const char*>(mapping), size);
    m_Inode = info.st_ino;
    m_Shown = m_Begin = 0;
    return true;
  }

  // Prints what was written since the last call, over a wrap too.
  void Show() {
    if (m_Begin == 0) {
      const size_t begin = m_Text.find(kBegin);
      if (begin == std::string_view::npos) return;
      m_Shown = m_Begin = begin + kBegin.size();
    }
    size_t end = m_Text.find(kEndMarker, m_Shown);
    if (end == std::string_view::npos) {
      const size_t dots = m_Text.find_last_not_of('.');
      if (dots == std::string_view::npos || dots + 1 == m_Text.size()) return;  // an entry is being written
      Print(dots + 1);
      m_Shown = m_Begin;
      end = m_Text.find(kEndMarker, m_Shown);
    }
    if (end != std::string_view::npos) Print(end);
  }

 private:
  void Print(size_t end) {
    if (end > m_Shown) std::fwrite(m_Text.data() + m_Shown, 1, end - m_Shown, stdout);
    std::fflush(stdout);
    m_Shown = end;
  }

  void Close() {
    if (!m_Text.empty()) ::munmap(const_cast<char*>(m_Text.data()), m_Text.size());
    m_Text = {};
  }

  std::string_view m_Text;
  ino_t m_Inode = 0;
  size_t m_Begin = 0;  // where entries go on after a wrap; 0 = not found yet
  size_t m_Shown = 0;
};

}  // namespace

int main(int argc, char** argv) {
  if (argc != 4) {
    std::fprintf(stderr, "usage: %s DIRECTORY APPLICATION PID\n", argv[0]);
    return 2;
  }
  std::signal(SIGINT, SIG_IGN);  // Ctrl-C stops the application, whose last words are still to be shown
  const std::string base = std::string(argv[1]) + "/log." + argv[2];
  const auto pid = static_cast<pid_t>(std::atoi(argv[3]));
  RingBufferView view;
  view.Open(base + "_i");
  for (bool running = true; running;) {
    running = ::kill(pid, 0) == 0;
    view.Show();
    if (view.Open(base + "_a")) view.Show();
    ::usleep(kPollUs);
  }
  return 0;
}
