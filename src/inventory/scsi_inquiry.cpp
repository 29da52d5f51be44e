#include "inventory/scsi_inquiry.h"

#include <fcntl.h>
#include <scsi/sg.h>
#include <sys/ioctl.h>
#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstddef>
#include <cstdint>

#include "inventory/agt_exception.h"
#include "inventory/scsi_inquiry_data.h"
#include "platform/unique_fd.h"
#include "trace/debug.h"

namespace {

constexpr const char* kClusterDiagnosticDevice = "/dev/quorv/_diag";
constexpr unsigned long kClusterPassThrough = 0x737800;

constexpr size_t kCommandLength = 6;
constexpr size_t kMaxFormattedLength = 64;
constexpr uint8_t kResponseLength = 255;

using Command = std::array<unsigned char, kCommandLength>;
using Response = std::array<uint8_t, kResponseLength>;

// INQUIRY (operation code 0x12) with an allocation length of 255.
constexpr Command kStandardInquiry = {0x12, 0x00, 0x00, 0x00, kResponseLength, 0x00};
constexpr Command kUnitSerialNumberPage = {0x12, 0x01, 0x80, 0x00, kResponseLength, 0x00};

// What the cluster disk driver takes in place of a plain SG_IO request.
struct ClusterRequest {
  uint64_t deviceNumber;
  uint32_t command;
  uint32_t reserved;
  sg_io_hdr* header;
};
static_assert(sizeof(ClusterRequest) == 24 && offsetof(ClusterRequest, command) == 8 &&
              offsetof(ClusterRequest, header) == 16);

UniqueFd OpenDevice(const char* path) {
  return UniqueFd(::open(path, O_RDONLY | O_NONBLOCK | O_CLOEXEC));
}

int SendToDevice(int fd, sg_io_hdr& header) {
  return ::ioctl(fd, SG_IO, &header);
}

int SendThroughCluster(const std::string& path, sg_io_hdr& header) {
  const UniqueFd diagnostic = OpenDevice(kClusterDiagnosticDevice);
  if (!diagnostic) throw CAgtException("Cannot open neither  '" + path + "' drive nor  TOV drive: ");
  struct stat info {};
  if (::stat(path.c_str(), &info) != 0) {
    const int error = errno;
    throw CAgtException("Error while geting information about file: '" + path + "'.", error);
  }
  ClusterRequest request{info.st_rdev, SG_IO, 0, &header};
  return ::ioctl(diagnostic.Get(), kClusterPassThrough, &request);
}

Response StandardInquiry(const CScsiInquiry& inquiry, const std::string& path) {
  Response response{};
  Command command = kStandardInquiry;
  inquiry.ExecuteScsiInquiry(path, response.data(), kResponseLength, command.data(), false, CScsiInquiry::kTimeoutMs);
  return response;
}

template <typename Query>
bool StoreAnswer(std::string& output, Query query) {
  try {
    output = query(CScsiInquiry());
    return true;
  } catch (const CAgtException&) {
    return false;
  }
}

}  // namespace

// NOLINTNEXTLINE(performance-unnecessary-value-param): the interface takes the path by value.
void CScsiInquiry::ExecuteScsiInquiry(std::string path, void* buffer, unsigned char length, unsigned char* cdb,
                                      bool clusterFallback, unsigned int timeoutMs) const {
  std::array<unsigned char, 32> sense{};
  sg_io_hdr header{};
  header.interface_id = 'S';
  header.dxfer_direction = SG_DXFER_FROM_DEV;
  header.cmd_len = kCommandLength;
  header.mx_sb_len = sense.size();
  header.dxfer_len = length;
  header.dxferp = buffer;
  header.cmdp = cdb;
  header.sbp = sense.data();
  header.timeout = timeoutMs;

  const UniqueFd device = OpenDevice(path.c_str());
  if (!device && !clusterFallback) throw CAgtException("Cannot open drive: " + path);
  const int result = device ? SendToDevice(device.Get(), header) : SendThroughCluster(path, header);
  if (result < 0) throw CAgtException("Error while executing SCSI inquiry!");
  if ((header.info & SG_INFO_OK_MASK) != SG_INFO_OK) throw CAgtException("Drive doesn't report information.");
}

std::string CScsiInquiry::GetScsiDeviceVendorName(const std::string& path) const {
  const Response response = StandardInquiry(*this, path);
  if (InquiryLengthByte(response) == 0) throw CAgtException("Cannot get vendor name for device:" + path);
  const InquiryBytes field = VendorField(response);
  return ScsiFormatString(field.data(), static_cast<int>(field.size()));
}

std::string CScsiInquiry::GetScsiDeviceProductName(const std::string& path) const {
  const Response response = StandardInquiry(*this, path);
  if (InquiryLengthByte(response) == 0) throw CAgtException("Cannot get product name for device:" + path);
  const InquiryBytes field = ProductField(response);
  return ScsiFormatString(field.data(), static_cast<int>(field.size()));
}

std::string CScsiInquiry::GetScsiDeviceSerialNo(const std::string& path, bool clusterFallback) const {
  Response page{};
  Command command = kUnitSerialNumberPage;
  try {
    ExecuteScsiInquiry(path, page.data(), kResponseLength, command.data(), clusterFallback, kTimeoutMs);
  } catch (const std::exception&) {
    TRACE(2, "GetScsiDeviceSerialNo: ## ERROR: Exception Cannot get serial Number for device \"%s\"\n", path.c_str());
    throw CAgtException("Cannot get serial no for device:" + path);
  }
  if (InquiryLengthByte(page) == 0) {
    TRACE(2, "GetScsiDeviceSerialNo: ## ERROR: Exception Cannot get serial Number for device \"%s\" (retlen=%d)\n",
          path.c_str(), 0);
    throw CAgtException("Cannot get serial no for device:" + path);
  }
  const InquiryBytes serial = SerialNumberField(page);
  const size_t invalid = FindNonAlphanumeric(serial);
  if (invalid < serial.size()) {
    TRACE(2, "GetScsiDeviceSerialNo: ptr[%d]: 0x%02x (%c) is NOT ALPHANUM -> SerialNumber invalid\n",
          static_cast<int>(invalid), unsigned{serial[invalid]}, int{serial[invalid]});
    return "";
  }
  return InquiryText(serial);
}

std::string CScsiInquiry::ScsiFormatString(const unsigned char* field, int length) const {
  if (field == nullptr || length <= 0) return "";
  return InquiryText(InquiryBytes(field, std::min(static_cast<size_t>(length), kMaxFormattedLength)));
}

bool GetDriveSerialNoInq(std::string& serialNo, const std::string& devicePath, bool clusterFallback) {
  return StoreAnswer(serialNo, [&](const CScsiInquiry& inquiry) {
    return inquiry.GetScsiDeviceSerialNo(devicePath, clusterFallback);
  });
}

bool GetDriveVendorInq(std::string& vendor, const std::string& devicePath) {
  return StoreAnswer(vendor, [&](const CScsiInquiry& inquiry) { return inquiry.GetScsiDeviceVendorName(devicePath); });
}

bool GetDriveProductNameInq(std::string& productName, const std::string& devicePath) {
  return StoreAnswer(productName,
                     [&](const CScsiInquiry& inquiry) { return inquiry.GetScsiDeviceProductName(devicePath); });
}
