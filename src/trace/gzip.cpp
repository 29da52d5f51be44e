#include "trace/gzip.h"

#include <fcntl.h>
#include <spawn.h>
#include <unistd.h>

#include <csignal>
#include <initializer_list>

#include "platform/child_start.h"

namespace {

// Attributes and descriptors of a child: no signal blocked or ignored, nothing to read and nobody to write to.
class QuietSpawn {
 public:
  QuietSpawn() {
    sigset_t signals;
    ::posix_spawnattr_init(&m_Attributes);
    ::posix_spawnattr_setflags(&m_Attributes, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
    ::sigemptyset(&signals);
    ::posix_spawnattr_setsigmask(&m_Attributes, &signals);
    for (const int signal : {SIGPIPE, SIGIO, SIGXFSZ, SIGHUP})
      ::sigaddset(&signals, signal);
    ::posix_spawnattr_setsigdefault(&m_Attributes, &signals);
    ::posix_spawn_file_actions_init(&m_Actions);
    for (int fd = STDIN_FILENO; fd <= STDERR_FILENO; ++fd)
      ::posix_spawn_file_actions_addopen(&m_Actions, fd, "/dev/null", O_RDWR, 0);
    ::posix_spawn_file_actions_addclosefrom_np(&m_Actions, STDERR_FILENO + 1);
  }
  ~QuietSpawn() {
    ::posix_spawn_file_actions_destroy(&m_Actions);
    ::posix_spawnattr_destroy(&m_Attributes);
  }
  QuietSpawn(const QuietSpawn&) = delete;
  QuietSpawn& operator=(const QuietSpawn&) = delete;

  // -1 when the program cannot be started.
  pid_t Start(const char* program, char* const* arguments) {
    pid_t child = -1;
    return ::posix_spawnp(&child, program, &m_Actions, &m_Attributes, arguments, environ) == 0 ? child : -1;
  }

 private:
  posix_spawnattr_t m_Attributes;
  posix_spawn_file_actions_t m_Actions;
};

// Where somebody ignores the end of children, or has taken this one's, the status is lost: the file tells then.
bool HasSucceeded(pid_t child, const char* path) {
  int status = 0;
  return WaitForEnd(child, status) ? status == 0 : ::access(path, F_OK) != 0;
}

}  // namespace

bool CompressWithGzip(const char* path) {
  const char* arguments[] = {"gzip", "-f", "--", path, nullptr};
  const pid_t child = QuietSpawn().Start(arguments[0], const_cast<char* const*>(arguments));
  return child > 0 && HasSucceeded(child, path);
}
