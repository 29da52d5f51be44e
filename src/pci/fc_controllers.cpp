#include "pci/fc_controllers.h"

#include <fcntl.h>
#include <glob.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cstring>
#include <optional>
#include <string>
#include <vector>

#include "pci/line_reader.h"
#include "platform/never_destroyed.h"
#include "platform/text_cursor.h"
#include "platform/unique_fd.h"
#include "trace/debug.h"

namespace {

constexpr const char* kListDevices = "/bin/ls -lR /sys/bus/pci/devices";
constexpr const char* kFcHostPatterns[] = {"/host*/fc_host:host*", "/host*/fc_host/host*"};
constexpr auto kLifetime = std::chrono::seconds(120);
constexpr size_t kMaxLine = 255;
constexpr size_t kMaxPortName = 256;

constinit NeverDestroyed<std::vector<FcController>> s_ListOfFCControllers;
std::optional<std::chrono::steady_clock::time_point> s_LastRefresh;

bool IsHexDigit(char letter) {
  return std::isxdigit(static_cast<unsigned char>(letter)) != 0;
}

std::string PortNamePath(unsigned host) {
  return "/sys/class/fc_host/host" + std::to_string(host) + "/port_name";
}

bool ReadWwn(unsigned host, FcWwn& wwn) {
  const std::string path = PortNamePath(host);
  const UniqueFd fd{::open(path.c_str(), O_RDONLY | O_CLOEXEC)};
  if (!fd) return false;
  char text[kMaxPortName + 1] = {};
  const ssize_t count = ::read(fd.Get(), text, kMaxPortName);
  if (count <= 0) return false;
  TRACE(1, "ScanFCC: n=%d, %s: WWN: %s\n", static_cast<int>(count), path.c_str(), text);
  if (!ParseWwn(std::string_view(text, static_cast<size_t>(count)), wwn)) return false;
  TRACE(1, "                : WWN: %02x%02x%02x%02x%02x%02x%02x%02x\n", wwn[0], wwn[1], wwn[2], wwn[3], wwn[4], wwn[5],
        wwn[6], wwn[7]);
  return true;
}

void AddController(std::string_view hostPath) {
  FcController controller;
  if (!ParseFcHostPath(hostPath, controller) || !ReadWwn(controller.host, controller.wwn)) return;
  s_ListOfFCControllers.object.push_back(controller);
}

// devicePath: the directory of one PCI function below /sys/devices.
void AddControllersOf(const std::string& devicePath) {
  for (const char* pattern : kFcHostPatterns) {
    glob_t matches = {};
    if (::glob((devicePath + pattern).c_str(), 0, nullptr, &matches) == 0) {
      for (size_t index = 0; index < matches.gl_pathc; ++index)
        AddController(matches.gl_pathv[index]);
    }
    ::globfree(&matches);
  }
}

}  // namespace

bool ParseFcHostPath(std::string_view path, FcController& out) {
  constexpr size_t kAddressLength = 13;  // "0000:00:03.0/"
  const size_t host = path.find("host");
  if (host == std::string_view::npos || host < kAddressLength) return false;
  if (host > kAddressLength && IsHexDigit(path[host - kAddressLength - 1])) return false;
  TextCursor cursor(path.substr(host - kAddressLength));
  FcController found;
  if (!cursor.Number(found.domain, 16) || !cursor.Skip(':') || !cursor.Number(found.bus, 16) || !cursor.Skip(':') ||
      !cursor.Number(found.device, 16) || !cursor.Skip('.') || !cursor.Number(found.function, 10) ||
      !cursor.Skip('/')) {
    return false;
  }
  cursor = TextCursor(path.substr(host + std::strlen("host")));
  if (!cursor.Number(found.host, 10)) return false;
  out = found;
  return true;
}

bool ParseWwn(std::string_view text, FcWwn& out) {
  if (text.starts_with("0x")) text.remove_prefix(2);
  uint64_t number = 0;
  if (!TextCursor(text).Number(number, 16)) return false;
  for (size_t index = 0; index < out.size(); ++index) {
    out[index] = static_cast<unsigned char>(number >> (56 - 8 * index));
  }
  return true;
}

void RefreshFcControllers(std::chrono::steady_clock::time_point now) {
  if (s_LastRefresh && now - *s_LastRefresh < kLifetime) return;
  s_LastRefresh = now;
  s_ListOfFCControllers.object.clear();
  LineReader listing = LineReader::OpenCommand(kListDevices);
  for (std::string_view line; listing.Next(line, kMaxLine);) {
    const size_t devices = line.find("/devices/pci");
    if (devices != std::string_view::npos) AddControllersOf("/sys" + std::string(line.substr(devices)));
  }
}

bool IsFCController(unsigned domain, unsigned bus, unsigned device, unsigned function, unsigned char* buffer,
                    size_t length) {
  if (buffer != nullptr) std::fill_n(buffer, length, static_cast<unsigned char>(0));
  if (s_ListOfFCControllers.object.empty()) {
    TRACE(1, "IsFCController: the list ListOfFCControllers is empty --> no FC-Controlers discovered\n");
    return false;
  }
  for (const FcController& each : s_ListOfFCControllers.object) {
    TRACE(1, "IsFCController: check if %04x:%02x:%02x.%d is in ListOfFCControllers\n", domain, bus, device,
          static_cast<int>(function));
    if (each.domain != domain || each.bus != bus || each.device != device || each.function != function) continue;
    if (buffer != nullptr) std::copy_n(each.wwn.begin(), std::min(length, each.wwn.size()), buffer);
    return true;
  }
  return false;
}

bool AdapterIsFCController(unsigned bus, unsigned device, unsigned function, FcWwn& wwn) {
  const std::vector<FcController>& all = s_ListOfFCControllers.object;
  const auto found = std::ranges::find_if(all, [&](const FcController& each) {
    return each.domain == 0 && each.bus == bus && each.device == device && each.function == function;
  });
  if (found == all.end()) return false;
  wwn = found->wwn;
  return true;
}
