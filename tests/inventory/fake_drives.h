#pragma once

#include <scsi/sg.h>

#include "support/fake_ioctl.h"
#include "support/fixture_root.h"

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

inline constexpr const char kListFormat[] =
    "Host: %s\n  Vendor: %-8s Model: %-16s Rev: %-4s\n  Type:   %-17s                ANSI  SCSI revision: 05\n";

// A machine with SCSI devices as the kernel lists them.
class DriveMachine : public FixtureRoot {
 public:
  void ListText(const std::string& text) { WriteFile("/proc/scsi/scsi", m_List += text); }
  // As the kernel prints a device: "scsi0 Channel: 02 Id: 00 Lun: 00".
  void List(const char* address, const char* vendor, const char* model, const char* revision, const char* type) {
    char text[512];
    std::snprintf(text, sizeof text, kListFormat, address, vendor, model, revision, type);
    ListText(text);
  }
  // The class entry as a link, with the device directory behind it.
  void AddLinked(const std::string& address, const std::string& path) const {
    const std::string target = "devices/" + path + "/scsi_device/" + address;
    MakeDirectory("/sys/" + target + "/device");
    MakeLink("/sys/class/scsi_device/" + address, "../../" + target);
  }
  static std::string Device(const std::string& address) { return "/sys/class/scsi_device/" + address + "/device"; }

 private:
  std::string m_List = "Attached devices:\n";
};
