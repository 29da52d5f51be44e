#include "inventory/scsi_inquiry.h"

#include <sys/socket.h>
#include <sys/un.h>

#include <array>

#include "inventory/agt_exception.h"
#include "inventory/fake_drives.h"
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

const CScsiInquiry kInquiry;

std::string SerialError(const char* path) {
  return ErrorOf([path] { kInquiry.GetScsiDeviceSerialNo(path, false); });
}

using ScsiInquiry = RootedTest;

TEST_F(ScsiInquiry, AnswersAreTextsWithoutPadding) {
  for (const char* node : {"/dev/full", "/dev/blank", "/dev/empty", "/dev/long"})
    root.WriteFile(node, "");
  RunTraced(root, 2, [](TraceCapture& trace) {
    const FakeDrives drives({{"/dev/full", {"ABCDEFGH", " Model of 16 chr", "WD42x"}},
                             {"/dev/blank", {"", "", "WD 42"}},
                             {"/dev/empty", {"", "", ""}},
                             {"/dev/long", {"", "", std::string(255, 'A')}}});
    EXPECT_EQ(kInquiry.GetScsiDeviceVendorName("/dev/full"), "ABCDEFGH");
    EXPECT_EQ(kInquiry.GetScsiDeviceProductName("/dev/full"), "Model of 16 chr");
    EXPECT_EQ(kInquiry.GetScsiDeviceVendorName("/dev/blank"), "");
    EXPECT_EQ(kInquiry.GetScsiDeviceSerialNo("/dev/full", false), "WD42x");
    EXPECT_EQ(kInquiry.GetScsiDeviceSerialNo("/dev/long", false), std::string(251, 'A'));
    EXPECT_EQ(SerialError("/dev/empty"), "Cannot get serial no for device:/dev/empty");
    EXPECT_EQ(SerialError("/dev/none"), "Cannot get serial no for device:/dev/none");
    std::string serial = "kept";
    EXPECT_TRUE(!GetDriveSerialNoInq(serial, "/dev/empty", true) && serial == "kept");
    EXPECT_TRUE(GetDriveSerialNoInq(serial, "/dev/blank", true) && serial.empty());
    EXPECT_TRUE(trace.Has("GetScsiDeviceSerialNo: ptr[2]: 0x20 ( ) is NOT ALPHANUM -> SerialNumber invalid"));
    EXPECT_EQ(trace.Count("ERROR: Exception Cannot get serial Number for device \"/dev/empty\" (retlen=0)"), 2);
    const std::string field = "\t" + std::string(62, 'x') + "yz" + std::string(40, 'z');
    const auto* bytes = reinterpret_cast<const unsigned char*>(field.data());
    EXPECT_EQ(kInquiry.ScsiFormatString(bytes, 100), std::string(62, 'x') + "y");
    EXPECT_EQ(kInquiry.ScsiFormatString(bytes, -1), "");
    EXPECT_EQ(kInquiry.ScsiFormatString(reinterpret_cast<const unsigned char*>("A \0BC"), 5), "A");
  });
}

TEST_F(ScsiInquiry, DeviceFailuresAndShortAnswersThrow) {
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
    const auto vendor = [](const char* path) { return ErrorOf([&] { kInquiry.GetScsiDeviceVendorName(path); }); };
    EXPECT_EQ(vendor("/dev/none"), "Cannot open drive: /dev/none");
    EXPECT_EQ(vendor("/dev/sda"), "Cannot get vendor name for device:/dev/sda");
    EXPECT_EQ(command, std::string("\x12\0\0\0\xFF\0", 6));
    EXPECT_TRUE(sent.interface_id == 'S' && sent.dxfer_direction == -3 && sent.mx_sb_len == 32 &&
                sent.dxfer_len == 255 && sent.timeout == 50000 && sent.iovec_count == 0 && sent.flags == 0);
    EXPECT_EQ(SerialError("/dev/sda"), "Cannot get serial no for device:/dev/sda");
    EXPECT_EQ(command, std::string("\x12\1\x80\0\xFF\0", 6));
    info = 0x5;
    EXPECT_EQ(vendor("/dev/sda"), "Drive doesn't report information.");
    result = -ENOTTY;
    EXPECT_EQ(vendor("/dev/sda"), "Error while executing SCSI inquiry!");
  });
}

TEST_F(ScsiInquiry, ClusterDriverStandsInForANodeThatDoesNotOpen) {
  const auto errorOfMissingNode = [] {
    std::array<unsigned char, 6> command{};
    unsigned char byte = 0;
    return ErrorOf([&] { kInquiry.ExecuteScsiInquiry("/dev/gone", &byte, 1, command.data(), true, 1); });
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
      const auto* words = static_cast<uint64_t*>(argument);  // device number, command, request
      if (words[1] != 0x2285) return -EINVAL;
      return FakeDrives::Answer(*reinterpret_cast<sg_io_hdr*>(words[2]), {"", "", "CLUSTER1"});
    });
    EXPECT_EQ(kInquiry.GetScsiDeviceSerialNo("/dev/busy", true), "CLUSTER1");
    EXPECT_EQ(errorOfMissingNode(),
              "Error while geting information about file: '/dev/gone'.\nError message: No such file or directory");
  });
}

}  // namespace
