// The SMBIOS data of a strange machine: the structures lie inside the table, one behind the other, and what is decoded
// and checked of them does no harm. The first byte of the input is the length of the entry point, which follows; the
// rest is the table.

#include <algorithm>
#include <cstdint>
#include <cstdlib>

#include "ravctl/base/error.h"
#include "ravctl/hardware/smbios_check.h"
#include "ravctl/hardware/smbios_names.h"

namespace {

constexpr size_t kMaxInput = 64 * 1024;

void Require(bool holds) {
  if (!holds) std::abort();
}

void CheckStructure(const ravctl::SmbiosStructure& structure, const ravctl::SmbiosImage& image) {
  const auto table = image.table.Bytes();
  Require(structure.offset < table.size() && structure.area.data() == table.data() + structure.offset &&
          structure.area.size() <= std::min<size_t>(structure.length, table.size() - structure.offset));
  for (const std::string_view text : structure.strings) {
    const auto* begin = reinterpret_cast<const unsigned char*>(text.data());
    Require(begin >= structure.area.data() && begin + text.size() < table.data() + table.size() + 1);
  }
  for (const unsigned int missing : ravctl::MissingSmbiosStrings(structure))
    Require(!structure.HasString(missing) && structure.String(missing).empty());
  for (const ravctl::SmbiosField& field : ravctl::DecodeSmbiosFields(structure))
    Require(!field.name.empty());
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0 || size > kMaxInput) return 0;
  const size_t header = std::min<size_t>(data[0], size - 1);
  ravctl::SmbiosImage image;
  image.entryPoint = CDataStream(data + 1, header);
  image.table = CDataStream(data + 1 + header, size - 1 - header);
  ravctl::WalkSmbiosImage(image);
  Require(image.used <= image.table.Size());
  Require(std::ranges::is_sorted(image.structures, {}, &ravctl::SmbiosStructure::offset));
  for (const ravctl::SmbiosStructure& structure : image.structures)
    CheckStructure(structure, image);
  Require(!ravctl::CheckSmbios(image).empty());
  try {
    Require(ravctl::SmbiosDumpFile(image).size() == 32 + image.table.Size());
  } catch (const ravctl::CommandError&) {  // no entry point
  }
  return 0;
}
