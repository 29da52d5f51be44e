// The input as the answer of ravd-machine and as the texts of /proc behind the page of the module metrics: records go
// there and back, and the page holds whole lines of text whatever stood in them.

#include <cstdint>
#include <cstdlib>
#include <string>

#include "machine/interfaces.h"
#include "metrics/page.h"
#include "metrics/system_figures.h"

namespace {

constexpr size_t kMaxInput = 65536;

void Require(bool holds) {
  if (!holds) std::abort();
}

MachineRecords Parse(const std::string& text) {
  MachineRecords records;
  Require(ParseRecords(text, records));
  return records;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size > kMaxInput) return 0;
  std::string text(data, data + size);
  Figures figures;
  figures.interfaces = ParseInterfaces(text);
  figures.memory = ParseMemory(text);
  CpuSeconds cpu{};
  if (ParseCpu(text, 100, cpu)) figures.cpuBusy = BusyBetween(figures.cpu.emplace(cpu), {});

  const MachineRecords records = Parse(text.append(kEndLine));
  const MachineRecords again = Parse(ToText(records));
  Require(Parse(ToText(again)) == again && again.size() <= records.size());
  Require(CompareMachines(again, again).empty());
  CompareMachines({}, records);
  figures.machine = figures.volumes = records;

  const std::string page = WritePage(figures, PageFor::kScrape);
  Require(page.empty() || page.back() == '\n');
  for (size_t i = 0; i < page.size(); ++i) {
    const auto letter = static_cast<unsigned char>(page[i]);
    Require(letter >= ' ' ? letter != 0x7F : letter == '\n');
    if (letter == '\n' && i + 1 < page.size()) Require(page[i + 1] == '#' || page[i + 1] == 'r');
  }
  return 0;
}
