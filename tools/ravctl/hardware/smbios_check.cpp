#include "ravctl/hardware/smbios_check.h"

#include <algorithm>
#include <cstddef>
#include <map>
#include <numeric>

#include "firmware/little_endian.h"
#include "firmware/smbios_from_memory.h"
#include "firmware/smbios_walk.h"
#include "ravctl/hardware/record.h"
#include "ravctl/hardware/smbios_names.h"

namespace ravctl {

namespace {

using Bytes = std::span<const unsigned char>;
using smbios_tables::_DMI_21_EPS;
using smbios_tables::_DMI_30_EPS;

constexpr const char* kToDo = "a newer firmware may mend it";

class SmbiosChecker {
 public:
  explicit SmbiosChecker(const SmbiosImage& image) : m_Image(image), m_Header(image.entryPoint.Bytes()) {
    CheckEntryPoint();
    CheckWalk();
    CheckEnd();
    for (const SmbiosStructure& structure : image.structures)
      CheckStructure(structure);
    CheckHandles();
  }

  const Findings& Result() const { return m_Findings; }

 private:
  void Good(const char* check, const std::string& place, const std::string& what) {
    m_Findings.push_back({Severity::kGood, check, place, what});
  }
  void Odd(const char* check, const std::string& place, const std::string& what) {
    m_Findings.push_back({Severity::kWarning, check, place, what, kToDo});
  }
  void Bad(const char* check, const std::string& place, const std::string& what) {
    m_Findings.push_back({Severity::kBad, check, place, what, kToDo});
  }
  void Judge(bool isGood, const char* check, const std::string& subject, const std::string& good,
             const std::string& bad) {
    if (isGood) {
      Good(check, subject, good);
    } else {
      Bad(check, subject, bad);
    }
  }

  bool HasAnchor(std::string_view anchor) const {
    return m_Header.size() >= anchor.size() &&
           std::equal(anchor.begin(), anchor.end(), m_Header.begin(),
                      [](char letter, unsigned char byte) { return static_cast<unsigned char>(letter) == byte; });
  }

  void CheckEntryPoint() {
    if (HasAnchor("_SM3_")) {
      CheckEntryPoint64();
    } else if (HasAnchor("_SM_")) {
      CheckEntryPoint32();
    } else {
      Bad("anchor", "entry point", "neither _SM_ nor _SM3_");
    }
  }

  // The bytes that the checksum is to cover; empty when the entry point is cut.
  Bytes Covered(const char* name, size_t lengthAt, size_t shortest) {
    const size_t length = ReadLittleEndian<uint8_t>(m_Header, lengthAt);
    const bool isGood = length >= shortest && length <= m_Header.size();
    Judge(isGood, "length", name, std::to_string(length) + " bytes",
          "says " + std::to_string(length) + " bytes, " + std::to_string(m_Header.size()) + " found, at least " +
              std::to_string(shortest) + " needed");
    return isGood ? m_Header.first(length) : Bytes();
  }

  void CheckSum(const char* check, const char* name, Bytes bytes) {
    const unsigned int sum = std::accumulate(bytes.begin(), bytes.end(), 0U) & 0xFF;
    Judge(sum == 0, check, name, "right", "the bytes sum to 0x" + HexText(sum, 2) + ", not to 0");
  }

  void CheckEntryPoint32() {
    constexpr const char* kName = "32-bit entry point";
    // 30 bytes in version 2.1, whose document had the length wrong; the fields are the same.
    const Bytes covered = Covered(kName, offsetof(_DMI_21_EPS, length), sizeof(_DMI_21_EPS) - 1);
    if (covered.empty()) return;
    CheckSum("checksum", kName, covered);
    if (m_Header.size() >= sizeof(_DMI_21_EPS)) {
      CheckSum("intermediate checksum", kName, m_Header.subspan(offsetof(_DMI_21_EPS, intermediateAnchor), 15));
    }
    const size_t tableLength = ReadLittleEndian<uint16_t>(m_Header, offsetof(_DMI_21_EPS, tableLength));
    Judge(tableLength == m_Image.used || tableLength == m_Image.table.Size(), "table length", kName,
          std::to_string(tableLength) + " bytes",
          "announced " + std::to_string(tableLength) + " bytes, found " + std::to_string(m_Image.used));
    const size_t count = ReadLittleEndian<uint16_t>(m_Header, offsetof(_DMI_21_EPS, structureCount));
    Judge(count == m_Image.structures.size(), "structure count", kName, std::to_string(count) + " structures",
          "announced " + std::to_string(count) + " structures, found " + std::to_string(m_Image.structures.size()));
    CheckLargest(kName);
  }

  void CheckLargest(const char* name) {
    const size_t largest = ReadLittleEndian<uint16_t>(m_Header, offsetof(_DMI_21_EPS, maximumStructureSize));
    for (size_t index = 0; index < m_Image.structures.size(); ++index) {
      const SmbiosStructure& structure = m_Image.structures[index];
      const bool isLast = index + 1 == m_Image.structures.size();
      const size_t size = (isLast ? m_Image.used : m_Image.structures[index + 1].offset) - structure.offset;
      if (largest != 0 && size > largest && structure.isWhole) {
        Odd("largest structure", name,
            "announced " + std::to_string(largest) + " bytes, " + SmbiosHandleText(structure.handle) + " has " +
                std::to_string(size));
      }
    }
  }

  void CheckEntryPoint64() {
    constexpr const char* kName = "64-bit entry point";
    const Bytes covered = Covered(kName, offsetof(_DMI_30_EPS, length), sizeof(_DMI_30_EPS));
    if (covered.empty()) return;
    CheckSum("checksum", kName, covered);
    const size_t maximum = ReadLittleEndian<uint32_t>(m_Header, offsetof(_DMI_30_EPS, tableMaximumSize));
    Judge(m_Image.used <= maximum, "table length", kName,
          std::to_string(m_Image.used) + " of at most " + std::to_string(maximum) + " bytes",
          "announced at most " + std::to_string(maximum) + " bytes, found " + std::to_string(m_Image.used));
  }

  void CheckWalk() {
    Judge(!m_Image.IsDamaged(), "structures", "table", std::to_string(m_Image.structures.size()) + " structures walked",
          m_Image.error);
  }

  void CheckEnd() {
    const bool hasEnd = !m_Image.structures.empty() && m_Image.structures.back().type == kSmbiosEndOfTable;
    Judge(hasEnd, "end structure", "table", "there", "the table does not end with a structure of type 127");
    const size_t rest = m_Image.table.Size() - m_Image.used;
    if (rest > 0) Odd("rest", "table", std::to_string(rest) + " bytes behind the last structure");
  }

  void CheckStructure(const SmbiosStructure& structure) {
    const std::string subject = SmbiosHandleText(structure.handle) + " " + SmbiosTypeName(structure.type);
    if (structure.length < sizeof(_DMI_20_HEADER)) {
      Bad("length", subject, "says " + std::to_string(structure.length) + " bytes, less than its header");
    } else if (structure.area.size() < structure.length) {
      Bad("length", subject,
          "says " + std::to_string(structure.length) + " bytes, " + std::to_string(structure.area.size()) +
              " are left of the table");
    } else if (!structure.isWhole) {
      Bad("strings", subject, "the strings do not end with two NUL bytes");
    }
    if (!structure.isWhole) return;
    for (const unsigned int number : MissingSmbiosStrings(structure)) {
      Odd("strings", subject,
          "a field names string " + std::to_string(number) + ", there are " + std::to_string(structure.strings.size()));
    }
  }

  void CheckHandles() {
    std::map<unsigned int, size_t> handles;
    for (const SmbiosStructure& structure : m_Image.structures)
      ++handles[structure.handle];
    for (const auto& [handle, count] : handles) {
      if (count > 1) Odd("handles", SmbiosHandleText(handle), std::to_string(count) + " structures have this handle");
    }
  }

  const SmbiosImage& m_Image;
  Bytes m_Header;
  Findings m_Findings;
};

}  // namespace

Findings CheckSmbios(const SmbiosImage& image) {
  return SmbiosChecker(image).Result();
}

}  // namespace ravctl
