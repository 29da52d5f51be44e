#include "pci/pci_config_header.h"

#include <algorithm>
#include <array>

namespace {

struct BaseClassRow {
  uint8_t baseClass;
  const char* name;
};

constexpr auto kBaseClassRows = std::to_array<BaseClassRow>({
    {0x00, "Unknown"},
    {0x01, "Mass storage controller"},
    {0x02, "Network controller"},
    {0x03, "Display controller"},
    {0x04, "Multimedia device"},
    {0x05, "Memory controller"},
    {0x06, "Bridge device"},
    {0x07, "Simple communication controller"},
    {0x08, "System peripheral"},
    {0x09, "Input device"},
    {0x0A, "Docking station"},
    {0x0B, "Processor"},
    {0x0C, "Serial bus controller"},
    {0x0D, "Wireless controller"},
    {0x0E, "Intelligent I/O controller"},
    {0x0F, "Satellite communication controller"},
    {0x10, "Encryption/decryption controller"},
    {0x11, "Signal processing controller"},
    {0xFF, "Other"},
});
static_assert(std::ranges::is_sorted(kBaseClassRows, {}, &BaseClassRow::baseClass));

constexpr uint16_t kAny = 0x100;  // matches every programming interface

struct SubClassRow {
  uint8_t baseClass;
  uint8_t subClass;
  uint16_t interface;
  const char* name;
};

// PCI Code and ID Assignment. The first row that matches counts, so that a row for every interface follows those for
// one; a sub class without a row has the name of its base class.
constexpr auto kSubClassRows = std::to_array<SubClassRow>({
    {0x00, 0x00, kAny, "Early non-VGA device"},
    {0x00, 0x01, kAny, "VGA compatible device"},
    {0x01, 0x00, kAny, "SCSI controller"},
    {0x01, 0x01, kAny, "IDE controller"},
    {0x01, 0x02, kAny, "Floppy disk controller"},
    {0x01, 0x03, kAny, "IPI controller"},
    {0x01, 0x04, kAny, "RAID controller"},
    {0x01, 0x05, kAny, "ATA controller"},
    {0x01, 0x06, kAny, "SATA controller"},
    {0x01, 0x07, kAny, "SAS controller"},
    {0x02, 0x00, kAny, "Ethernet controller"},
    {0x02, 0x01, kAny, "Token ring controller"},
    {0x02, 0x02, kAny, "FDDI controller"},
    {0x02, 0x03, kAny, "ATM controller"},
    {0x03, 0x00, 0x00, "VGA compatible controller"},
    {0x03, 0x00, kAny, "8514 compatible controller"},
    {0x03, 0x01, kAny, "XGA controller"},
    {0x03, 0x02, kAny, "3D controller"},
    {0x04, 0x00, kAny, "Video device"},
    {0x04, 0x01, kAny, "Audio device"},
    {0x04, 0x02, kAny, "Telephony device"},
    {0x05, 0x00, kAny, "RAM controller"},
    {0x05, 0x01, kAny, "Flash memory controller"},
    {0x06, 0x00, kAny, "Host bridge"},
    {0x06, 0x01, kAny, "ISA bridge"},
    {0x06, 0x02, kAny, "EISA bridge"},
    {0x06, 0x03, kAny, "MCA bridge"},
    {0x06, 0x04, kAny, "PCI-to-PCI bridge"},
    {0x06, 0x05, kAny, "PCMCIA bridge"},
    {0x06, 0x06, kAny, "NuBus bridge"},
    {0x06, 0x07, kAny, "CardBus bridge"},
    {0x06, 0x08, kAny, "RACEWay bridge"},
    {0x07, 0x00, 0x00, "Generic XT compatible serial port"},
    {0x07, 0x00, 0x01, "16450 compatible serial port"},
    {0x07, 0x00, 0x02, "16550 compatible serial port"},
    {0x07, 0x00, kAny, "Serial port"},
    {0x07, 0x01, 0x00, "Generic XT compatible parallel port"},
    {0x07, 0x01, 0x01, "Bidirectional parallel port"},
    {0x07, 0x01, 0x02, "ECP 1.X compliant parallel port"},
    {0x07, 0x01, kAny, "Parallel port"},
    {0x07, 0x02, kAny, "Multi serial controller"},
    {0x07, 0x03, kAny, "Modem"},
    {0x08, 0x00, 0x00, "Generic 8259 PIC"},
    {0x08, 0x00, 0x01, "ISA PIC"},
    {0x08, 0x00, 0x02, "EISA PIC"},
    {0x08, 0x00, kAny, "PIC"},
    {0x08, 0x01, 0x00, "Generic 8237 DMA"},
    {0x08, 0x01, 0x01, "ISA DMA"},
    {0x08, 0x01, 0x02, "EISA DMA"},
    {0x08, 0x01, kAny, "DMA"},
    {0x08, 0x02, 0x00, "Generic 8254 system timer"},
    {0x08, 0x02, 0x01, "ISA system timer"},
    {0x08, 0x02, 0x02, "EISA system timer"},
    {0x08, 0x02, kAny, "System timer"},
    {0x08, 0x03, 0x00, "Generic RTC"},
    {0x08, 0x03, 0x01, "ISA RTC"},
    {0x08, 0x03, kAny, "RTC"},
    {0x08, 0x04, kAny, "PCI hot-plug controller"},
    {0x09, 0x00, kAny, "Keyboard controller"},
    {0x09, 0x01, kAny, "Digitizer (pen)"},
    {0x09, 0x02, kAny, "Mouse controller"},
    {0x09, 0x03, kAny, "Scanning controller"},
    {0x09, 0x04, kAny, "Game controller"},
    {0x0B, 0x00, kAny, "386"},
    {0x0B, 0x01, kAny, "486"},
    {0x0B, 0x02, kAny, "Pentium"},
    {0x0B, 0x10, kAny, "Alpha"},
    {0x0B, 0x20, kAny, "PowerPC"},
    {0x0B, 0x40, kAny, "Co-processor"},
    {0x0C, 0x00, kAny, "Firewire (IEEE 1394)"},
    {0x0C, 0x01, kAny, "ACCESS.bus"},
    {0x0C, 0x02, kAny, "SSA"},
    {0x0C, 0x03, kAny, "Universal Serial Bus (USB)"},
    {0x0C, 0x04, kAny, "Fibre Channel"},
    {0x0C, 0x05, kAny, "SM Bus"},
    {0x0C, 0x06, kAny, "InfiniBand"},
    {0x0D, 0x00, kAny, "iRDA controller"},
    {0x0D, 0x01, kAny, "Consumer IR controller"},
    {0x0D, 0x02, kAny, "RF controller"},
    {0x0E, 0x00, kAny, "I2O controller"},
    {0x0F, 0x00, kAny, "Satellite TV controller"},
    {0x0F, 0x01, kAny, "Satellite audio controller"},
    {0x0F, 0x02, kAny, "Satellite voice controller"},
    {0x0F, 0x03, kAny, "Satellite data controller"},
    {0x10, 0x00, kAny, "Network and computing en/decryption"},
    {0x10, 0x01, kAny, "Entertainment en/decryption"},
    {0x11, 0x00, kAny, "DPIO module"},
});
static_assert(std::ranges::is_sorted(kSubClassRows, {},
                                     [](const SubClassRow& row) {
                                       return row.baseClass << 20 | row.subClass << 12 | row.interface;
                                     }),
              "sorted, so that the row for every interface stands behind its special cases");

bool Matches(const SubClassRow& row, const CPciCommonConfigHeader& header) {
  return row.baseClass == header.BaseClass() && row.subClass == header.SubClass() &&
         (row.interface == kAny || row.interface == header.ProgrammingInterface());
}

}  // namespace

const char* CPciCommonConfigHeader::GetPciBaseClassDescription(const CPciCommonConfigHeader& header) {
  const auto row = std::ranges::find(kBaseClassRows, header.BaseClass(), &BaseClassRow::baseClass);
  return row == kBaseClassRows.end() ? "Unknown" : row->name;
}

const char* CPciCommonConfigHeader::GetPciSubClassDescription(const CPciCommonConfigHeader& header) {
  const auto row =
      std::ranges::find_if(kSubClassRows, [&header](const SubClassRow& each) { return Matches(each, header); });
  return row == kSubClassRows.end() ? GetPciBaseClassDescription(header) : row->name;
}
