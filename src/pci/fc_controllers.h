#pragma once

#include <array>
#include <chrono>
#include <cstdint>
#include <string_view>

// The Fibre Channel controllers of the machine with their world wide names: a process-wide cache, filled from sysfs by
// RefreshFcControllers and empty before. One thread at a time; what cannot be read is left out.

using FcWwn = std::array<unsigned char, 8>;  // port name, most significant byte first

struct FcController {
  unsigned domain = 0;
  unsigned bus = 0;
  unsigned device = 0;
  unsigned function = 0;
  unsigned host = 0;  // number of its SCSI host
  FcWwn wwn = {};
};

// Empties the cache and fills it anew, unless less than 120 seconds have passed since the last time. The caller says
// what time it is.
void RefreshFcControllers(std::chrono::steady_clock::time_point now);

// Whether the function is a controller of the cache. Its WWN is copied into the buffer, at most length bytes; the rest,
// or all of it for any other function, is zero.
bool IsFCController(unsigned domain, unsigned bus, unsigned device, unsigned function, unsigned char* buffer,
                    size_t length);

// The same in domain 0, which the legacy tables show. The output stays as it was for any other function.
bool AdapterIsFCController(unsigned bus, unsigned device, unsigned function, FcWwn& wwn);

// The parsers. Pure; an input of another form gives false.

// "/sys/devices/pci0000:00/0000:00:03.0/host2/fc_host/host2" => 0000:00:03.0 and host 2, without the WWN. A domain of
// more than four digits is none.
bool ParseFcHostPath(std::string_view path, FcController& out);

// "0x10000090fa534f0a\n" => the 8 bytes
bool ParseWwn(std::string_view text, FcWwn& out);
