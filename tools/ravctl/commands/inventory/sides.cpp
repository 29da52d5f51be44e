#include "ravctl/commands/inventory/sides.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <map>
#include <optional>

#include "platform/descriptor_io.h"
#include "platform/unique_fd.h"
#include "ravctl/answer/json.h"
#include "ravctl/base/json_reader.h"
#include "ravctl/commands/inventory/comparison.h"
#include "ravctl/commands/inventory/group.h"
#include "ravctl/registry/store_export.h"
#include "ravctl/registry/store_files.h"
#include "ravctl/trace/trace_settings.h"
#include "ravctl/tree/tree_reading.h"

namespace ravctl {

namespace {

constexpr std::string_view kLive = "live";
constexpr std::string_view kSchema = "ravctl/inventory";

// Of a pipe nobody knows the size before.
std::string ReadFile(const std::string& path, int fd) {
  std::string text;
  std::array<char, 65536> part{};
  ssize_t got = 0;
  while ((got = ReadSome(fd, part.data(), part.size())) > 0) {
    text.append(part.data(), static_cast<size_t>(got));
    if (text.size() > JsonLimits().size) {
      throw CommandError(ExitCode::kInputDamaged, "too large for an inventory", path, "");
    }
  }
  if (got < 0) throw SystemFailure("cannot read", path, errno);
  return text;
}

// An archive does not begin as JSON does.
bool BeginsAsJson(int fd) {
  std::array<char, 4096> head{};
  const ssize_t got = ::pread(fd, head.data(), head.size(), 0);
  const std::string_view text(head.data(), static_cast<size_t>(std::max<ssize_t>(got, 0)));
  const size_t first = text.find_first_not_of(" \t\r\n");
  return first == std::string_view::npos || text[first] == '{';
}

Json ReadSaved(const std::string& path, const std::string& text) {
  std::string why;
  std::optional<Json> object = ReadJson(text, why);
  if (!object) {
    throw CommandError(ExitCode::kInputDamaged, "neither JSON nor a captured tree", path + ": " + why,
                       "save one with ravctl inventory --json");
  }
  if (!object->is_object() || object->value("schema", Json()) != kSchema ||
      !IsComparable(object->value("data", Json()))) {
    throw CommandError(ExitCode::kInputDamaged, "not an inventory", path, "save one with ravctl inventory --json");
  }
  // Settings come from trees and machines alone.
  (*object)["data"].erase(kRegistryKey);
  return std::move((*object)["data"]);
}

// What an inventory does not hold, of this process' root.
void AddSettings(Json& side, Output& out) {
  const TraceSettings trace("ravd");
  for (const TraceSetting& setting : trace.Settings())
    side["trace"].push_back({{"name", setting.name}, {"value", setting.value}, {"source", setting.source}});
  try {
    side[kRegistryKey] = ExportText(LoadStore(out).root);
  } catch (const CommandError&) {
    side[kRegistryKey] = nullptr;
  }
}

Json ReadRoot(bool isLive, Output& out) {
  const InventoryRecords records = ReadRecords(kAllRecords);
  if (isLive) WarnAboutRights(records, out);
  Json side = records.ToJson();
  AddSettings(side, out);
  return side;
}

Json ReadOperand(const std::string& operand, Output& out) {
  if (IsLive(operand)) {
    return ReadRoot(true, out);
  }
  const UniqueFd file(::open(operand.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
  struct stat info {};
  if (!file || ::fstat(file.Get(), &info) != 0) throw SystemFailure("cannot open", operand, errno);
  if (S_ISDIR(info.st_mode) || (S_ISREG(info.st_mode) && !BeginsAsJson(file.Get()))) {
    return ReadInTree(operand, [&out] { return ReadRoot(false, out); });
  }
  if (!S_ISREG(info.st_mode) && !S_ISFIFO(info.st_mode)) {
    throw CommandError(ExitCode::kInputMissing, "neither a file nor a pipe", operand, "check the path");
  }
  return ReadSaved(operand, ReadFile(operand, file.Get()));
}

// Each record says the slot of the adapter that it hangs on.
void AddSlots(Json& side) {
  std::map<std::string, Json> slots;  // by addresses of adapters and nodes of drives
  const auto place = [](const Json& record, const char* key) {
    const Json value = record.value(key, Json());
    return value.is_string() ? value.get<std::string>() : "";
  };
  for (const Json& adapter : side["adapters"])
    slots[place(adapter, "address")] = adapter.value("slot", Json());
  slots[""] = nullptr;
  for (Json& drive : side["drives"]) {
    drive["slot"] = slots[place(drive, "adapter")];
    slots.try_emplace(place(drive, "device"), drive["slot"]);
  }
  for (Json& volume : side["volumes"])
    volume["slot"] = slots[place(volume, "drive")];
  for (Json& interface : side["interfaces"])
    interface["slot"] = slots[place(interface, "address")];
}

}  // namespace

bool IsLive(const std::string& operand) {
  return operand == kLive || operand == "-";
}

Json ReadSide(const std::string& operand, Output& out) {
  Json side = ReadOperand(operand, out);
  side["volumes"] = WithoutKernelVolumes(side["volumes"]);
  side["adapters"] = WithoutUnknownDevices(side["adapters"]);
  AddSlots(side);
  return side;
}

}  // namespace ravctl
