#pragma once

#include <vector>

#include "inventory/system_adapter.h"
#include "platform/export.h"

// The adapters of a machine in scan order. A value without a lock of its own.
class RAVD_EXPORT CSystemAdapterList : public std::vector<CSystemAdapter> {
 public:
  // Copies the first adapter at that address; false, and adapter unchanged, without one. An invalid address is
  // nobody's: ISA devices are not found by it.
  bool GetAdapter(CSystemAdapter& adapter, const CPciAddress& address) const;

  // Copies the first adapter with that device ID; false, and adapter unchanged, without one. Of the ID upper and lower
  // case are the same. Null and "" find nothing, not even an adapter without an ID.
  bool FindAdapter(CSystemAdapter& adapter, const char* deviceId) const;
};
