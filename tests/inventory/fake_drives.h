#pragma once

#include <scsi/sg.h>

#include <algorithm>
#include <array>
#include <functional>
#include <map>
#include <string>

#include "support/fake_ioctl.h"

// Device nodes that answer INQUIRY: by default as the table says, with an error for nodes that it does not have.
struct FakeDrive {
  std::string vendor;
  std::string product;
  std::string serial;
};

class FakeDrives {
 public:
  explicit FakeDrives(std::map<std::string, FakeDrive> drives)
      : m_Ioctl([drives](const std::string& path, unsigned long request, void* argument) -> std::optional<int> {
          const auto drive = drives.find(path);
          if (request != SG_IO) return std::nullopt;
          return drive == drives.end() ? -EIO : Answer(*static_cast<sg_io_hdr*>(argument), drive->second);
        }) {}

  static int Answer(sg_io_hdr& header, const FakeDrive& drive) {
    std::string answer = header.cmdp[1] == 0
                             ? std::string("\0\0\5\x1F\0\0\0\0", 8) + (drive.vendor + "        ").substr(0, 8) +
                                   (drive.product + "                ").substr(0, 16)
                             : std::string("\0\x80\0", 3) + static_cast<char>(drive.serial.size()) + drive.serial;
    answer.copy(static_cast<char*>(header.dxferp), std::min<size_t>(header.dxfer_len, answer.size()));
    return 0;
  }

 private:
  FakeIoctl m_Ioctl;
};
