#include "daemon/smbus_probe.h"

#include <fcntl.h>
#include <sys/ioctl.h>

#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "daemon/build_info.h"
#include "daemon/daemon_name.h"
#include "platform/unique_fd.h"
#include "trace/debug.h"

namespace {

constexpr const char* kDevice = "/dev/pci/smbus";
constexpr uint32_t IOCTL_SMBUS_DRIVER_INFO = 0xC00873FF;
constexpr uint32_t kRequestVersion = 1;
constexpr uint32_t kCmdDriverInfo = 0xFF;

// The data buffer that the daemon sends and the driver fills. Host byte order; texts are NUL-padded and may fill their
// field. The layout is the driver's.
struct DriverInfo {
  uint32_t OSKernelVersionCode;
  uint8_t reserved4[12];
  uint32_t smbus_VersionCode;
  uint32_t smbus_ArchMode;
  uint32_t smbus_ArchXEN;
  uint32_t smbus_ArchFacil;
  uint32_t RequestorVersion;  // major << 16 | minor << 8 | patch
  uint8_t reserved36[12];
  uint8_t smbus_IsSmbiHwFound;
  uint8_t smbus_IsBapiHwFound;
  uint8_t smbus_IsGabiHwFound;
  uint8_t smbus_IsSmbusHwFound;
  uint8_t smbus_IsBusIoHwFound;
  uint8_t smbus_IsCpuErrHwFound;
  uint8_t smbus_IsCpuApicHwFound;
  uint8_t smbus_IsCpuInfoHwFound;
  uint8_t reserved56[8];
  uint32_t smbus_MajorDeviceNumber;
  uint32_t smbus_IsKmpModule;
  uint8_t reserved72[24];
  char RequestorName[32];
  char smbus_Name[32];
  char smbus_SrcVersion[64];
  char smbus_SrcDate[64];
  char smbus_ObjDate[64];
  char smbus_OsArchitecture[32];
  char smbus_OsVersion[64];
  char smbus_CompilerVersion[128];
  char smbus_KernelVersion[160];
  char QN_SYSTEM[32];
  char QN_OS[128];
  char QN_NICKNAME[32];
  char smbus_ErrorReturnString[384];
};
static_assert(sizeof(DriverInfo) == 1312);
static_assert(offsetof(DriverInfo, RequestorVersion) == 32 && offsetof(DriverInfo, smbus_IsSmbiHwFound) == 48);
static_assert(offsetof(DriverInfo, smbus_MajorDeviceNumber) == 64 && offsetof(DriverInfo, RequestorName) == 96);
static_assert(offsetof(DriverInfo, QN_SYSTEM) == 736 && offsetof(DriverInfo, smbus_ErrorReturnString) == 928);

// What the ioctl argument points to.
struct RequestHeader {
  uint32_t Version;
  uint32_t CmdNumber;
  uint32_t SizeOfInOutBuffer;
  uint32_t reserved12;
  DriverInfo* pInOutBuffer;
  uint32_t Success;  // set by the driver, only traced
  uint32_t reserved28;
};
static_assert(sizeof(RequestHeader) == 32 && offsetof(RequestHeader, pInOutBuffer) == 16);

// "3.12-05" => 0x00030C05
uint32_t RequestorVersion() {
  unsigned int major = 0;
  unsigned int minor = 0;
  unsigned int patch = 0;
  std::sscanf(build_info::kVersion, "%u.%u-%u", &major, &minor, &patch);
  return major << 16 | minor << 8 | patch;
}

template <size_t size>
void CopyText(char (&field)[size], const char* text) {
  if (text != nullptr) std::memcpy(field, text, strnlen(text, size));
}

template <size_t size>
std::string TextOf(const char (&field)[size]) {
  return std::string(field, strnlen(field, size));
}

void FillRequest(RequestHeader& header, DriverInfo& info) {
  header.Version = kRequestVersion;
  header.CmdNumber = kCmdDriverInfo;
  header.SizeOfInOutBuffer = sizeof info;
  header.pInOutBuffer = &info;
  info.RequestorVersion = RequestorVersion();
  CopyText(info.RequestorName, kDaemonName);
  CopyText(info.QN_SYSTEM, std::getenv("QN_SYSTEM"));
  CopyText(info.QN_OS, std::getenv("QN_OS"));
  CopyText(info.QN_NICKNAME, std::getenv("QN_NICKNAME"));
}

bool QueryDriver(RequestHeader& header, DriverInfo& info) {
  UniqueFd device(::open(kDevice, O_RDWR | O_CLOEXEC));
  if (!device) {
    const int error = errno;
    TRACE(2, "%s-MAIN::DiscoverSmbusDriverInfo: cannot open %s (errno=%d: %s)\n", kDaemonName, kDevice, error,
          std::strerror(error));
    return false;
  }
  FillRequest(header, info);
  const int result = ::ioctl(device.Get(), IOCTL_SMBUS_DRIVER_INFO, &header);
  const int error = errno;
  device.Reset();
  if (result >= 0) return true;
  TRACE(2, "%s-MAIN::DiscoverSmbusDriverInfo: IOCTL_SMBUS_DRIVER_INFO (0x%08X) to %s failed (errno=%d: %s)\n",
        kDaemonName, IOCTL_SMBUS_DRIVER_INFO, kDevice, error, std::strerror(error));
  return false;
}

void TraceAnswer(const RequestHeader& header, const DriverInfo& info) {
  TRACE(2, "%s-MAIN::DiscoverSmbusDriverInfo: evaluating IOCTL_SMBUS_DRIVER_INFO (0x%08X)\n", kDaemonName,
        IOCTL_SMBUS_DRIVER_INFO);
  TRACE(2, "Version                     : 0x%08X\n", header.Version);
  TRACE(2, "CmdNumber                   : 0x%08X\n", header.CmdNumber);
  TRACE(2, "SizeOfInOutBuffer           : 0x%08X\n", header.SizeOfInOutBuffer);
  TRACE(2, "pInOutBuffer                : 0x%p\n", static_cast<const void*>(header.pInOutBuffer));
  TRACE(2, "Success                     : 0x%08X\n", header.Success);
  TRACE(2, "OSKernelVersionCode         : 0x%08X\n", info.OSKernelVersionCode);
  TRACE(2, "smbus_VersionCode           : 0x%08X\n", info.smbus_VersionCode);
  TRACE(2, "smbus_ArchMode              : 0x%08X\n", info.smbus_ArchMode);
  TRACE(2, "smbus_ArchXEN               : 0x%08X\n", info.smbus_ArchXEN);
  TRACE(2, "smbus_ArchFacil             : 0x%08X\n", info.smbus_ArchFacil);
  TRACE(2, "RequestorVersion            : 0x%08X\n", info.RequestorVersion);
  TRACE(2, "smbus_IsSmbiHwFound         : 0x%08X\n", info.smbus_IsSmbiHwFound);
  TRACE(2, "smbus_IsBapiHwFound         : 0x%08X\n", info.smbus_IsBapiHwFound);
  TRACE(2, "smbus_IsGabiHwFound         : 0x%08X\n", info.smbus_IsGabiHwFound);
  TRACE(2, "smbus_IsSmbusHwFound        : 0x%08X\n", info.smbus_IsSmbusHwFound);
  TRACE(2, "smbus_IsBusIoHwFound        : 0x%08X\n", info.smbus_IsBusIoHwFound);
  TRACE(2, "smbus_IsCpuErrHwFound       : 0x%08X\n", info.smbus_IsCpuErrHwFound);
  TRACE(2, "smbus_IsCpuApicHwFound      : 0x%08X\n", info.smbus_IsCpuApicHwFound);
  TRACE(2, "smbus_IsCpuInfoHwFound      : 0x%08X\n", info.smbus_IsCpuInfoHwFound);
  TRACE(2, "smbus_MajorDeviceNumber     : 0x%08X\n", info.smbus_MajorDeviceNumber);
  TRACE(2, "smbus_IsKmpModule           : 0x%08X\n", info.smbus_IsKmpModule);
  TRACE(2, "RequestorName               : %s\n", TextOf(info.RequestorName).c_str());
  TRACE(2, "smbus_Name                  : %s\n", TextOf(info.smbus_Name).c_str());
  TRACE(2, "smbus_SrcVersion            : %s\n", TextOf(info.smbus_SrcVersion).c_str());
  TRACE(2, "smbus_SrcDate               : %s\n", TextOf(info.smbus_SrcDate).c_str());
  TRACE(2, "smbus_ObjDate               : %s\n", TextOf(info.smbus_ObjDate).c_str());
  TRACE(2, "smbus_OsArchitecture        : %s\n", TextOf(info.smbus_OsArchitecture).c_str());
  TRACE(2, "smbus_OsVersion             : %s\n", TextOf(info.smbus_OsVersion).c_str());
  TRACE(2, "smbus_CompilerVersion       : %s\n", TextOf(info.smbus_CompilerVersion).c_str());
  TRACE(2, "smbus_KernelVersion         : %s\n", TextOf(info.smbus_KernelVersion).c_str());
  TRACE(2, "QN_SYSTEM                   : %s\n", TextOf(info.QN_SYSTEM).c_str());
  TRACE(2, "QN_OS                       : %s\n", TextOf(info.QN_OS).c_str());
  TRACE(2, "QN_NICKNAME                 : %s\n", TextOf(info.QN_NICKNAME).c_str());
  TRACE(2, "smbus_ErrorReturnString     : %s\n", TextOf(info.smbus_ErrorReturnString).c_str());
}

}  // namespace

void DiscoverSmbusDriverInfo() {
  RequestHeader header{};
  DriverInfo info{};
  if (!QueryDriver(header, info)) {
    Debug.PrintAlways(
        0,
        "%s-MAIN: INFO: smbus-driver is not available on this OS (But, don't worry about this, it might be OK on some OS systems!)\n",
        kDaemonName);
    return;
  }
  if (info.RequestorVersion < info.smbus_VersionCode) {
    Debug.PrintAlways(0, "%s-MAIN: WARNING: ravd version (0x%08X) is less than smbus driver version (0x%08X)\n",
                      kDaemonName, info.RequestorVersion, info.smbus_VersionCode);
  }
  TraceAnswer(header, info);
}
