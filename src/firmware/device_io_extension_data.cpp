#include "firmware/device_io_extension_data.h"

#include <memory>

struct CDeviceIoExtensionData::Held {
  CDeviceIoExtensionData* record;
  int descriptor;
};

CDeviceIoExtensionData::CDeviceIoExtensionData(TerminationHandler handler)
    : m_Handler(handler),
      m_HasDescriptorSlot(pthread_key_create(&m_DescriptorSlot, &CDeviceIoExtensionData::termination) == 0),
      m_HasErrorSlot(pthread_key_create(&m_ErrorSlot, nullptr) == 0) {}

CDeviceIoExtensionData::~CDeviceIoExtensionData() {
  if (m_HasDescriptorSlot) pthread_key_delete(m_DescriptorSlot);
  if (m_HasErrorSlot) pthread_key_delete(m_ErrorSlot);
}

int CDeviceIoExtensionData::GetDescriptor() const {
  if (!m_HasDescriptorSlot) return -1;
  const auto* held = static_cast<const Held*>(pthread_getspecific(m_DescriptorSlot));
  return held != nullptr ? held->descriptor : -1;
}

bool CDeviceIoExtensionData::SetDescriptor(int fd) {
  auto held = std::make_unique<Held>(Held{this, fd});
  if (!m_HasDescriptorSlot || pthread_setspecific(m_DescriptorSlot, held.get()) != 0) return false;
  static_cast<void>(held.release());  // now the slot's
  const std::lock_guard lock(m_Mutex);
  ++m_OpenCount;
  return true;
}

void CDeviceIoExtensionData::ForgetDescriptor() {
  if (GetDescriptor() == -1) return;
  delete static_cast<Held*>(pthread_getspecific(m_DescriptorSlot));
  ClearSlots();
  const std::lock_guard lock(m_Mutex);
  --m_OpenCount;
}

int CDeviceIoExtensionData::GetLastError() const {
  if (!m_HasErrorSlot) return 0;
  return static_cast<int>(reinterpret_cast<intptr_t>(pthread_getspecific(m_ErrorSlot)));
}

void CDeviceIoExtensionData::SetLastError(int error) {
  if (!m_HasErrorSlot) return;
  // The slot carries the number itself.
  pthread_setspecific(m_ErrorSlot, reinterpret_cast<void*>(intptr_t{error}));  // NOLINT(performance-no-int-to-ptr)
}

void CDeviceIoExtensionData::ReleaseByOwner() {
  bool last = false;
  {
    const std::lock_guard lock(m_Mutex);
    m_OwnerGone = true;
    last = m_OpenCount == 0;
  }
  if (last) delete this;
}

// A descriptor that could not be closed keeps counting, so that the record stays.
void CDeviceIoExtensionData::termination(void* held) {
  const std::unique_ptr<const Held> mine(static_cast<const Held*>(held));
  CDeviceIoExtensionData* record = mine->record;
  if (!record->m_Handler(mine->descriptor)) return;
  record->ClearSlots();
  bool last = false;
  {
    const std::lock_guard lock(record->m_Mutex);
    --record->m_OpenCount;
    last = record->m_OwnerGone && record->m_OpenCount == 0;
  }
  if (last) delete record;
}

void CDeviceIoExtensionData::ClearSlots() {
  pthread_setspecific(m_DescriptorSlot, nullptr);
  SetLastError(0);
}
