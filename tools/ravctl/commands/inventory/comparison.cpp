#include "ravctl/commands/inventory/comparison.h"

#include <algorithm>
#include <array>
#include <optional>
#include <span>

#include "ravctl/answer/json.h"
#include "ravctl/commands/inventory/sides.h"
#include "ravctl/registry/store_export.h"
#include "ravctl/registry/store_tree.h"

namespace ravctl {

namespace {

constexpr size_t kMostRecords = 10000;  // of a kind; each is compared with each

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
  const char* name;                  // "adapter"
  const char* list;                  // its key in the data
  const char* what = nullptr;        // what is missing where a side does not have the list; null: every side has it
  const char* place;                 // where the record sits
  const char* otherPlace = nullptr;  // the place where that one is null
  const char* title;                 // its name
  std::array<const char*, 3> identity = {};  // what goes along with the device; the first that is known counts
  const char* model = nullptr;               // what devices of one model share
  const char* slot = nullptr;                // what stands in the column SLOT
  Names derived = kSlotAlone;
};

constexpr auto kKinds = std::to_array<Kind>({
    {.name = "adapter",
     .list = "adapters",
     .place = "address",
     .otherPlace = "name",
     .title = "name",
     .identity = {"permanent_mac", "mac", "wwn"},
     .model = "id",
     .slot = "slot",
     .derived = kDerivedOfAdapter},
    {.name = "drive",
     .list = "drives",
     .place = "scsi",
     .otherPlace = "device",
     .title = "name",
     .identity = {"serial"},
     .model = "id",
     .slot = "slot",
     .derived = kDerivedOfDrive},
    {.name = "volume",
     .list = "volumes",
     .place = "mount_point",
     .otherPlace = "device",
     .title = "device",
     .model = "device",
     .slot = "slot",
     .derived = kDerivedOfVolume},
    {.name = "slot",
     .list = "slots",
     .what = "card slots",
     .place = "number",
     .otherPlace = "designation",
     .title = "designation",
     .slot = "number",
     .derived = kDerivedOfSlot},
    {.name = "memory",
     .list = "memory",
     .what = "memory modules",
     .place = "locator",
     .otherPlace = "bank",
     .title = "part_number",
     .identity = {"serial"},
     .slot = "locator"},
    {.name = "processor",
     .list = "processors",
     .what = "processors",
     .place = "socket",
     .title = "version",
     .identity = {"serial"},
     .slot = "socket"},
    {.name = "firmware", .list = "firmware", .what = "BIOS and system", .place = "what", .title = "product"},
    {.name = "kernel", .list = "kernel", .what = "kernel", .place = "what", .title = "what"},
    {.name = "interface",
     .list = "interfaces",
     .what = "network interfaces",
     .place = "name",
     .title = "address",
     .identity = {"mac"},
     .slot = "slot"},
    {.name = "trace", .list = "trace", .what = "trace settings", .place = "name", .title = "source"},
});

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

  Differences Compare(const Json& before, const Json& after) {
    for (const Kind& kind : kKinds) {
      const Json& left = Member(before, kind.list);
      const Json& right = Member(after, kind.list);
      if (IsInBoth(left, right, kind.what)) CompareKind(kind, left, right);
    }
    const Json& left = Member(before, kRegistryKey);
    const Json& right = Member(after, kRegistryKey);
    if (IsInBoth(left, right, kRegistryKey)) {
      CompareRegistries(ParseExport(left.get<std::string>(), kRegistryKey),
                        ParseExport(right.get<std::string>(), kRegistryKey));
    }
    return std::move(m_Found);
  }

 private:
  // What one side alone tells cannot be compared; what neither does is no news.
  bool IsInBoth(const Json& before, const Json& after, const char* what) {
    if (before.is_null() != after.is_null())
      (before.is_null() ? m_Found.missingBefore : m_Found.missingAfter).emplace_back(what);
    return !before.is_null() && !after.is_null();
  }

  void CompareKind(const Kind& kind, const Json& before, const Json& after) {
    m_Kind = &kind;
    m_Before.clear();
    m_After.clear();
    for (const Json& record : before)
      m_Before.push_back(&record);
    for (const Json& record : after)
      m_After.push_back(&record);
    const auto place = [&kind](const Json& record) { return PlaceOf(record, kind); };
    const auto model = [&kind](const Json& record) { return Member(record, kind.model); };
    const auto anything = [](const Json&) { return Json(true); };
    // From the surest pairing to the least sure one; what is paired is out of the game.
    Pair(Likeness::kSame, place);
    Pair(Likeness::kSame, anything);
    Pair(Likeness::kUnknown, place);
    Pair(Likeness::kUnknown, model);
    for (const Json* record : m_Before)
      Add("removed", *record, nullptr, Shown(PlaceOf(*record, kind)), nullptr);
    for (const Json* record : m_After)
      Add("added", *record, nullptr, nullptr, Shown(PlaceOf(*record, kind)));
  }

  void CompareRegistries(const StoreKey& before, const StoreKey& after) {
    const auto text = [](const std::optional<StoreValue>& value) { return value ? Json(ValueText(*value)) : Json(); };
    for (const StoreChange& change : CompareStores(before, after)) {
      m_Found.rows.Add({{"change", ChangeText(change.kind)},
                        {"kind", kRegistryKey},
                        {"where", PathText(change.key)},
                        {"slot", nullptr},
                        {"name", change.name ? Json(*change.name) : Json()},
                        {"field", nullptr},
                        {"old", text(change.before)},
                        {"new", text(change.after)}});
    }
  }

  // Those that are so alike and whose ties, which are known, are equal.
  template <typename Tie>
  void Pair(Likeness likeness, Tie tieOf) {
    std::erase_if(m_Before, [&](const Json* left) {
      const Json tie = tieOf(*left);
      const auto right = std::ranges::find_if(m_After, [&](const Json* each) {
        return !tie.is_null() && tie == tieOf(*each) && CompareIdentity(*left, *each, *m_Kind) == likeness;
      });
      if (right == m_After.end()) return false;
      ComparePair(*left, **right);
      m_After.erase(right);
      return true;
    });
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
    m_Found.oneSided.insert(key);
    return false;
  }

  static bool IsSame(const char* name, const std::string& key) { return name != nullptr && key == name; }

  void Add(const char* change, const Json& record, const char* field, Json before, Json after) {
    const Json place = PlaceOf(record, *m_Kind);
    m_Found.rows.Add({{"change", change},
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
  Differences m_Found;
};

}  // namespace

Differences CompareSides(const Json& before, const Json& after, bool withUsage) {
  return Comparison(withUsage).Compare(before, after);
}

bool IsComparable(const Json& data) {
  return data.is_object() && std::ranges::all_of(kKinds, [&data](const Kind& kind) {
           const Json& list = Member(data, kind.list);
           if (list.is_null()) return kind.what != nullptr;
           return list.is_array() && list.size() <= kMostRecords &&
                  std::ranges::all_of(list, [](const Json& record) { return record.is_object(); });
         });
}

}  // namespace ravctl
