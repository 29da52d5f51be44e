// inventory diff: what changed between two inventories.

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <map>
#include <optional>
#include <set>
#include <span>
#include <string>
#include <vector>

#include "platform/descriptor_io.h"
#include "platform/unique_fd.h"
#include "ravctl/answer/json.h"
#include "ravctl/base/json_reader.h"
#include "ravctl/commands/inventory/group.h"
#include "ravctl/hardware/inventory_records.h"
#include "ravctl/line/command.h"
#include "ravctl/registry/store_export.h"
#include "ravctl/registry/store_files.h"
#include "ravctl/trace/trace_settings.h"
#include "ravctl/tree/tree_reading.h"

namespace ravctl {

namespace {

constexpr size_t kMostRecords = 10000;  // of a kind; each is compared with each
constexpr std::string_view kLive = "live";
constexpr std::string_view kSchema = "ravctl/inventory";

struct Options {
  std::string before;
  std::string after;
  bool withUsage = false;
};

using Names = std::span<const std::string_view>;

// Fields made of others, of the order of the scan, or of the names that a newer file gives to the same numbers.
constexpr auto kDerivedOfAdapter = std::to_array<std::string_view>(
    {"name", "id", "vendor", "product", "subsystem", "names_from", "interfaces", "fc_hosts", "ranges_from"});
constexpr auto kDerivedOfDrive = std::to_array<std::string_view>({"number", "id", "sources", "slot"});
constexpr auto kDerivedOfVolume = std::to_array<std::string_view>({"drive", "on", "slot"});
constexpr auto kDerivedOfSlot = std::to_array<std::string_view>({"functions", "sources", "is_onboard", "slot"});
constexpr auto kSlotAlone = std::to_array<std::string_view>({"slot"});

// How the records of one kind are told apart and compared.
struct Kind {
  const char* name;        // "adapter"
  const char* list;        // its key in the data
  const char* what;        // what is missing where a side does not have the list; null for one that every side has
  const char* place;       // where the record sits
  const char* otherPlace;  // the place where that one is null
  const char* title;
  std::array<const char*, 3> identity;  // what goes along with the device; the first that is known counts
  const char* model;                    // what devices of one model share
  const char* slot;                     // what stands in the column SLOT
  Names derived;
};

constexpr auto kKinds = std::to_array<Kind>({
    {"adapter",
     "adapters",
     nullptr,
     "address",
     "name",
     "name",
     {"permanent_mac", "mac", "wwn"},
     "id",
     "slot",
     kDerivedOfAdapter},
    {"drive", "drives", nullptr, "scsi", "device", "name", {"serial", nullptr, nullptr}, "id", "slot", kDerivedOfDrive},
    {"volume",
     "volumes",
     nullptr,
     "mount_point",
     "device",
     "device",
     {nullptr, nullptr, nullptr},
     "device",
     "slot",
     kDerivedOfVolume},
    {"slot",
     "slots",
     "card slots",
     "number",
     "designation",
     "designation",
     {nullptr, nullptr, nullptr},
     nullptr,
     "number",
     kDerivedOfSlot},
    {"memory",
     "memory",
     "memory modules",
     "locator",
     "bank",
     "part_number",
     {"serial", nullptr, nullptr},
     nullptr,
     "locator",
     kSlotAlone},
    {"processor",
     "processors",
     "processors",
     "socket",
     nullptr,
     "version",
     {"serial", nullptr, nullptr},
     nullptr,
     "socket",
     kSlotAlone},
    {"firmware",
     "firmware",
     "BIOS and system",
     "what",
     nullptr,
     "product",
     {nullptr, nullptr, nullptr},
     nullptr,
     nullptr,
     kSlotAlone},
    {"kernel", "kernel", "kernel", "what", nullptr, "what", {nullptr, nullptr, nullptr}, nullptr, nullptr, kSlotAlone},
    {"interface",
     "interfaces",
     "network interfaces",
     "name",
     nullptr,
     "address",
     {"mac", nullptr, nullptr},
     nullptr,
     "slot",
     kSlotAlone},
    {"trace",
     "trace",
     "trace settings",
     "name",
     nullptr,
     "source",
     {nullptr, nullptr, nullptr},
     nullptr,
     nullptr,
     kSlotAlone},
});
constexpr const char* kRegistry = "registry";

// How full a volume is changes all the time.
constexpr auto kUsageFields = std::to_array<std::string_view>({"available_kb", "used_percent", "available_blocks"});

// What goes with the place: no news of a device that moved.
constexpr auto kPlaceFields = std::to_array<std::string_view>({"os_device", "irq", "ports", "memory"});

// What a device or the running kernel has to be asked for: one side may not know it, which is no change.
constexpr auto kLiveFields = std::to_array<std::string_view>(
    {"permanent_mac", "driver_version", "firmware", "serial", "vendor", "name", "wwn", "size_kb", "available_kb",
     "used_percent", "blocks", "available_blocks", "block_size", "revision", "mtu"});

bool Has(Names names, std::string_view name) {
  return std::ranges::find(names, name) != names.end();
}

// ---- the two sides

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

// What the records have to have for a comparison; the schema says the rest. Lists that came later may be missing.
bool IsInventory(const Json& object) {
  if (!object.is_object() || object.value("schema", Json()) != kSchema || !object.contains("data")) return false;
  return std::ranges::all_of(kKinds, [&data = object["data"]](const Kind& kind) {
    if (!data.is_object()) return false;
    const Json list = data.value(kind.list, Json());
    if (list.is_null()) return kind.what != nullptr;
    return list.is_array() && list.size() <= kMostRecords &&
           std::ranges::all_of(list, [](const Json& record) { return record.is_object(); });
  });
}

Json ReadSaved(const std::string& path, const std::string& text) {
  std::string why;
  std::optional<Json> object = ReadJson(text, why);
  if (!object) {
    throw CommandError(ExitCode::kInputDamaged, "neither JSON nor a captured tree", path + ": " + why,
                       "save one with ravctl inventory --json");
  }
  if (!IsInventory(*object)) {
    throw CommandError(ExitCode::kInputDamaged, "not an inventory", path, "save one with ravctl inventory --json");
  }
  // Settings come from trees and machines alone.
  (*object)["data"].erase(kRegistry);
  return std::move((*object)["data"]);
}

// What an inventory does not hold, of this process' root.
void AddSettings(Json& side, Output& out) {
  const TraceSettings trace("ravd");
  for (const TraceSetting& setting : trace.Settings())
    side["trace"].push_back({{"name", setting.name}, {"value", setting.value}, {"source", setting.source}});
  try {
    side[kRegistry] = ExportText(LoadStore(out).root);
  } catch (const CommandError&) {
    side[kRegistry] = nullptr;
  }
}

bool IsLive(const std::string& operand) {
  return operand == kLive || operand == "-";
}

Json ReadSide(const std::string& operand, Output& out) {
  if (IsLive(operand)) {
    const InventoryRecords records = ReadRecords(kAllRecords);
    WarnAboutRights(records, out);
    Json side = records.ToJson();
    AddSettings(side, out);
    return side;
  }
  const UniqueFd file(::open(operand.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
  struct stat info {};
  if (!file || ::fstat(file.Get(), &info) != 0) throw SystemFailure("cannot open", operand, errno);
  if (S_ISDIR(info.st_mode) || (S_ISREG(info.st_mode) && !BeginsAsJson(file.Get()))) {
    return ReadInTree(operand, [&out] {
      Json side = ReadRecords(kAllRecords).ToJson();
      AddSettings(side, out);
      return side;
    });
  }
  if (!S_ISREG(info.st_mode) && !S_ISFIFO(info.st_mode)) {
    throw CommandError(ExitCode::kInputMissing, "neither a file nor a pipe", operand, "check the path");
  }
  return ReadSaved(operand, ReadFile(operand, file.Get()));
}

// ---- comparison

const Json& Member(const Json& record, const char* key) {
  static const Json none;
  if (key == nullptr) return none;
  const auto found = record.find(key);
  return found == record.end() ? none : *found;
}

Json PlaceOf(const Json& record, const Kind& kind) {
  const Json& place = Member(record, kind.place);
  return place.is_null() ? Member(record, kind.otherPlace) : place;
}

enum class Likeness { kSame, kOther, kUnknown };

// By the first identity that both records know.
Likeness CompareIdentity(const Json& left, const Json& right, const Kind& kind) {
  for (const char* key : kind.identity) {
    const Json& identity = Member(left, key);
    if (identity.is_null() || Member(right, key).is_null()) continue;
    return identity == Member(right, key) ? Likeness::kSame : Likeness::kOther;
  }
  return Likeness::kUnknown;
}

Json Shown(const Json& value) {
  if (value.is_null() || value.is_string()) return value;
  return value.is_array() && value.empty() ? Json() : Json(value.dump());
}

class Comparison {
 public:
  explicit Comparison(bool withUsage) : m_WithUsage(withUsage) {}

  void Compare(const Kind& kind, const Json& before, const Json& after) {
    m_Kind = &kind;
    m_Before.clear();
    m_After.clear();
    for (const Json& record : before)
      m_Before.push_back(&record);
    for (const Json& record : after)
      m_After.push_back(&record);
    // From the surest pairing to the least sure one; what is paired is out of the game.
    Pair([this](const Json& left, const Json& right) { return IsSamePlace(left, right) && IsSameDevice(left, right); });
    Pair([this](const Json& left, const Json& right) { return IsSameDevice(left, right); });
    Pair([this](const Json& left, const Json& right) { return IsSamePlace(left, right) && MayBeSame(left, right); });
    Pair([this](const Json& left, const Json& right) { return IsSameModel(left, right) && MayBeSame(left, right); });
    for (const Json* record : m_Before)
      Add("removed", *record, nullptr, Shown(PlaceOf(*record, kind)), nullptr);
    for (const Json* record : m_After)
      Add("added", *record, nullptr, nullptr, Shown(PlaceOf(*record, kind)));
  }

  void CompareRegistries(const StoreKey& before, const StoreKey& after) {
    const auto text = [](const std::optional<StoreValue>& value) { return value ? Json(ValueText(*value)) : Json(); };
    for (const StoreChange& change : CompareStores(before, after)) {
      m_Table.Add({{"change", ChangeText(change.kind)},
                   {"kind", kRegistry},
                   {"where", PathText(change.key)},
                   {"slot", nullptr},
                   {"name", change.name ? Json(*change.name) : Json()},
                   {"field", nullptr},
                   {"old", text(change.before)},
                   {"new", text(change.after)}});
    }
  }

  const Table& Result() const { return m_Table; }
  // The fields in which nothing could be compared as one side does not know them.
  const std::set<std::string>& OneSided() const { return m_OneSided; }

 private:
  bool IsSamePlace(const Json& left, const Json& right) const {
    const Json place = PlaceOf(left, *m_Kind);
    return !place.is_null() && place == PlaceOf(right, *m_Kind);
  }
  bool IsSameDevice(const Json& left, const Json& right) const {
    return CompareIdentity(left, right, *m_Kind) == Likeness::kSame;
  }
  bool MayBeSame(const Json& left, const Json& right) const {
    return CompareIdentity(left, right, *m_Kind) == Likeness::kUnknown;
  }
  bool IsSameModel(const Json& left, const Json& right) const {
    if (m_Kind->model == nullptr) return false;
    const Json& model = Member(left, m_Kind->model);
    return !model.is_null() && model == Member(right, m_Kind->model);
  }

  template <typename Predicate>
  void Pair(Predicate isPair) {
    for (auto left = m_Before.begin(); left != m_Before.end();) {
      const auto right = std::ranges::find_if(m_After, [&](const Json* record) { return isPair(**left, *record); });
      if (right == m_After.end()) {
        ++left;
        continue;
      }
      ComparePair(**left, **right);
      m_After.erase(right);
      left = m_Before.erase(left);
    }
  }

  void ComparePair(const Json& left, const Json& right) {
    const Json oldPlace = PlaceOf(left, *m_Kind);
    const Json newPlace = PlaceOf(right, *m_Kind);
    const bool isMoved = oldPlace != newPlace;
    if (isMoved) Add("moved", right, m_Kind->place, Shown(oldPlace), Shown(newPlace));
    for (const auto& [key, value] : right.items()) {
      const Json& old = Member(left, key.c_str());
      if (old != value && left.contains(key) && IsNews(key, isMoved, old.is_null() || value.is_null())) {
        Add("changed", right, key.c_str(), Shown(old), Shown(value));
      }
    }
  }

  // isOneSided: one of the two does not know the field.
  bool IsNews(const std::string& key, bool isMoved, bool isOneSided) {
    if (key == m_Kind->place || Has(m_Kind->derived, key)) return false;
    if (isMoved && (IsSame(m_Kind->otherPlace, key) || Has(kPlaceFields, key))) return false;
    if (!m_WithUsage && Has(kUsageFields, key)) return false;
    if (!isOneSided || !Has(kLiveFields, key)) return true;
    m_OneSided.insert(key);
    return false;
  }

  static bool IsSame(const char* name, const std::string& key) { return name != nullptr && key == name; }

  void Add(const char* change, const Json& record, const char* field, Json before, Json after) {
    const Json place = PlaceOf(record, *m_Kind);
    m_Table.Add({{"change", change},
                 {"kind", m_Kind->name},
                 {"where", place.is_null() ? Json("") : Shown(place)},
                 {"slot", Shown(Member(record, m_Kind->slot))},
                 {"name", Shown(Member(record, m_Kind->title))},
                 {"field", field == nullptr ? Json() : Json(field)},
                 {"old", std::move(before)},
                 {"new", std::move(after)}});
  }

  bool m_WithUsage;
  const Kind* m_Kind = nullptr;
  std::vector<const Json*> m_Before, m_After;
  std::set<std::string> m_OneSided;
  Table m_Table{kInventoryDiff};
};

// Each record says the slot of the adapter that it hangs on.
void AddSlots(Json& side) {
  std::map<std::string, Json> slots;  // by address, then by drive
  const auto find = [&slots](const Json& key) {
    const auto found = slots.find(key.is_string() ? key.get<std::string>() : "");
    return found == slots.end() ? Json() : found->second;
  };
  for (const Json& adapter : side["adapters"])
    slots[Member(adapter, "address").is_string() ? adapter["address"].get<std::string>() : ""] =
        Member(adapter, "slot");
  slots.erase("");
  for (Json& drive : side["drives"]) {
    drive["slot"] = find(Member(drive, "adapter"));
    if (Member(drive, "device").is_string()) slots[drive["device"].get<std::string>()] = drive["slot"];
  }
  for (Json& volume : side["volumes"])
    volume["slot"] = find(Member(volume, "drive"));
  for (Json& interface : side["interfaces"])
    interface["slot"] = find(Member(interface, "address"));
}

// The scan leaves its mark on the process, such as the table of mounts, and a child would take it over: the live
// machine comes last.
std::array<Json, 2> ReadSides(const Options& options, Output& out) {
  const std::array<const std::string*, 2> operands = {&options.before, &options.after};
  std::array<Json, 2> sides;
  for (const bool wantsLive : {false, true}) {
    for (size_t side = 0; side < operands.size(); ++side) {
      if (IsLive(*operands[side]) == wantsLive) {
        sides[side] = ReadSide(*operands[side], out);
        sides[side]["volumes"] = WithoutKernelVolumes(sides[side]["volumes"]);
        sides[side]["adapters"] = WithoutUnknownDevices(sides[side]["adapters"]);
        AddSlots(sides[side]);
      }
    }
  }
  return sides;
}

// What one side alone tells cannot be compared; what neither does is no news.
class Missing {
 public:
  Missing(const Options& options, Output& out) : m_Options(options), m_Out(out) {}

  // Whether both sides have the list.
  bool IsInBoth(const Json& before, const Json& after, const char* what) {
    if (before.is_null() != after.is_null()) (before.is_null() ? m_Before : m_After).emplace_back(what);
    return !before.is_null() && !after.is_null();
  }

  void Tell(const std::set<std::string>& oneSided) const {
    TellSide(m_Before, m_Options.before);
    TellSide(m_After, m_Options.after);
    if (!oneSided.empty()) {
      m_Out.Warn("not compared, as one side does not know them", JoinList({oneSided.begin(), oneSided.end()}),
                 "a device or the running kernel has to be asked for them");
    }
  }

 private:
  static std::string JoinList(const std::vector<std::string>& names) {
    std::string text;
    for (const std::string& name : names)
      text += (text.empty() ? "" : ", ") + name;
    return text;
  }

  void TellSide(const std::vector<std::string>& what, const std::string& operand) const {
    if (!what.empty())
      m_Out.Warn("not compared: " + JoinList(what), operand, "that side does not tell; a bundle tells most");
  }

  const Options& m_Options;
  Output& m_Out;
  std::vector<std::string> m_Before, m_After;
};

ExitCode RunDiff(const Options& options, Output& out) {
  const auto [before, after] = ReadSides(options, out);
  Comparison comparison(options.withUsage);
  Missing missing(options, out);
  for (const Kind& kind : kKinds) {
    const Json& left = Member(before, kind.list);
    const Json& right = Member(after, kind.list);
    if (missing.IsInBoth(left, right, kind.what)) comparison.Compare(kind, left, right);
  }
  const Json& left = Member(before, kRegistry);
  const Json& right = Member(after, kRegistry);
  if (missing.IsInBoth(left, right, kRegistry)) {
    comparison.CompareRegistries(ParseExport(left.get<std::string>(), options.before),
                                 ParseExport(right.get<std::string>(), options.after));
  }
  missing.Tell(comparison.OneSided());
  out.Print(kInventoryDiff, comparison.Result());
  return comparison.Result().Size() == 0 ? ExitCode::kDone : ExitCode::kNothingOrDifferent;
}

}  // namespace

void AddInventoryDiff(Command& inventory) {
  auto options = std::make_shared<Options>();
  Command& diff = inventory.Add(
      {"diff",
       "Show what was added, removed, moved or changed: adapters, drives, volumes, slots, memory modules, processors, "
       "BIOS, kernel, interfaces, trace settings, registry; exit status 1 when anything was",
       {{"ravctl inventory diff before.json live", "since that was saved with ravctl inventory --json"},
        {"ravctl inventory diff server1.tar.gz server2.tar.gz", "between two bundles"}}},
      [options](Output& out) { return RunDiff(*options, out); });
  diff.Answers({&kInventoryDiff});
  diff.AddRequired("BEFORE", &options->before, "live or - for this machine, saved JSON, a captured tree or a bundle");
  diff.AddRequired("AFTER", &options->after, "The same");
  diff.AddFlag("--usage", &options->withUsage, "Tell too how full volumes are");
}

}  // namespace ravctl
