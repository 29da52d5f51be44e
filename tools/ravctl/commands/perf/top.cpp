// perf top: the load of the last minutes, drawn in the terminal.

#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <csignal>

#include "ravctl/commands/perf/perf.h"
#include "ravctl/commands/perf/view.h"
#include "ravctl/daemon/signal_watch.h"
#include "ravctl/line/command.h"

namespace ravctl {

namespace {

struct TopOptions {
  double interval = 1.0;
  std::vector<std::string> interfaces;
};

enum class Wish { kNothing, kRedraw, kEnd };

void RequireTerminal(const Output& out) {
  const char* missing = out.IsJson()                   ? "--json"
                        : ::isatty(STDOUT_FILENO) != 1 ? "standard output"
                        : ::isatty(STDIN_FILENO) != 1  ? "standard input"
                                                       : nullptr;
  if (missing == nullptr) return;
  throw CommandError(ExitCode::kUsage, "only a terminal can be drawn on", missing,
                     "use ravctl perf --count 0, with --json for JSON Lines");
}

// Stops this process as the terminal's stop key does, with the terminal as it was before.
void StopUntilContinued(Screen& screen) {
  screen.Suspend();
  sigset_t stop, previous;
  sigemptyset(&stop);
  sigaddset(&stop, SIGTSTP);
  const auto handler = std::signal(SIGTSTP, SIG_DFL);
  ::raise(SIGTSTP);
  ::pthread_sigmask(SIG_UNBLOCK, &stop, &previous);  // here it stops
  ::pthread_sigmask(SIG_SETMASK, &previous, nullptr);
  std::signal(SIGTSTP, handler);
  screen.Resize();
  screen.Resume();
}

Wish TakeSignals(const SignalWatch& signals, Screen& screen) {
  Wish wish = Wish::kNothing;
  while (const int signal = signals.Take()) {
    switch (signal) {
      case SIGWINCH:
        screen.Resize();
        wish = Wish::kRedraw;
        break;
      case SIGTSTP:
        StopUntilContinued(screen);
        wish = Wish::kRedraw;
        break;
      case SIGCONT:  // after a stop that no program can see
        screen.Suspend();
        screen.Resize();
        screen.Resume();
        wish = Wish::kRedraw;
        break;
      default:
        return Wish::kEnd;
    }
  }
  return wish;
}

Wish TakeKeys(const Screen& screen, PerfView& view) {
  Wish wish = Wish::kNothing;
  while (const int key = screen.Key()) {
    if (key == 'q' || key == 'Q') return Wish::kEnd;
    if (key == '-') view.ZoomOut();
    if (key == '+') view.ZoomIn();
    if (key == '-' || key == '+') wish = Wish::kRedraw;
  }
  return wish;
}

ExitCode RunTop(const TopOptions& options, Output& out) {
  RequireTerminal(out);
  const SignalWatch signals({SIGINT, SIGTERM, SIGHUP, SIGQUIT, SIGTSTP, SIGCONT, SIGWINCH});
  PerfSampler sampler;
  // One that vanishes later may come back.
  RequireInterfaces(options.interfaces, sampler.Take());
  Screen screen(out.HasColors());
  PerfView view(StyleOfLocale(), options.interval);
  view.Draw(screen);
  const auto interval = Seconds(options.interval);
  Clock::time_point next = Clock::now() + interval;
  for (;;) {
    std::array<pollfd, 2> files = {{{STDIN_FILENO, POLLIN, 0}, {signals.Descriptor(), POLLIN, 0}}};
    ::poll(files.data(), files.size(), TimeoutUntil(next));
    Wish wish = TakeSignals(signals, screen);
    if ((files[0].revents & (POLLHUP | POLLERR)) != 0) wish = Wish::kEnd;  // the terminal is gone
    if (wish != Wish::kEnd && files[0].revents != 0) wish = std::max(wish, TakeKeys(screen, view));
    if (wish == Wish::kEnd) return ExitCode::kDone;
    if (Clock::now() >= next) {
      next = std::max(next + interval, Clock::now());
      PerfSample sample = sampler.Take();
      KeepInterfaces(options.interfaces, sample);
      view.Add(sample);
      wish = Wish::kRedraw;
    }
    if (wish == Wish::kRedraw) view.Draw(screen);
  }
}

}  // namespace

void AddPerfTop(CLI::App& perf) {
  auto options = std::make_shared<TopOptions>();
  CLI::App& top = AddCommand(perf,
                             {"top",
                              "Draw the load of the last minutes in the terminal: processors, memory and network",
                              {{"ravctl perf top", "a sample a second; q quits, - and + show more or less time"},
                               {"ravctl perf top --interval 5 -i eth0", "one in five seconds, of one interface"}},
                              Effect::kChanges},
                             [options](Output& out) { return RunTop(*options, out); });
  top.add_option("--interval", options->interval, "Seconds between two samples (1)")
      ->type_name("SECONDS")
      ->check(CLI::Range(0.1, 3600.0).description(""));
  top.add_option("-i,--interface", options->interfaces, "Only these network interfaces")
      ->type_name("NAME")
      ->expected(1)
      ->multi_option_policy(CLI::MultiOptionPolicy::TakeAll);
}

}  // namespace ravctl
