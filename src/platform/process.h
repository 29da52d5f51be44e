#pragma once

#include <cstdint>
#include <string>

// Operations on processes, without any state. Nothing here traces or throws; a failure shows in the result alone.
class CProcess {
 public:
  // By how many steps of 1024 a memory value is divided.
  enum unit : unsigned int { bytes = 0, kilobytes = 1, megabytes = 2, gigabytes = 3 };

  // Value of one line of the status file of a process; key with its colon, as in "VmRSS:". When the file or the key is
  // missing, value keeps what the caller put there, divided all the same.
  static void GetProcessMemorySpecificInfo(uint32_t pid, uint64_t& value, const std::string& key, unit inUnit);
};
