#pragma once

#include <pthread.h>

#include <cstdint>
#include <mutex>

// The descriptors that the threads of the process hold of one CDeviceIo in per-thread mode.
//
// Any thread may call it, each for itself; its mutex guards the count and the owner-gone flag. It is made by its owner
// with new and outlives it while a thread still holds a descriptor: the last one out deletes it, be it the owner or an
// ending thread.
class CDeviceIoExtensionData {
 public:
  // Closes a descriptor, -1 when there is none; true on success.
  using TerminationHandler = bool (*)(int fd);

  explicit CDeviceIoExtensionData(TerminationHandler handler);
  CDeviceIoExtensionData(const CDeviceIoExtensionData&) = delete;
  CDeviceIoExtensionData& operator=(const CDeviceIoExtensionData&) = delete;

  // The calling thread's descriptor, -1 when it holds none.
  int GetDescriptor() const;
  // Takes over an open descriptor for the calling thread, which must hold none. False leaves it with the caller: the
  // process has no thread-specific slots left.
  bool SetDescriptor(int fd);
  // The calling thread no longer holds a descriptor nor an error; the caller closes it.
  void ForgetDescriptor();

  // errno of the calling thread's last failure, 0 when there was none.
  int GetLastError() const;
  void SetLastError(int error);

  // The owner goes away and must not use the record again.
  void ReleaseByOwner();

 protected:
  virtual ~CDeviceIoExtensionData();

 private:
  struct Held;

  // Runs when a thread ends that holds a descriptor.
  static void termination(void* held);
  void ClearSlots();

  const TerminationHandler m_Handler;
  // What the thread holds, null = nothing. It tells the record too: when a thread ends, the destructor of a slot can
  // rely on nothing but the slot's own value.
  pthread_key_t m_DescriptorSlot = 0;
  pthread_key_t m_ErrorSlot = 0;  // errno of the thread's last failure
  bool m_HasDescriptorSlot = false;
  bool m_HasErrorSlot = false;
  std::mutex m_Mutex;
  uint32_t m_OpenCount = 0;
  bool m_OwnerGone = false;
};
