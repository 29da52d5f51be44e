#include "inventory/system_adapter_list.h"

#include <strings.h>

#include <algorithm>

#include "trace/debug.h"

bool CSystemAdapterList::GetAdapter(CSystemAdapter& adapter, const CPciAddress& address) const {
  const auto found = std::ranges::find(*this, address, &CSystemAdapter::GetPciAddress);
  if (found == end()) return false;
  adapter = *found;
  return true;
}

bool CSystemAdapterList::FindAdapter(CSystemAdapter& adapter, const char* deviceId) const {
  const char* const wanted = deviceId != nullptr ? deviceId : "";
  const auto hasId = [wanted](const CSystemAdapter& each) { return ::strcasecmp(each.DeviceIdText(), wanted) == 0; };
  const auto found = *wanted != '\0' ? std::ranges::find_if(*this, hasId) : end();
  if (found == end()) {
    TRACE(2, "\nCSystemAdapterList  : No adapter found for device ID \"%s\"!", wanted);
    return false;
  }
  adapter = *found;
  TRACE(2, "\nCSystemAdapterList  : Found adapter with device ID \"%s\": %s", wanted, adapter.DeviceName.c_str());
  return true;
}
