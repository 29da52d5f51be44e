#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

// The network interfaces of the machine and what else can be seen of it at no cost, from /proc and /sys. One thread.

struct InterfaceFigures {
  std::string device;   // "eth0"
  std::string address;  // of its PCI function, "" without one
  std::string mac;
  std::optional<bool> isUp;
  std::optional<uint64_t> speed;     // bytes per second
  std::optional<uint64_t> received;  // bytes
  std::optional<uint64_t> sent;      // bytes
};

inline constexpr size_t kMaxInterfaces = 64;

// At most kMaxInterfaces, those of hardware first, then by name. Counters are the kernel's own, of 64 bits.
std::vector<InterfaceFigures> ReadInterfaces();

// /proc/net/dev: names and bytes alone.
std::vector<InterfaceFigures> ParseInterfaces(std::string_view text);

// The names of the PCI functions and block devices, sorted: what is other after one of them has come or gone.
std::string ListDevices();
