#include "pci/legacy_class_table.h"

#include <algorithm>
#include <array>
#include <string_view>

namespace {

constexpr uint8_t kAny = 0xFF;
constexpr uint16_t kAnyId = 0xFFFF;

struct PciRow {
  uint8_t baseClass;
  uint8_t subClass;
  uint8_t interface;
  uint16_t vendorId;
  uint16_t deviceId;
  const char* name;
  BusComponentType type;
};

// The first row that matches counts: special rows stand in front of the wildcard row of their class.
constexpr auto kPciRows = std::to_array<PciRow>({
    {0x00, 0x00, kAny, kAnyId, kAnyId, "Early non-VGA device", kComponentOther},
    {0x00, 0x01, kAny, kAnyId, kAnyId, "VGA compatible device", kComponentDisplay},
    {0x00, kAny, kAny, kAnyId, kAnyId, "Early PCI device", kComponentOther},

    {0x01, 0x00, kAny, kAnyId, kAnyId, "SCSI controller", kComponentStorage},
    {0x01, 0x01, kAny, kAnyId, kAnyId, "IDE controller", kComponentStorage},
    {0x01, 0x02, kAny, kAnyId, kAnyId, "Floppy disk controller", kComponentStorage},
    {0x01, 0x03, kAny, kAnyId, kAnyId, "IPI controller", kComponentStorage},
    {0x01, 0x04, kAny, kAnyId, kAnyId, "RAID controller", kComponentStorage},
    {0x01, kAny, kAny, kAnyId, kAnyId, "Mass storage controller", kComponentStorage},

    {0x02, 0x00, kAny, kAnyId, kAnyId, "Ethernet controller", kComponentNetwork},
    {0x02, 0x01, kAny, kAnyId, kAnyId, "Token ring controller", kComponentNetwork},
    {0x02, 0x02, kAny, kAnyId, kAnyId, "FDDI controller", kComponentNetwork},
    {0x02, 0x03, kAny, kAnyId, kAnyId, "ATM controller", kComponentNetwork},
    {0x02, 0x04, kAny, kAnyId, kAnyId, "ISDN controller", kComponentNetwork},
    {0x02, kAny, kAny, kAnyId, kAnyId, "Network controller", kComponentNetwork},

    {0x03, 0x00, 0x01, kAnyId, kAnyId, "8514 compatible controller", kComponentDisplay},
    {0x03, 0x00, kAny, kAnyId, kAnyId, "VGA compatible controller", kComponentDisplay},
    {0x03, 0x01, kAny, kAnyId, kAnyId, "XGA controller", kComponentDisplay},
    {0x03, 0x02, kAny, kAnyId, kAnyId, "3D controller", kComponentDisplay},
    {0x03, kAny, kAny, kAnyId, kAnyId, "Display controller", kComponentDisplay},

    {0x04, 0x00, kAny, kAnyId, kAnyId, "Video device", kComponentDisplay},
    {0x04, 0x01, kAny, kAnyId, kAnyId, "Audio device", kComponentAudio},
    {0x04, 0x02, kAny, kAnyId, kAnyId, "Telephony device", kComponentOther},
    {0x04, kAny, kAny, kAnyId, kAnyId, "Multimedia device", kComponentOther},

    {0x05, 0x00, kAny, kAnyId, kAnyId, "RAM controller", kComponentOther},
    {0x05, 0x01, kAny, kAnyId, kAnyId, "Flash memory controller", kComponentOther},
    {0x05, kAny, kAny, kAnyId, kAnyId, "Memory controller", kComponentOther},

    {0x06, 0x00, kAny, kAnyId, kAnyId, "Host bridge", kComponentBridge},
    {0x06, 0x01, kAny, kAnyId, kAnyId, "ISA bridge", kComponentBridge},
    {0x06, 0x02, kAny, kAnyId, kAnyId, "EISA bridge", kComponentBridge},
    {0x06, 0x03, kAny, kAnyId, kAnyId, "MCA bridge", kComponentBridge},
    {0x06, 0x04, 0x01, kAnyId, kAnyId, "PCI-to-PCI bridge (subtractive)", kComponentBridge},
    {0x06, 0x04, kAny, kAnyId, kAnyId, "PCI-to-PCI bridge", kComponentBridge},
    {0x06, 0x05, kAny, kAnyId, kAnyId, "PCMCIA bridge", kComponentBridge},
    {0x06, 0x06, kAny, kAnyId, kAnyId, "NuBus bridge", kComponentBridge},
    {0x06, 0x07, kAny, kAnyId, kAnyId, "CardBus bridge", kComponentBridge},
    {0x06, 0x08, kAny, kAnyId, kAnyId, "RACEWay bridge", kComponentBridge},
    {0x06, 0x09, 0x40, kAnyId, kAnyId, "Host/PCI bridge (transparent)", kComponentBridge},
    {0x06, 0x09, kAny, kAnyId, kAnyId, "PCI/Host bridge (transparent)", kComponentBridge},
    {0x06, kAny, kAny, kAnyId, kAnyId, "Bridge device", kComponentBridge},

    {0x07, 0x00, 0x01, kAnyId, kAnyId, "16450 compatible serial port", kComponentSerial},
    {0x07, 0x00, 0x02, kAnyId, kAnyId, "16550 compatible serial port", kComponentSerial},
    {0x07, 0x00, 0x03, kAnyId, kAnyId, "16650 compatible serial port", kComponentSerial},
    {0x07, 0x00, 0x04, kAnyId, kAnyId, "16750 compatible serial port", kComponentSerial},
    {0x07, 0x00, 0x05, kAnyId, kAnyId, "16850 compatible serial port", kComponentSerial},
    {0x07, 0x00, 0x06, kAnyId, kAnyId, "16950 compatible serial port", kComponentSerial},
    {0x07, 0x00, kAny, kAnyId, kAnyId, "Generic XT compatible serial port", kComponentSerial},
    {0x07, 0x01, 0x01, kAnyId, kAnyId, "Bidirectional parallel port", kComponentParallel},
    {0x07, 0x01, 0x02, kAnyId, kAnyId, "ECP 1.X compliant parallel port", kComponentParallel},
    {0x07, 0x01, 0x03, kAnyId, kAnyId, "IEEE1284 controller", kComponentParallel},
    {0x07, 0x01, 0xFE, kAnyId, kAnyId, "IEEE1284 target device", kComponentParallel},
    {0x07, 0x01, kAny, kAnyId, kAnyId, "Parallel port", kComponentParallel},
    {0x07, 0x03, 0x01, kAnyId, kAnyId, "Hayes modem, 16450 compatible", kComponentSerial},
    {0x07, 0x03, 0x02, kAnyId, kAnyId, "Hayes modem, 16550 compatible", kComponentSerial},
    {0x07, 0x03, 0x03, kAnyId, kAnyId, "Hayes modem, 16650 compatible", kComponentSerial},
    {0x07, 0x03, 0x04, kAnyId, kAnyId, "Hayes modem, 16750 compatible", kComponentSerial},
    {0x07, 0x03, kAny, kAnyId, kAnyId, "Modem", kComponentSerial},
    {0x07, kAny, kAny, kAnyId, kAnyId, "Simple communication controller", kComponentOther},

    {0x08, 0x00, 0x01, kAnyId, kAnyId, "ISA PIC", kComponentOther},
    {0x08, 0x00, 0x02, kAnyId, kAnyId, "EISA PIC", kComponentOther},
    {0x08, 0x00, 0x10, kAnyId, kAnyId, "I/O APIC", kComponentOther},
    {0x08, 0x00, kAny, kAnyId, kAnyId, "Generic 8259 PIC", kComponentOther},
    {0x08, 0x01, 0x01, kAnyId, kAnyId, "ISA DMA", kComponentOther},
    {0x08, 0x01, 0x02, kAnyId, kAnyId, "EISA DMA", kComponentOther},
    {0x08, 0x01, kAny, kAnyId, kAnyId, "Generic 8237 DMA", kComponentOther},
    {0x08, 0x02, 0x01, kAnyId, kAnyId, "ISA system timer", kComponentOther},
    {0x08, 0x02, 0x02, kAnyId, kAnyId, "EISA system timer", kComponentOther},
    {0x08, 0x02, kAny, kAnyId, kAnyId, "Generic 8254 system timer", kComponentOther},
    {0x08, 0x03, 0x01, kAnyId, kAnyId, "ISA RTC", kComponentOther},
    {0x08, 0x03, kAny, kAnyId, kAnyId, "Generic RTC", kComponentOther},
    {0x08, 0x04, kAny, kAnyId, kAnyId, "Hot-Plug controller", kComponentOther},
    {0x08, kAny, kAny, kAnyId, kAnyId, "System peripheral", kComponentOther},

    {0x09, 0x00, kAny, kAnyId, kAnyId, "Keyboard controller", kComponentKeyboard},
    {0x09, 0x01, kAny, kAnyId, kAnyId, "Digitizer (pen)", kComponentPointer},
    {0x09, 0x02, kAny, kAnyId, kAnyId, "Mouse controller", kComponentPointer},
    {0x09, 0x03, kAny, kAnyId, kAnyId, "Scanner controller", kComponentOther},
    {0x09, 0x04, 0x10, kAnyId, kAnyId, "Game controller", kComponentSerial},
    {0x09, 0x04, kAny, kAnyId, kAnyId, "Generic gameport controller", kComponentSerial},
    {0x09, kAny, kAny, kAnyId, kAnyId, "Input device", kComponentOther},

    {0x0A, 0x00, kAny, kAnyId, kAnyId, "Docking station", kComponentOther},
    {0x0A, kAny, kAny, kAnyId, kAnyId, "Docking station", kComponentOther},

    {0x0B, 0x00, kAny, kAnyId, kAnyId, "386", kComponentProcessor},
    {0x0B, 0x01, kAny, kAnyId, kAnyId, "486", kComponentProcessor},
    {0x0B, 0x02, kAny, kAnyId, kAnyId, "Pentium", kComponentProcessor},
    {0x0B, 0x10, kAny, kAnyId, kAnyId, "Alpha", kComponentProcessor},
    {0x0B, 0x20, kAny, kAnyId, kAnyId, "PowerPC", kComponentProcessor},
    {0x0B, 0x30, kAny, kAnyId, kAnyId, "MIPS", kComponentProcessor},
    {0x0B, 0x40, kAny, kAnyId, kAnyId, "Co-processor", kComponentProcessor},
    {0x0B, kAny, kAny, kAnyId, kAnyId, "Processor", kComponentProcessor},

    {0x0C, 0x00, 0x10, kAnyId, kAnyId, "Firewire (OpenHCI)", kComponentStorage},
    {0x0C, 0x00, kAny, kAnyId, kAnyId, "Firewire (IEEE 1394)", kComponentStorage},
    {0x0C, 0x01, kAny, kAnyId, kAnyId, "ACCESS.bus", kComponentOther},
    {0x0C, 0x02, kAny, kAnyId, kAnyId, "SSA", kComponentOther},
    {0x0C, 0x03, 0x00, kAnyId, kAnyId, "USB (Universal Host)", kComponentOther},
    {0x0C, 0x03, 0x01, kAnyId, kAnyId, "USB (OpenHost)", kComponentOther},
    {0x0C, 0x03, 0xFE, kAnyId, kAnyId, "USB device", kComponentOther},
    {0x0C, 0x03, kAny, kAnyId, kAnyId, "USB controller", kComponentOther},
    {0x0C, 0x04, kAny, kAnyId, kAnyId, "Fibre Channel", kComponentSerial},
    {0x0C, 0x05, kAny, kAnyId, kAnyId, "SM Bus", kComponentOther},
    {0x0C, kAny, kAny, kAnyId, kAnyId, "Serial bus controller", kComponentSerial},

    {0x0D, 0x00, kAny, kAnyId, kAnyId, "iRDA controller", kComponentOther},
    {0x0D, 0x01, kAny, kAnyId, kAnyId, "Consumer IR controller", kComponentOther},
    {0x0D, 0x10, kAny, kAnyId, kAnyId, "RF controller", kComponentOther},
    {0x0D, kAny, kAny, kAnyId, kAnyId, "Wireless controller", kComponentOther},

    {0x0E, 0x00, kAny, 0x1044, kAnyId, "I2O raid controller", kComponentStorage},
    {0x0E, 0x00, kAny, kAnyId, kAnyId, "I2O controller", kComponentOther},
    {0x0E, kAny, kAny, kAnyId, kAnyId, "Intelligent I/O controller", kComponentOther},

    {0x0F, 0x01, kAny, kAnyId, kAnyId, "Satellite TV controller", kComponentOther},
    {0x0F, 0x02, kAny, kAnyId, kAnyId, "Satellite audio controller", kComponentOther},
    {0x0F, 0x03, kAny, kAnyId, kAnyId, "Satellite voice controller", kComponentOther},
    {0x0F, 0x04, kAny, kAnyId, kAnyId, "Satellite data controller", kComponentOther},
    {0x0F, kAny, kAny, kAnyId, kAnyId, "Satellite communication controller", kComponentOther},

    {0x10, 0x00, kAny, kAnyId, kAnyId, "Network and computing en/decryption", kComponentOther},
    {0x10, 0x10, kAny, kAnyId, kAnyId, "Entertainment en/decryption", kComponentOther},
    {0x10, kAny, kAny, kAnyId, kAnyId, "Encryption/decryption controller", kComponentOther},

    {0x11, 0x00, kAny, kAnyId, kAnyId, "DPIO module", kComponentOther},
    {0x11, kAny, kAny, kAnyId, kAnyId, "Signal processing controller", kComponentOther},

    {0xFF, kAny, kAny, kAnyId, kAnyId, "Other", kComponentOther},
});
static_assert(kPciRows.size() == 118);
static_assert(kPciRows.back().baseClass == kAny, "the last row takes every class that has none of its own");

struct IsaRow {
  std::string_view name;
  LegacyClass found;
};

constexpr auto kIsaRows = std::to_array<IsaRow>({
    {"acpi", {"ACPI controller", kComponentOther}},
    {"aha152x", {"SCSI controller", kComponentStorage}},
    {"cascade", {"Cascade controllers", kComponentOther}},
    {"cpe_hndlr", {"IA64 Machine Check Abort", kComponentOther}},
    {"cmc_hndlr", {"IA64 Machine Check Abort", kComponentOther}},
    {"mca_rdzv", {"IA64 Machine Check Abort", kComponentOther}},
    {"mca_wkup", {"IA64 Machine Check Abort", kComponentOther}},
    {"dma", {"ISA DMA", kComponentOther}},
    {"dma1", {"ISA DMA", kComponentOther}},
    {"dma2", {"ISA DMA", kComponentOther}},
    {"dma page reg", {"ISA DMA", kComponentOther}},
    {"e1000", {"Ethernet controller", kComponentNetwork}},
    {"fpu", {"Co-processor", kComponentOther}},
    {"ide0", {"IDE controller", kComponentStorage}},
    {"ide1", {"IDE controller", kComponentStorage}},
    {"IPI", {"IPI controller", kComponentStorage}},
    {"keyboard", {"Keyboard controller", kComponentKeyboard}},
    {"parallel", {"Parallel port", kComponentParallel}},
    {"parallel(auto)", {"Parallel port", kComponentParallel}},
    {"parport0", {"Parallel port", kComponentParallel}},
    {"perfmon", {"IA64 Performance Monitor", kComponentParallel}},
    {"pic1", {"ISA PIC", kComponentOther}},
    {"pic2", {"ISA PIC", kComponentOther}},
    {"rtc", {"ISA system timer", kComponentOther}},
    {"rtc0", {"ISA system timer", kComponentOther}},
    {"timer", {"ISA system timer", kComponentOther}},
    {"serial", {"Serial port", kComponentSerial}},
    {"serial(auto)", {"Serial port", kComponentSerial}},
    {"usb-ohci", {"Universal Serial Bus (USB)", kComponentSerial}},
    {"usb-uhci", {"Universal Serial Bus (USB)", kComponentSerial}},
    {"vga+", {"VGA compatible device", kComponentDisplay}},
    {"PS/2", {"Mouse controller", kComponentPointer}},
    {"PS/2 Mouse", {"Mouse controller", kComponentPointer}},
    {"vesafb", {"VESA framebuffer device", kComponentDisplay}},
    {"i8042", {"i8042 PS/2 keyboard/mouse controller", kComponentKeyboard}},
});

template <typename Number>
constexpr bool MatchesColumn(Number column, Number wildcard, Number value) {
  return column == wildcard || column == value;
}

}  // namespace

LegacyClass FindLegacyPciClass(uint8_t baseClass, uint8_t subClass, uint8_t interface, uint16_t vendorId,
                               uint16_t deviceId) {
  const auto row = std::ranges::find_if(kPciRows, [&](const PciRow& each) {
    return MatchesColumn(each.baseClass, kAny, baseClass) && MatchesColumn(each.subClass, kAny, subClass) &&
           MatchesColumn(each.interface, kAny, interface) && MatchesColumn(each.vendorId, kAnyId, vendorId) &&
           MatchesColumn(each.deviceId, kAnyId, deviceId);
  });
  return {row->name, row->type};
}

LegacyClass FindLegacyIsaClass(const char* name) {
  const auto row = std::ranges::find(kIsaRows, std::string_view(name), &IsaRow::name);
  return row == kIsaRows.end() ? LegacyClass{"Unknown Device", kComponentUnset} : row->found;
}
