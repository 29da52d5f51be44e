#include "firmware/device_io_extension_data.h"

CDeviceIoExtensionData::CDeviceIoExtensionData(TerminationHandler handler) : m_Handler(handler) {
  if (pthread_key_create(&m_DescriptorSlot, nullptr) != 0) return;
  ++m_SlotsMade;
  if (pthread_key_create(&m_RecordSlot, &CDeviceIoExtensionData::termination) == 0) ++m_SlotsMade;
}

CDeviceIoExtensionData::~CDeviceIoExtensionData() {
  if (m_SlotsMade > 1) pthread_key_delete(m_RecordSlot);
  if (m_SlotsMade > 0) pthread_key_delete(m_DescriptorSlot);
}

int CDeviceIoExtensionData::GetDescriptor() const {
  if (!IsUsable()) return -1;
  return static_cast<int>(reinterpret_cast<intptr_t>(pthread_getspecific(m_DescriptorSlot))) - 1;
}

bool CDeviceIoExtensionData::SetDescriptor(int fd) {
  if (!IsUsable() || fd < 0) return false;
  const void* value = reinterpret_cast<const void*>(static_cast<intptr_t>(fd) + 1);
  if (pthread_setspecific(m_DescriptorSlot, value) != 0) return false;
  if (pthread_setspecific(m_RecordSlot, this) != 0) {
    ClearSlots();
    return false;
  }
  const std::lock_guard lock(m_Mutex);
  ++m_OpenCount;
  return true;
}

void CDeviceIoExtensionData::ForgetDescriptor() {
  if (GetDescriptor() == -1) return;
  const std::lock_guard lock(m_Mutex);
  --m_OpenCount;
  ClearSlots();
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

void CDeviceIoExtensionData::termination(void* record) {
  auto* self = static_cast<CDeviceIoExtensionData*>(record);
  if (!self->m_Handler(self->GetDescriptor())) return;
  bool last = false;
  {
    const std::lock_guard lock(self->m_Mutex);
    --self->m_OpenCount;
    self->ClearSlots();
    last = self->m_OwnerGone && self->m_OpenCount == 0;
  }
  if (last) delete self;
}

void CDeviceIoExtensionData::ClearSlots() {
  pthread_setspecific(m_DescriptorSlot, nullptr);
  pthread_setspecific(m_RecordSlot, nullptr);
}
