#include "ravctl/tree/redact/redact_entries.h"

#include <algorithm>
#include <array>
#include <functional>
#include <utility>

#include "ravctl/answer/json.h"
#include "ravctl/answer/output.h"
#include "ravctl/base/gzip.h"
#include "ravctl/tree/bundle_format.h"
#include "ravctl/tree/redact/forms.h"
#include "ravctl/tree/redact/redact_tables.h"
#include "ravctl/tree/redact/redactor.h"

namespace ravctl {

namespace {

enum class ContentKind {
  kPlainText,
  kNumbers,  // a text full of numbers, which may have the form of an address
  kSerial,   // nothing but a serial number, behind the header of a page of SPC-4 where it is one
  kTrace,
  kAnswer,  // JSON of a command: its texts are texts, its numbers none
  kRegistry,
  kPlain,  // nothing of a machine's own is in it
  kSmbios,
  kEsxSmbios,
  kMemory,
};

struct KindRow {
  std::string_view start;
  std::string_view end;
  ContentKind kind;
};

// The first row that fits; a text else.
constexpr auto kKinds = std::to_array<KindRow>({
    {"sys/firmware/dmi/tables/DMI", "", ContentKind::kSmbios},
    {"sys/firmware/dmi/tables/", "", ContentKind::kPlain},
    {"vmfs/devices/char/mem/smbios", "", ContentKind::kEsxSmbios},
    {kMemoryPath, "", ContentKind::kMemory},
    {"proc/bus/pci/", "", ContentKind::kPlain},
    {"proc/iomem", "", ContentKind::kPlain},
    {"proc/ioports", "", ContentKind::kPlain},
    {"etc/localtime", "", ContentKind::kPlain},
    {"sys/", "/config", ContentKind::kPlain},
    {"sys/", "/resource", ContentKind::kPlain},
    {"proc/interrupts", "", ContentKind::kNumbers},
    {"proc/net/dev", "", ContentKind::kNumbers},
    {"proc/", "/stat", ContentKind::kNumbers},
    {"proc/stat", "", ContentKind::kNumbers},
    {"proc/", "/status", ContentKind::kNumbers},
    {"proc/", "/maps", ContentKind::kNumbers},
    {"ravctl/kernel.txt", "", ContentKind::kNumbers},
    {"ravctl/modules.txt", "", ContentKind::kNumbers},
    {"ravctl/", ".json", ContentKind::kAnswer},
    {"proc/meminfo", "", ContentKind::kNumbers},
    {"sys/", "/irq", ContentKind::kNumbers},
    {"sys/", "/size", ContentKind::kNumbers},
    {"sys/", "/mtu", ContentKind::kNumbers},
    {"proc/sys/kernel/osrelease", "", ContentKind::kPlain},
    {"sys/", "/serial", ContentKind::kSerial},
    {"sys/", "/vpd_pg80", ContentKind::kSerial},
    {"", "/ravd.pid", ContentKind::kNumbers},
    {"etc/pelrix/registry", "", ContentKind::kRegistry},
});

ContentKind KindOf(const std::string& path) {
  for (const KindRow& row : kKinds) {
    if (path.starts_with(row.start) && path.ends_with(row.end)) return row.kind;
  }
  return path.compare(path.rfind('/') + 1, 4, "log.") == 0 ? ContentKind::kTrace : ContentKind::kPlainText;
}

constexpr const char* kSerialKey = "serial";

// ---- packed traces

// Null when it unpacked, else what is wrong with it.
const char* Unpack(std::string& content) {
  std::string text;
  std::string_view rest = content;
  const char* fault = UnpackGzip([&rest] { return std::exchange(rest, {}); },
                                 [&text](std::string_view piece) { return text.append(piece).size() <= kLargestFile; });
  if (text.size() > kLargestFile) return "too large to be redacted when unpacked";
  if (fault != nullptr) return "it is damaged, so that it cannot be redacted";
  content = std::move(text);
  return nullptr;
}

// Leaves packed traces unpacked, and those out that cannot be; the result tells which of the rest were packed.
std::vector<bool> UnpackTraces(std::vector<CapturedEntry>& entries, std::vector<Uncaptured>& missing) {
  std::vector<bool> wasPacked;
  std::vector<CapturedEntry> kept;
  for (CapturedEntry& entry : entries) {
    const bool isPacked =
        entry.type == EntryType::kFile && KindOf(entry.path) == ContentKind::kTrace && IsGzip(entry.content);
    const char* fault = isPacked ? Unpack(entry.content) : nullptr;
    if (fault != nullptr) {
      missing.push_back({"/" + entry.path, fault, false});
      continue;
    }
    wasPacked.push_back(isPacked);
    kept.push_back(std::move(entry));
  }
  entries = std::move(kept);
  return wasPacked;
}

// ---- content

std::string_view EsxTable(std::string_view content) {
  const size_t head = content.size() > 5 ? static_cast<unsigned char>(content[5]) : 0;
  return content.substr(std::min(head, content.size()));
}

// The serial number in a file of sysfs: without the end of the line, or behind the four bytes that begin a page.
std::string_view SerialIn(const CapturedEntry& entry) {
  constexpr size_t kPageHeader = 4;
  std::string_view serial = entry.content;
  if (entry.path.ends_with("/vpd_pg80")) serial.remove_prefix(std::min(kPageHeader, serial.size()));
  while (!serial.empty() && (serial.back() == '\n' || serial.back() == '\0' || serial.back() == ' '))
    serial.remove_suffix(1);
  return serial;
}

// Calls take for each text in the value, with the key that it stands at.
void ForEachText(Json& value, const std::string& key,
                 const std::function<void(const std::string&, std::string&)>& take) {
  if (value.is_string()) return take(key, value.get_ref<std::string&>());
  if (!value.is_structured()) return;
  for (auto& [name, member] : value.items())
    ForEachText(member, value.is_object() ? name : key, take);
}

// A serial number may have any form, and no word stands in front of it but its key.
void LearnAnswer(const CapturedEntry& entry, Redactor& redactor) {
  redactor.Learn(entry.content);
  Json answer = Json::parse(entry.content, nullptr, false);
  ForEachText(answer, "", [&redactor](const std::string& key, std::string& text) {
    if (key == kSerialKey) redactor.LearnSerial(text);
    redactor.Learn(text);
  });
}

void RedactAnswer(std::string& content, const Redactor& redactor) {
  Json answer = Json::parse(content, nullptr, false);
  if (answer.is_discarded()) return redactor.Text(content);
  ForEachText(answer, "", [&redactor](const std::string&, std::string& text) { redactor.Text(text); });
  content = answer.dump(1) + "\n";
}

void Learn(const CapturedEntry& entry, Redactor& redactor) {
  // Where the library looks is the same on every machine.
  for (const std::string_view top : {"sys/", "proc/", "etc/"}) {
    if (entry.path.starts_with(top)) redactor.Protect(entry.path);
  }
  redactor.Learn(entry.path);
  if (entry.type == EntryType::kLink) redactor.Learn(entry.content);
  if (entry.type != EntryType::kFile) return;
  switch (KindOf(entry.path)) {
    case ContentKind::kSmbios:
      return LearnFromSmbios(entry.content, redactor);
    case ContentKind::kEsxSmbios:
      return LearnFromSmbios(EsxTable(entry.content), redactor);
    case ContentKind::kMemory:
      return LearnFromMemory(entry, redactor);
    case ContentKind::kPlain:
    case ContentKind::kNumbers:
      return;
    case ContentKind::kSerial:
      return redactor.LearnSerial(SerialIn(entry));
    case ContentKind::kRegistry: {
      std::string text = entry.content;
      ForEachBinaryValue(text, [&redactor](std::string& bytes) { redactor.Learn(bytes); });
      return redactor.Learn(entry.content);
    }
    case ContentKind::kAnswer:
      return LearnAnswer(entry, redactor);
    case ContentKind::kTrace:
    case ContentKind::kPlainText:
      return redactor.Learn(entry.content);
  }
}

void RedactContent(CapturedEntry& entry, Redactor& redactor) {
  std::string& content = entry.content;
  switch (KindOf(entry.path)) {
    case ContentKind::kSmbios:
      return RedactSmbios(content, 0, content.size(), redactor);
    case ContentKind::kEsxSmbios:
      return RedactSmbios(content, content.size() - EsxTable(content).size(), content.size(), redactor);
    case ContentKind::kMemory:
      return RedactMemory(entry, redactor);
    case ContentKind::kPlain:
      return;
    case ContentKind::kNumbers:
      return redactor.Text(content, true);
    case ContentKind::kSerial: {
      const std::string_view serial = SerialIn(entry);
      const auto start = static_cast<size_t>(serial.data() - content.data());
      content.replace(start, serial.size(), redactor.Serial(serial));
      return;
    }
    case ContentKind::kRegistry:
      ForEachBinaryValue(content, [&redactor](std::string& bytes) { redactor.Bytes(bytes); });
      return redactor.Text(content);
    case ContentKind::kTrace:
      BlankDumps(content);
      return redactor.Text(content);
    case ContentKind::kAnswer:
      return RedactAnswer(content, redactor);
    case ContentKind::kPlainText:
      return redactor.Text(content);
  }
}

}  // namespace

void RedactAll(std::vector<CapturedEntry>& entries, std::vector<Uncaptured>& missing, BundleOrigin& origin) {
  const std::vector<bool> wasPacked = UnpackTraces(entries, missing);
  Redactor redactor;
  uint64_t bytes = 0;
  for (const CapturedEntry& entry : entries)
    bytes += 2 * entry.content.size();
  Progress progress("redacting", bytes);
  uint64_t done = 0;
  redactor.LearnHost(origin.host);
  for (const CapturedEntry& entry : entries) {
    Learn(entry, redactor);
    progress.Update(done += entry.content.size());
  }
  for (size_t at = 0; at < entries.size(); ++at) {
    CapturedEntry& entry = entries[at];
    done += entry.content.size();
    if (entry.type == EntryType::kFile) {
      RedactContent(entry, redactor);
      if (wasPacked[at]) entry.content = PackGzip(entry.content);
      if (entry.ranges.empty()) entry.size = entry.content.size();
    } else {
      redactor.Text(entry.content);
    }
    redactor.Text(entry.path);
    progress.Update(done);
  }
  for (Uncaptured& each : missing)
    redactor.Text(each.path);
  redactor.Text(origin.host);
  origin.isRedacted = true;
}

}  // namespace ravctl
