#pragma once

#include <functional>
#include <optional>
#include <string>

// Answers ioctl calls of the code under test in place of a device. The test program carries its own `ioctl`, which asks
// the handler first and passes everything that it does not answer on to the system.
//
//   const FakeIoctl device([](const std::string& path, unsigned long request, void* argument) -> std::optional<int> {
//     if (path != "/dev/pci/smbus") return std::nullopt;
//     ...fill *argument...; return 0;
//   });
//
// A negative answer -N makes the call fail with errno N. One handler at a time.
class FakeIoctl {
 public:
  // path: what the descriptor was opened as, seen from the caller's root ("" when that cannot be told).
  using Handler = std::function<std::optional<int>(const std::string& path, unsigned long request, void* argument)>;

  explicit FakeIoctl(Handler handler);
  ~FakeIoctl();
  FakeIoctl(const FakeIoctl&) = delete;
  FakeIoctl& operator=(const FakeIoctl&) = delete;
};
