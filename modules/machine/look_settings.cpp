#include "machine/look_settings.h"

#include <algorithm>

#include "machine/machine_query.h"

void LookSettings::Read(const CIniFile& file, const char* section) {
  intervalSeconds = std::max(file.GetNumber(section, "Interval", intervalSeconds), 1U);
  volumeSeconds = std::max(file.GetNumber(section, "Volumes", volumeSeconds), 10U);
  rescanSeconds = std::max(file.GetNumber(section, "Rescan", rescanSeconds), 60U);
  withSerialNumbers = file.GetNumber(section, "SerialNumbers", 0) != 0;
  program = MachineQuery::FindProgram();
}

bool IsTime(std::chrono::steady_clock::time_point& last, unsigned int seconds) {
  const auto now = std::chrono::steady_clock::now();
  if (last != std::chrono::steady_clock::time_point() && now - last < std::chrono::seconds(seconds)) return false;
  last = now;
  return true;
}
