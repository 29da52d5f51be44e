// The search for the PCI IRQ routing table. An input is placed at its end, so that the last paragraphs are met too.

#include <cstdint>
#include <cstdlib>
#include <vector>

#include "firmware/irq_routing_table.h"
#include "trace/debug.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size > 65536) return 0;
  Debug.m_TraceActive = true;  // to no target
  Debug.m_TraceLevel = 6;
  for (const size_t before : {size_t{0}, size_t{32}}) {
    std::vector<unsigned char> area(before + size);
    std::copy(data, data + size, area.begin() + static_cast<std::ptrdiff_t>(before));
    const std::vector<unsigned char> entries = ParseIrqRoutingTable(area);
    if (entries.size() % sizeof(IRQ_ROUTING_TABLE_ENTRY) != 0 ||
        entries.size() + 64 > area.size() + (entries.empty() ? 64 : 0))
      std::abort();
  }
  return 0;
}
