#include "firmware/device_bios.h"

#include "support/trace_capture.h"

using DeviceBios = RootedTest;

TEST_F(DeviceBios, MapsFromThePageStart) {
  root.MakeSparseFile("/dev/mem", 0x100000);
  root.WriteAt("/dev/mem", 0xF0123, "hello");
  root.WriteAt("/dev/mem", 0x10, "low");
  RunTraced(root, 5, [](TraceCapture& trace) {
    CDeviceBios device;
    EXPECT_EQ(device.MapPhysicalMemory(0, 0xF0123, 5, false), nullptr);
    EXPECT_TRUE(trace.Has("CDeviceBios (Map) : ## ERROR: DeviceBios is not connected - fix this!!"));
    device.Connect();
    const unsigned char* mapped = device.MapPhysicalMemory(1, 0xF0123, 5, false);
    ASSERT_NE(mapped, nullptr);
    EXPECT_EQ(std::memcmp(mapped, "hello", 5), 0);
    EXPECT_TRUE(trace.Has("CDeviceBios (Map) : Mapping physical memory 0x1000F0123 len 0x00005 to the user process"));
    EXPECT_TRUE(trace.Has("Varnock (MapMemLx)  : mapping offset = 0x123"));

    mapped = device.MapPhysicalMemory(0, 0x10, 3, false);  // the page at 0 is mapped and unmapped like any other
    ASSERT_NE(mapped, nullptr);
    EXPECT_EQ(std::memcmp(mapped, "low", 3), 0);
    EXPECT_EQ(trace.Count("CDeviceBios (Unmap) : unmapped 0x128 bytes at 0xf0000 from 0x"), 1);
    EXPECT_TRUE(device.UnmapPhysicalMemory());
    EXPECT_EQ(trace.Count("CDeviceBios (Unmap) : unmapped 0x13 bytes at 0x0 from 0x"), 1);

    unsigned char* writable = device.MapPhysicalMemory(0, 0xF0123, 5, true);
    ASSERT_NE(writable, nullptr);
    std::memcpy(writable, "HELLO", 5);
    EXPECT_EQ(trace.Count("## WARNING! Mapped physical memory already existing"), 1);
    EXPECT_EQ(device.MapPhysicalMemory(0, 0xF0123, 0, false), nullptr);  // forgets the mapping
    ASSERT_NE(device.MapPhysicalMemory(0, 0xF0123, 5, false), nullptr);
    EXPECT_EQ(trace.Count("## WARNING! Mapped physical memory already existing"), 1);
  });
  EXPECT_EQ(root.ReadFile("/dev/mem").substr(0xF0123, 5), "HELLO");
}

TEST_F(DeviceBios, RefusesWhatCannotBeMapped) {
  root.MakeSparseFile("/dev/mem", 0x100000);
  root.Run([] {
    constexpr std::tuple<uint32_t, uint64_t, uint32_t> kRows[] = {
        {0, 16, 0},
        {0xF0000, 0, 0},
        {0xF0001, 0x10000, ENXIO},  // one byte behind the end
        {0x200000, 16, ENXIO},
        {0xF0010, 0xFFFFFFF0, EOVERFLOW},  // would wrap to no bytes at all
    };
    for (const auto& [address, length, lastError] : kRows) {
      CDeviceBios device;
      device.Connect();
      EXPECT_EQ(device.MapPhysicalMemory(0, address, length, false), nullptr) << address;
      EXPECT_EQ(device.GetLastError(), lastError) << address;
    }
  });
}
