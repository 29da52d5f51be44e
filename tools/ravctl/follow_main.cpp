// follow_trace: the entries of an application's ring buffers as they come, until a process has ended. What `ravctl
// trace follow` does without its options, for a build that leaves ravctl out.
//
// usage: follow_trace DIRECTORY APPLICATION PID

#include <cstdio>
#include <cstdlib>
#include <exception>

#include "ravctl/base/text.h"
#include "ravctl/trace/trace_follower.h"

namespace {

class Printer : public ravctl::EntrySink {
 public:
  void Take(std::string_view whole) override {
    while (whole.ends_with('\n'))
      whole.remove_suffix(1);
    std::puts(ravctl::Printable(whole).c_str());
  }
  void GoLive() override {}
  void Flush() override { std::fflush(stdout); }
  bool IsClosed() const override { return std::ferror(stdout) != 0; }
  void WarnAboutLoss(const std::string& path) override {
    std::fprintf(stderr, "follow_trace: entries were overwritten before they could be read: %s\n", path.c_str());
  }
};

}  // namespace

int main(int argc, char** argv) {
  if (argc != 4) {
    std::fprintf(stderr, "usage: follow_trace DIRECTORY APPLICATION PID\n");
    return 2;
  }
  ravctl::FollowedTrace trace;
  trace.directory = argv[1];
  const std::string ring = trace.directory + "/log." + argv[2];
  trace.start = ring + "_i";
  trace.run = ring + "_a";
  trace.pid = std::atoi(argv[3]);
  Printer printer;
  try {
    ravctl::FollowTrace(trace, printer);
  } catch (const std::exception& error) {
    std::fprintf(stderr, "follow_trace: %s\n", error.what());
    return 1;
  }
  return 0;
}
