#include "firmware/device_io.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <utility>

#include "trace/debug.h"

CDeviceIo::CDeviceIo(std::string deviceName, bool perThread)
    : m_ExtensionData(perThread ? new CDeviceIoExtensionData(&CDeviceIo::termHandling) : nullptr),
      m_DeviceName(std::move(deviceName)),
      m_PerThread(perThread) {}

CDeviceIo::~CDeviceIo() {
  if (!m_KeepOpen) Close();
  if (m_ExtensionData != nullptr) m_ExtensionData->ReleaseByOwner();
}

bool CDeviceIo::Open(int flags) {
  Close();
  const int fd = ::open(m_DeviceName.c_str(), flags | O_CLOEXEC, 0600);
  SetLastError(fd < 0 ? errno : 0);
  if (fd < 0) return false;
  if (!m_PerThread) {
    m_Descriptor = fd;
    return true;
  }
  if (m_ExtensionData->SetDescriptor(fd)) return true;
  ::close(fd);
  SetLastError(EAGAIN);
  return false;
}

void CDeviceIo::Close() {
  if (m_PerThread) {
    CloseOfThread();
    return;
  }
  if (m_Descriptor == -1) return;
  const int fd = std::exchange(m_Descriptor, -1);
  m_LastError = ::close(fd) == 0 ? 0 : static_cast<uint32_t>(errno);
  TRACE(5, "\nCDeviceIo::Close: Device closed, fd=%d", fd);
}

void CDeviceIo::CloseOfThread() {
  const int fd = m_ExtensionData->GetDescriptor();
  if (fd == -1) return;
  ::close(fd);
  TRACE(5, "\nCDeviceIo::Close (ts): Device %s closed, fd=%d", m_DeviceName.c_str(), fd);
  m_ExtensionData->ForgetDescriptor();
}

int CDeviceIo::GetDescriptor() const {
  return m_PerThread ? m_ExtensionData->GetDescriptor() : m_Descriptor;
}

uint32_t CDeviceIo::GetLastError() const {
  return m_PerThread ? static_cast<uint32_t>(m_ExtensionData->GetLastError()) : m_LastError;
}

void CDeviceIo::SetLastError(int error) {
  if (m_PerThread) {
    m_ExtensionData->SetLastError(error);
  } else {
    m_LastError = static_cast<uint32_t>(error);
  }
}

bool CDeviceIo::termHandling(int fd) {
  if (fd == -1) return true;
  TRACE(5, "\nCDeviceIo::termHandling: Device closed, fd=%d", fd);
  return ::close(fd) == 0;
}
