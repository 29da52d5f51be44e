// The load of this machine: load_sampler [SECONDS] prints a line a second, then the average.

#include <unistd.h>

#include <cstdio>
#include <cstdlib>

#include "perfmon/perf_mon.h"

int main(int argc, char** argv) {
  const int seconds = argc > 1 ? std::atoi(argv[1]) : 5;
  if (seconds < 1) return 1;
  CPerfMon monitor(static_cast<unsigned int>(seconds) + 2);
  if (!monitor.StartMonitoring(CPerfMon::systemCpu | CPerfMon::memory, 1000)) {
    std::fprintf(stderr, "nothing to sample here\n");
    return 1;
  }
  unsigned char cpu = 0;
  unsigned char memory = 0;
  for (int second = 0; second < seconds; ++second) {
    ::sleep(1);
    if (monitor.GetCurrentPercent(CPerfMon::cpuUsed, cpu, 0) &&
        monitor.GetCurrentPercent(CPerfMon::memoryPhysical, memory, 0))
      std::printf("processors %3u %%   memory %3u %%\n", cpu, memory);
  }
  monitor.GetAveragePercent(CPerfMon::cpuUsed, cpu, 0);
  std::printf("on average %3u %% of the processors\n", cpu);
}
