#pragma once

#include <cstdint>
#include <string>

#include "firmware/device_io_extension_data.h"

// Base of the classes that talk to a device: one open descriptor and the errno of the last failure.
//
// A device belongs to one thread, unless it is made in per-thread mode: every thread that opens it then has a
// descriptor of its own, which is closed by Close of that thread, by the end of that thread, or - for the thread that
// destroys the device - by the destructor.
class CDeviceIo {
 public:
  explicit CDeviceIo(std::string deviceName = {}, bool perThread = false);
  // Closes what the calling thread has open, unless the device was told to keep it open.
  virtual ~CDeviceIo();
  CDeviceIo(const CDeviceIo&) = delete;
  CDeviceIo& operator=(const CDeviceIo&) = delete;

  // Opens the named device, close-on-exec besides the flags given, after closing what was open (in per-thread mode:
  // for the calling thread). On failure the last error tells why.
  bool Open(int flags);
  // Closes the descriptor (in per-thread mode: the calling thread's). Nothing happens when none is open.
  void Close();

  // -1 when closed; in per-thread mode the calling thread's.
  int GetDescriptor() const;
  // errno of the last failed call, 0 when there was none; in per-thread mode the calling thread's.
  uint32_t GetLastError() const;
  const std::string& GetDeviceName() const { return m_DeviceName; }
  // true: the destructor leaves the descriptor open.
  void SetKeepOpen(bool keepOpen) { m_KeepOpen = keepOpen; }

  // How a thread's descriptor is closed when the thread ends: traces and closes, true on success. -1 is ignored.
  static bool termHandling(int fd);

 protected:
  void SetLastError(int error);

 private:
  void CloseOfThread();

  int m_Descriptor = -1;
  uint32_t m_LastError = 0;
  CDeviceIoExtensionData* m_ExtensionData = nullptr;  // per-thread mode only; deletes itself, see there
  const std::string m_DeviceName;
  const bool m_PerThread;
  bool m_KeepOpen = false;
};
