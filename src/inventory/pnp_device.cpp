#include "inventory/pnp_device.h"

#include <cstdio>
#include <cstring>
#include <string_view>

namespace {

std::unique_ptr<char[]> Duplicate(const char* text) {
  if (text == nullptr) return nullptr;
  const size_t size = std::strlen(text) + 1;
  auto copy = std::make_unique<char[]>(size);
  std::memcpy(copy.get(), text, size);
  return copy;
}

}  // namespace

std::string CGuid::ToString() const {
  char text[40] = {};
  std::snprintf(text, sizeof text, "%08X-%04X-%04X-%02X%02X-%02X%02X%02X%02X%02X%02X", data1, unsigned{data2},
                unsigned{data3}, unsigned{data4[0]}, unsigned{data4[1]}, unsigned{data4[2]}, unsigned{data4[3]},
                unsigned{data4[4]}, unsigned{data4[5]}, unsigned{data4[6]}, unsigned{data4[7]});
  return text;
}

CPnpDevice::CPnpDevice(const CPnpDevice& other)
    : ClassGuid(other.ClassGuid),
      ClassName(other.ClassName),
      CarriedText1(other.CarriedText1),
      CarriedText2(other.CarriedText2),
      DeviceId(Duplicate(other.DeviceId.get())) {}

CPnpDevice& CPnpDevice::operator=(const CPnpDevice& other) {
  if (this == &other) return *this;
  ClassGuid = other.ClassGuid;
  ClassName = other.ClassName;
  CarriedText1 = other.CarriedText1;
  CarriedText2 = other.CarriedText2;
  SetDeviceId(other.DeviceId.get());
  return *this;
}

void CPnpDevice::SetDeviceId(const char* deviceId) {
  DeviceId = Duplicate(deviceId);
}

std::string CPnpDevice::GetEnumerator() const {
  const std::string_view id = DeviceIdText();
  return std::string(id.substr(0, id.find('\\')));
}
