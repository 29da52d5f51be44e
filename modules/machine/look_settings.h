#pragma once

#include <chrono>
#include <string>

#include "platform/ini_file.h"

// How often a module looks at the machine: keys of its section of kModulesFile, with what counts where nothing is said.
struct LookSettings {
  unsigned int intervalSeconds =
      15;                            // Interval: between two samples, and two looks at links and at what comes and goes
  unsigned int volumeSeconds = 300;  // Volumes: between two looks at the volumes
  unsigned int rescanSeconds = 3600;  // Rescan: between two looks at the hardware; what comes or goes is seen at once
  bool withSerialNumbers = false;     // SerialNumbers: of machine, memory modules and drives
  std::string program;                // not a setting: that of MachineQuery

  void Read(const CIniFile& file, const char* section);
};

// True at first and whenever that many seconds have passed; last is then now. A time of no value makes it due.
bool IsTime(std::chrono::steady_clock::time_point& last, unsigned int seconds);
