#include "ravctl/hardware/pci_name_finder.h"

extern "C" {
#include <pci/pci.h>
}

#include <array>
#include <memory>
#include <string_view>

#include "ravctl/base/files.h"
#include "ravctl/hardware/record.h"

namespace ravctl {

namespace {

constexpr const char* kAdapterFile = "/etc/pelrix/Adapter.ini";
constexpr size_t kLongestName = 1024;
constexpr int kNamesAlone = PCI_LOOKUP_NO_NUMBERS | PCI_LOOKUP_NO_HWDB;

struct IdFileDamaged {};

// libpci wants no return from here. Its frames hold nothing, and the unwind tables that x86-64 prescribes lead over
// them.
[[noreturn]] void ThrowDamaged(char*, ...) {
  throw IdFileDamaged();
}

void SayNothing(char*, ...) {}

// Open until the process ends.
class IdFile {
 public:
  static IdFile& Get() {
    static IdFile file;
    return file;
  }

  // Empty for IDs without a name.
  template <typename... Ids>
  std::string LookUp(int what, Ids... ids) try {
    std::array<char, kLongestName> name{};
    if (m_IsDamaged) return "";
    const char* const found = ::pci_lookup_name(m_Access.get(), name.data(), name.size(), what | kNamesAlone, ids...);
    return found == nullptr ? "" : found;
  } catch (const IdFileDamaged&) {
    m_IsDamaged = true;
    return "";
  }

 private:
  IdFile() : m_Access(::pci_alloc()) {
    m_Access->error = ThrowDamaged;
    m_Access->warning = SayNothing;
    m_Access->debug = SayNothing;
    char parameter[] = "hwdb.disable";
    char value[] = "1";
    ::pci_set_param(m_Access.get(), parameter, value);
  }

  std::unique_ptr<pci_access, decltype([](pci_access* access) { ::pci_cleanup(access); })> m_Access;
  bool m_IsDamaged = false;
};

std::string SubsystemName(const CPciCommonConfigHeader& header) {
  const int vendor = header.SubsystemVendorId();
  if (vendor == 0 || vendor == 0xFFFF) return "";
  IdFile& file = IdFile::Get();
  const std::string maker = file.LookUp(PCI_LOOKUP_SUBSYSTEM | PCI_LOOKUP_VENDOR, vendor);
  const std::string model = file.LookUp(PCI_LOOKUP_SUBSYSTEM | PCI_LOOKUP_DEVICE, int{header.VendorId()},
                                        int{header.DeviceId()}, vendor, int{header.SubsystemId()});
  return maker.empty() || model.empty() ? maker + model : maker + " " + model;
}

}  // namespace

PciNameFinder::PciNameFinder() {
  std::string text;
  if (ReadFileInto(kAdapterFile, text) == 0) m_AdapterNames.emplace(std::move(text));
}

std::string PciNameFinder::VendorName(uint16_t vendor) {
  return IdFile::Get().LookUp(PCI_LOOKUP_VENDOR, int{vendor});
}

PciNames PciNameFinder::Find(const CPciCommonConfigHeader& header) const {
  const int subsystem = header.SubsystemId() != 0 ? header.SubsystemId() : -1;
  std::string_view product, vendor;
  const bool isOwn =
      m_AdapterNames && m_AdapterNames->Find(header.VendorId(), header.DeviceId(), subsystem, product, vendor);
  PciNames names;
  names.vendor = TextOrNull(vendor);
  if (names.vendor.is_null()) names.vendor = TextOrNull(VendorName(header.VendorId()));
  names.product = TextOrNull(product);
  if (!isOwn) {
    names.product = TextOrNull(IdFile::Get().LookUp(PCI_LOOKUP_DEVICE, int{header.VendorId()}, int{header.DeviceId()}));
  }
  names.subsystem = TextOrNull(SubsystemName(header));
  if (!names.product.is_null()) names.source = isOwn ? "Adapter.ini" : "pci.ids";
  return names;
}

}  // namespace ravctl
