#pragma once

#include <pthread.h>

#include <cstdint>
#include <mutex>

// The descriptors that the threads of the process hold of one CDeviceIo in per-thread mode.
//
// Any thread may call it; its mutex guards the count and the owner-gone flag. It is made by its owner with new and
// outlives it while a thread still holds a descriptor: the last one out deletes it, be it the owner or an ending
// thread.
class CDeviceIoExtensionData {
 public:
  // Closes a descriptor, -1 when there is none; true on success.
  using TerminationHandler = bool (*)(int fd);

  explicit CDeviceIoExtensionData(TerminationHandler handler);
  CDeviceIoExtensionData(const CDeviceIoExtensionData&) = delete;
  CDeviceIoExtensionData& operator=(const CDeviceIoExtensionData&) = delete;

  // False when the process has no thread-specific slots left; nothing can be kept then.
  bool IsUsable() const { return m_SlotsMade == 2; }

  // The calling thread's descriptor, -1 when it holds none.
  int GetDescriptor() const;
  // Takes over an open descriptor for the calling thread, which must hold none; false leaves it with the caller.
  bool SetDescriptor(int fd);
  // The calling thread no longer holds a descriptor; the caller closes it.
  void ForgetDescriptor();

  // The owner goes away and must not use the record again.
  void ReleaseByOwner();

 protected:
  virtual ~CDeviceIoExtensionData();

 private:
  // Runs when a thread ends that holds a descriptor.
  static void termination(void* record);
  void ClearSlots();

  const TerminationHandler m_Handler;
  pthread_key_t m_DescriptorSlot = 0;  // the thread's descriptor plus one, 0 = none
  // The record itself while the thread holds a descriptor. The destructor of a slot learns nothing but the slot's
  // value, so it hangs on this one.
  pthread_key_t m_RecordSlot = 0;
  int m_SlotsMade = 0;
  std::mutex m_Mutex;
  uint32_t m_OpenCount = 0;
  bool m_OwnerGone = false;
};
