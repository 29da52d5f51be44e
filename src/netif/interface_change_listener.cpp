#include "netif/interface_change_listener.h"

#include <pthread.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <string>
#include <string_view>
#include <vector>

#include "netif/interface_name.h"
#include "netif/kernel_answers.h"
#include "netif/libnetif_exception.h"
#include "netif/libnetif_socket.h"
#include "netif/network_interface_manager.h"

namespace libnetif {

namespace {

constexpr std::string_view listener_name = "interface change entry";
constexpr int listener_receive_buffer = 1 << 20;

// Keeps SIGHUP from the calling thread for a scope. One that reaches the listener before its handler stands would
// otherwise run a handler of the parent.
class hangup_blocker {
 public:
  hangup_blocker() {
    sigemptyset(&m_hangup);
    sigaddset(&m_hangup, SIGHUP);
    ::pthread_sigmask(SIG_BLOCK, &m_hangup, &m_previous);
  }
  ~hangup_blocker() { ::pthread_sigmask(SIG_SETMASK, &m_previous, nullptr); }
  hangup_blocker(const hangup_blocker&) = delete;
  hangup_blocker& operator=(const hangup_blocker&) = delete;

  // For the listener: lets the signal through even where the caller had it blocked.
  void unblock() const { ::pthread_sigmask(SIG_UNBLOCK, &m_hangup, nullptr); }

 private:
  sigset_t m_hangup{};
  sigset_t m_previous{};
};

// What the listener process works with. It calls nothing that may wait for a lock of another thread of the parent, and
// it throws only where it is about to end.
class interface_change_listener {
 public:
  interface_change_listener(libnetif_socket& changes, interface_change_event_type type,
                            const network_interface_change_callback& callback)
      : m_changes(changes), m_type(type), m_callback(callback) {
    m_names.create_ip_proto_socket(AF_INET);
  }

  [[noreturn]] void receive_forever() {
    std::vector<std::byte> datagram;
    // Once the kernel has dropped a change it drops all until everything that it kept is received. So the interfaces
    // are looked at when nothing is left to receive, not when the kernel tells.
    bool has_lost_changes = false;
    for (;;) {
      if (m_changes.receive_datagram(datagram, has_lost_changes ? MSG_DONTWAIT : 0)) {
        report_changes(datagram);
      } else if (errno == ENOBUFS) {
        has_lost_changes = true;
      } else if (errno == EAGAIN && has_lost_changes) {
        has_lost_changes = false;
        report_every_interface();
      } else {
        m_changes.report_error("Receiving interface change entry failed.");
      }
    }
  }

 private:
  void report_changes(byte_span datagram) {
    const netlink_datagram_result result = walk_netlink_datagram(datagram, report_message, this);
    if (result.error) m_changes.report_error("Received interface change entry reports error.", *result.error);
  }

  static void report_message(const netlink_message& message, void* context) {
    auto& listener = *static_cast<interface_change_listener*>(context);
    interface_change change;
    if (!parse_interface_change(message, listener.m_type, change)) return;
    const std::string name = listener.name_of(change);
    if (!name.empty()) listener.report(network_interface(name));
  }

  std::string name_of(const interface_change& change) {
    std::string name = read_interface_name(m_names, change.interface_index);
    return name.empty() ? change.name : name;
  }

  void report_every_interface() const {
    for (const network_interface& interface : network_interface_manager().get_network_interfaces())
      report(interface);
  }

  void report(const network_interface& interface) const {
    try {
      m_callback(interface);
    } catch (...) {
      // The next change is reported all the same.
    }
  }

  libnetif_socket& m_changes;
  interface_change_event_type m_type;
  const network_interface_change_callback& m_callback;
  libnetif_socket m_names;
};

extern "C" void end_listener(int) {
  ::_exit(EXIT_SUCCESS);
}

void end_with_parent(libnetif_socket& socket, pid_t parent, const hangup_blocker& hangup) {
  if (::prctl(PR_SET_PDEATHSIG, SIGHUP) != 0) socket.report_error("Can't catch parent signals.");
  struct sigaction action {};
  action.sa_handler = end_listener;
  if (::sigaction(SIGHUP, &action, nullptr) != 0) socket.report_error("Can't add signal handler.");
  hangup.unblock();
  // The parent may have died before the first step. A parent outside the listener's process ID namespace shows as 0.
  const pid_t current = ::getppid();
  if (current != parent && current != 0) ::_exit(EXIT_SUCCESS);
}

void write_to_standard_error(std::string_view text) {
  const ssize_t written = ::write(STDERR_FILENO, text.data(), text.size());
  static_cast<void>(written);
}

// Never returns into the caller's code, of which the parent runs the original.
[[noreturn]] void run_listener(libnetif_socket& socket, pid_t parent, const hangup_blocker& hangup,
                               interface_change_event_type type,
                               const network_interface_change_callback& callback) noexcept {
  try {
    end_with_parent(socket, parent, hangup);
    interface_change_listener(socket, type, callback).receive_forever();
  } catch (const std::exception& failure) {
    write_to_standard_error(failure.what());
    write_to_standard_error("\n");
  }
  ::_exit(EXIT_FAILURE);
}

}  // namespace

pid_t start_interface_change_listener(interface_change_event_type type,
                                      const network_interface_change_callback& callback) {
  libnetif_socket socket;
  socket.create_netlink_socket();
  sockaddr_nl address{};
  address.nl_family = AF_NETLINK;
  address.nl_groups = static_cast<uint32_t>(type);
  socket.bind_netlink_socket(address, listener_name);
  socket.enlarge_receive_buffer(listener_receive_buffer);

  const hangup_blocker hangup;
  const pid_t parent = ::getpid();
  const pid_t child = ::fork();
  if (child < 0) socket.report_error("Can't fork listining process.");
  if (child == 0) run_listener(socket, parent, hangup, type, callback);
  return child;
}

}  // namespace libnetif
