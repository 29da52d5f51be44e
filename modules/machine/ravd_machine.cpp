// ravd-machine hardware [serials] | volumes: tells the modules what there is, one record a line (machine_record.h).
// It ends with the process that started it.

#include <signal.h>
#include <sys/prctl.h>

#include <cstdio>
#include <cstring>

#include "machine/machine_scan.h"

int main(int argc, char** argv) {
  ::prctl(PR_SET_PDEATHSIG, SIGKILL);
  const char* what = argc > 1 ? argv[1] : "";
  MachineRecords records;
  if (std::strcmp(what, "hardware") == 0) {
    records = ScanMachine(argc > 2 && std::strcmp(argv[2], "serials") == 0);
  } else if (std::strcmp(what, "volumes") == 0) {
    records = ScanVolumes();
  } else {
    std::fputs("usage: ravd-machine hardware [serials] | volumes\n", stderr);
    return 2;
  }
  const std::string text = ToText(records);
  return std::fwrite(text.data(), 1, text.size(), stdout) == text.size() && std::fflush(stdout) == 0 ? 0 : 1;
}
