// net watch: changes of the interfaces as they happen.

#include <fcntl.h>
#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>

#include "netif/network_interface_manager.h"
#include "ravctl/answer/stream_table.h"
#include "ravctl/commands/net/group.h"
#include "ravctl/daemon/signal_watch.h"
#include "ravctl/line/command.h"
#include "ravctl/network/links.h"

namespace ravctl {

namespace {

struct WatchOptions {
  std::string interface;
  size_t count = 0;      // 0 = without end
  double timeout = 0.0;  // seconds, 0 = without end
};

// The library's listener process. It tells through a pipe that something has changed.
class Listener {
 public:
  Listener() {
    std::array<int, 2> ends{};
    if (::pipe2(ends.data(), O_CLOEXEC | O_NONBLOCK) != 0) throw SystemFailure("cannot watch", "pipe", errno);
    m_News.Reset(ends[0]);
    const UniqueFd writeEnd(ends[1]);
    using libnetif::interface_change_event_type;
    try {
      m_Pid = libnetif::network_interface_manager().add_network_interface_change_event(
          interface_change_event_type::link_changes | interface_change_event_type::ipv4_address_changes,
          [fd = writeEnd.Get()](const libnetif::network_interface&) {
            // A full pipe tells of changes as well as a fuller one would.
            const ssize_t written = ::write(fd, "\n", 1);
            static_cast<void>(written);
          });
    } catch (const libnetif::libnetif_exception& failure) {
      throw NetworkFailure(failure);
    }
  }

  ~Listener() {
    ::kill(m_Pid, SIGHUP);
    while (::waitpid(m_Pid, nullptr, 0) < 0 && errno == EINTR) {
    }
  }
  Listener(const Listener&) = delete;
  Listener& operator=(const Listener&) = delete;

  int Descriptor() const { return m_News.Get(); }

  // Takes the news off. False when the listener has ended.
  bool Drain() const {
    std::array<char, 256> news{};
    ssize_t size = 0;
    while ((size = ::read(m_News.Get(), news.data(), news.size())) > 0) {
    }
    return size < 0 && errno == EAGAIN;
  }

 private:
  UniqueFd m_News;
  pid_t m_Pid = 0;
};

// Shows how the interfaces differ from what they were when they were last looked at.
class ChangeWriter {
 public:
  ChangeWriter(const WatchOptions& options, Output& out)
      : m_Options(options),
        m_Table(out, {"net-change"},
                {{{.key = "time", .heading = "TIME"}, 23},
                 {{.key = "interface", .heading = "INTERFACE"}, 15},
                 {{.key = "event", .heading = "EVENT", .color = EventColor}, 7},
                 {{.key = "property", .heading = "PROPERTY"}, 9},
                 {{.key = "before", .heading = "BEFORE"}, 17},
                 {{.key = "after", .heading = "AFTER"}, 17}}),
        m_Known(ReadLinks()) {}

  size_t Written() const { return m_Written; }
  bool IsDone() const { return m_Options.count > 0 && m_Written >= m_Options.count; }

  void Look() {
    const std::vector<Link> links = ReadLinks();
    const std::string time = LocalTimeNow();
    for (const Link& old : m_Known) {
      if (Find(links, old.index) == nullptr) Write(time, old.name, "removed");
    }
    for (const Link& link : links) {
      const Link* old = Find(m_Known, link.index);
      if (old == nullptr) Write(time, link.name, "added");
      // What an interface came with is told as what it changed from nothing.
      Compare(time, old != nullptr ? *old : Link{.name = link.name}, link);
    }
    m_Known = links;
  }

 private:
  static Color EventColor(const Json& row) {
    const std::string event = row["event"];
    return event == "added" ? Color::kGreen : event == "removed" ? Color::kRed : Color::kNone;
  }

  static const Link* Find(const std::vector<Link>& links, int index) {
    const auto found = std::ranges::find(links, index, &Link::index);
    return found != links.end() ? &*found : nullptr;
  }

  void Compare(const std::string& time, const Link& old, const Link& link) {
    const bool isNew = old.index == 0;
    const auto compare = [&](const char* property, const std::string& before, const std::string& after) {
      if (before != after) Write(time, link.name, "changed", property, before, after);
    };
    const auto number = [](int value) { return value == 0 ? std::string() : std::to_string(value); };
    compare("name", old.name, link.name);
    compare("state", isNew ? "" : StateOf(old.flags), StateOf(link.flags));
    compare("mac", old.mac, link.mac);
    compare("mtu", number(old.mtu), number(link.mtu));
    compare("speed", number(old.speed), number(link.speed));
    for (const std::string& address : old.addresses) {
      if (std::ranges::count(link.addresses, address) == 0) compare("address", address, "");
    }
    for (const std::string& address : link.addresses) {
      if (std::ranges::count(old.addresses, address) == 0) compare("address", "", address);
    }
  }

  void Write(const std::string& time, const std::string& name, const char* event, const char* property = "",
             const std::string& before = {}, const std::string& after = {}) {
    if (IsDone() || (!m_Options.interface.empty() && name != m_Options.interface)) return;
    const auto text = [](const std::string& value) { return value.empty() ? Json() : Json(value); };
    m_Table.Add({{"time", time},
                 {"interface", name},
                 {"event", event},
                 {"property", text(property)},
                 {"before", text(before)},
                 {"after", text(after)}});
    ++m_Written;
  }

  const WatchOptions& m_Options;
  StreamTable m_Table;
  std::vector<Link> m_Known;
  size_t m_Written = 0;
};

ExitCode RunWatch(const WatchOptions& options, Output& out) {
  const SignalWatch signals({SIGINT, SIGTERM, SIGHUP});
  // The listener first: what changes from here on is either in the first look or told.
  const Listener listener;
  ChangeWriter writer(options, out);
  if (::isatty(STDERR_FILENO) == 1 && out.IsTerminal()) std::fputs("waiting for changes, Ctrl-C ends\n", stderr);
  const Clock::time_point end = Clock::now() + Seconds(options.timeout);
  while (!writer.IsDone() && !out.IsClosed()) {
    std::array<pollfd, 3> files = {
        {{listener.Descriptor(), POLLIN, 0}, {signals.Descriptor(), POLLIN, 0}, {STDOUT_FILENO, 0, 0}}};
    ::poll(files.data(), files.size(), options.timeout > 0.0 ? TimeoutUntil(end) : -1);
    if (signals.Take() != 0 || files[2].revents != 0) return ExitCode::kDone;
    if (files[0].revents != 0) {
      if (!listener.Drain()) throw CommandError(ExitCode::kInternal, "the watch has ended", "listener process", "");
      writer.Look();
    } else if (options.timeout > 0.0 && Clock::now() >= end) {
      return writer.Written() > 0 ? ExitCode::kDone : ExitCode::kNothingOrDifferent;
    }
  }
  return ExitCode::kDone;
}

}  // namespace

void AddNetWatch(CLI::App& net) {
  auto options = std::make_shared<WatchOptions>();
  CLI::App& watch = AddCommand(
      net,
      {"watch",
       "Show changes of the network interfaces as they happen (of IPv6 addresses, together with the next other one)",
       {{"ravctl net watch --timeout 60", "for a minute; status 1 when nothing changed"},
        {"ravctl net watch -i eth0 --count 1 --json --timeout 5", "the next change of eth0, as a JSON object"}},
       Effect::kChanges},
      [options](Output& out) { return RunWatch(*options, out); });
  watch.add_option("-i,--interface", options->interface, "Only changes of this interface")->type_name("NAME");
  watch.add_option("-n,--count", options->count, "End after so many changes")
      ->type_name("N")
      ->check(CLI::PositiveNumber.description(""));
  watch.add_option("-t,--timeout", options->timeout, "End after so many seconds, with status 1 when nothing changed")
      ->type_name("SECONDS")
      ->check(CLI::PositiveNumber.description(""));
}

}  // namespace ravctl
