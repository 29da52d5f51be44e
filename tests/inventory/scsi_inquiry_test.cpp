#include "inventory/scsi_inquiry.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <cstring>

#include "inventory/agt_exception.h"
#include "inventory/drive_inquiry.h"
#include "inventory/fake_drives.h"
#include "support/fixture_root.h"
#include "support/trace_capture.h"

namespace {

template <typename Query>
std::string ErrorOf(Query query) {
  try {
    query();
  } catch (const CAgtException& error) {
    return error.what();
  }
  return "no exception";
}

TEST(ScsiInquiry, NamesLoseTheirPaddingAndNeedNoTerminator) {
  FixtureRoot root;
  root.WriteFile("/dev/full", "");
  root.WriteFile("/dev/blank", "");
  root.Run([] {
    const FakeDrives drives({{"/dev/full", {"ABCDEFGH", " Model of 16 chr", "S1"}}, {"/dev/blank", {"", "", ""}}});
    const CScsiInquiry inquiry;
    EXPECT_EQ(inquiry.GetScsiDeviceVendorName("/dev/full"), "ABCDEFGH");
    EXPECT_EQ(inquiry.GetScsiDeviceProductName("/dev/full"), "Model of 16 chr");
    EXPECT_EQ(inquiry.GetScsiDeviceVendorName("/dev/blank"), "");
    EXPECT_EQ(ErrorOf([&] { inquiry.GetScsiDeviceVendorName("/dev/none"); }), "Cannot open drive: /dev/none");
    const std::string field = "\t" + std::string(62, 'x') + "yz" + std::string(40, 'z');
    const auto* bytes = reinterpret_cast<const unsigned char*>(field.data());
    EXPECT_EQ(inquiry.ScsiFormatString(bytes, 100), std::string(62, 'x') + "y");
    EXPECT_EQ(inquiry.ScsiFormatString(bytes, -1), "");
    EXPECT_EQ(inquiry.ScsiFormatString(reinterpret_cast<const unsigned char*>("A \0BC"), 5), "A");
  });
}

TEST(ScsiInquiry, SerialNumberIsLettersAndDigitsOnly) {
  FixtureRoot root;
  for (const char* node : {"/dev/good", "/dev/blank", "/dev/empty", "/dev/long"})
    root.WriteFile(node, "");
  root.Run([] {
    const TraceCapture trace(2);
    const FakeDrives drives({{"/dev/good", {"", "", "WD42x"}},
                             {"/dev/blank", {"", "", " WD42"}},
                             {"/dev/empty", {"", "", ""}},
                             {"/dev/long", {"", "", std::string(255, 'A')}}});
    const CScsiInquiry inquiry;
    EXPECT_EQ(inquiry.GetScsiDeviceSerialNo("/dev/good", false), "WD42x");
    EXPECT_EQ(inquiry.GetScsiDeviceSerialNo("/dev/blank", false), "");
    EXPECT_EQ(inquiry.GetScsiDeviceSerialNo("/dev/long", false), std::string(251, 'A'));
    EXPECT_EQ(ErrorOf([&] { inquiry.GetScsiDeviceSerialNo("/dev/empty", false); }),
              "Cannot get serial no for device:/dev/empty");
    EXPECT_EQ(ErrorOf([&] { inquiry.GetScsiDeviceSerialNo("/dev/none", true); }),
              "Cannot get serial no for device:/dev/none");
    std::string serial = "kept";
    EXPECT_FALSE(GetDriveSerialNoInq(serial, "/dev/empty", true));
    EXPECT_EQ(serial, "kept");
    EXPECT_TRUE(GetDriveSerialNoInq(serial, "/dev/blank", true));
    EXPECT_EQ(serial, "");
    EXPECT_TRUE(trace.Has("GetScsiDeviceSerialNo: ptr[0]: 0x20 ( ) is NOT ALPHANUM -> SerialNumber invalid"));
    EXPECT_TRUE(
        trace.Has("GetScsiDeviceSerialNo: ## ERROR: Exception Cannot get serial Number for device "
                  "\"/dev/empty\" (retlen=0)"));
    EXPECT_TRUE(
        trace.Has("GetScsiDeviceSerialNo: ## ERROR: Exception Cannot get serial Number for device "
                  "\"/dev/none\""));
  });
}

TEST(ScsiInquiry, DeviceFailuresAndShortAnswersThrow) {
  FixtureRoot root;
  root.WriteFile("/dev/sda", "");
  root.Run([] {
    sg_io_hdr sent{};
    std::string command;
    unsigned int info = 0;
    int result = 0;
    const FakeIoctl device([&](const std::string&, unsigned long, void* argument) -> std::optional<int> {
      auto* header = static_cast<sg_io_hdr*>(argument);
      sent = *header;
      command.assign(reinterpret_cast<const char*>(header->cmdp), header->cmd_len);
      header->info = info;
      return result;
    });
    const CScsiInquiry inquiry;
    EXPECT_EQ(ErrorOf([&] { inquiry.GetScsiDeviceVendorName("/dev/sda"); }),
              "Cannot get vendor name for device:/dev/sda");
    EXPECT_EQ(command, std::string("\x12\0\0\0\xFF\0", 6));
    EXPECT_TRUE(sent.interface_id == 'S' && sent.dxfer_direction == -3 && sent.mx_sb_len == 32 &&
                sent.dxfer_len == 255 && sent.timeout == 50000 && sent.iovec_count == 0 && sent.flags == 0);
    EXPECT_EQ(ErrorOf([&] { inquiry.GetScsiDeviceProductName("/dev/sda"); }),
              "Cannot get product name for device:/dev/sda");
    EXPECT_THROW(inquiry.GetScsiDeviceSerialNo("/dev/sda", false), CAgtException);
    EXPECT_EQ(command, std::string("\x12\1\x80\0\xFF\0", 6));
    info = 0x5;
    EXPECT_EQ(ErrorOf([&] { inquiry.GetScsiDeviceVendorName("/dev/sda"); }), "Drive doesn't report information.");
    result = -ENOTTY;
    EXPECT_EQ(ErrorOf([&] { inquiry.GetScsiDeviceVendorName("/dev/sda"); }), "Error while executing SCSI inquiry!");
  });
}

TEST(ScsiInquiry, ClusterDriverStandsInForANodeThatDoesNotOpen) {
  FixtureRoot root;
  const auto errorOfMissingNode = [] {
    std::array<unsigned char, 6> command{};
    unsigned char byte = 0;
    return ErrorOf([&] { CScsiInquiry().ExecuteScsiInquiry("/dev/gone", &byte, 1, command.data(), true, 1); });
  };
  root.Run([&] { EXPECT_EQ(errorOfMissingNode(), "Cannot open neither  '/dev/gone' drive nor  TOV drive: "); });
  root.WriteFile("/dev/quorv/_diag", "");
  root.Run([&] {
    // A socket has a node with a device number, but cannot be opened.
    sockaddr_un address{AF_UNIX, "/dev/busy"};
    const int socket = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    ASSERT_EQ(::bind(socket, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    ::close(socket);
    const FakeIoctl device([&](const std::string& path, unsigned long request, void* argument) -> std::optional<int> {
      if (path != "/dev/quorv/_diag" || request != 0x737800) return -EINVAL;
      uint32_t sgIo = 0;
      sg_io_hdr* header = nullptr;
      std::memcpy(&sgIo, static_cast<char*>(argument) + 8, sizeof sgIo);
      std::memcpy(&header, static_cast<char*>(argument) + 16, sizeof header);
      return sgIo == 0x2285 ? FakeDrives::Answer(*header, {"", "", "CLUSTER1"}) : -EINVAL;
    });
    const CScsiInquiry inquiry;
    EXPECT_EQ(inquiry.GetScsiDeviceSerialNo("/dev/busy", true), "CLUSTER1");
    EXPECT_THROW(inquiry.GetScsiDeviceSerialNo("/dev/busy", false), CAgtException);
    EXPECT_EQ(errorOfMissingNode(),
              "Error while geting information about file: '/dev/gone'.\nError message: No such file or directory");
  });
}

}  // namespace
