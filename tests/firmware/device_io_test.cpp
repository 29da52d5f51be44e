#include "firmware/device_io.h"

#include "support/fixture_root.h"

#include <future>
#include <memory>

namespace {

bool IsOpen(int fd) {
  return ::fcntl(fd, F_GETFD) != -1;
}

}  // namespace

TEST(DeviceIo, EveryThreadHasItsOwnDescriptor) {
  auto device = std::make_unique<CDeviceIo>("/dev/null", true);
  ASSERT_TRUE(device->Open(O_RDONLY));
  const int mine = device->GetDescriptor();
  std::promise<int> opened;
  std::promise<void> end;
  std::thread other([&] {
    EXPECT_EQ(device->GetDescriptor(), -1);
    EXPECT_TRUE(device->Open(O_RDONLY));
    opened.set_value(device->GetDescriptor());
    end.get_future().wait();
  });
  const int theirs = opened.get_future().get();
  EXPECT_NE(theirs, mine);
  device.reset();  // the record lives on for the other thread
  EXPECT_FALSE(IsOpen(mine));
  EXPECT_TRUE(IsOpen(theirs));
  end.set_value();
  other.join();
  EXPECT_FALSE(IsOpen(theirs));
}

TEST(DeviceIo, KeepsItsDescriptorWhenTold) {
  int kept = -1;
  {
    CDeviceIo device("/dev/null");
    ASSERT_TRUE(device.Open(O_RDONLY));
    device.Close();
    EXPECT_EQ(device.GetDescriptor(), -1);
    ASSERT_TRUE(device.Open(O_RDONLY));
    kept = device.GetDescriptor();
    device.SetKeepOpen(true);
  }
  EXPECT_TRUE(IsOpen(kept));
  ::close(kept);
}

TEST(DeviceIo, ThreadSlotsAreGivenBack) {
  for (int i = 0; i < PTHREAD_KEYS_MAX + 10; ++i) {
    CDeviceIo device("/dev/null", true);
    ASSERT_TRUE(device.Open(O_RDONLY)) << i;
    device.Close();
    EXPECT_EQ(device.GetDescriptor(), -1);
  }
  CDeviceIo missing("/nonexistent", true);
  EXPECT_FALSE(missing.Open(O_RDONLY));
  EXPECT_EQ(missing.GetLastError(), static_cast<uint32_t>(ENOENT));
}
