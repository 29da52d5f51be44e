#pragma once

// The ISA part of the legacy bus tables: devices that the kernel's IRQ, DMA and I/O port lists name and that no PCI
// function owns. One thread at a time. False when none of the three lists could be opened, or
// when memory ran out on the way.
bool ScanIsaDevices();
