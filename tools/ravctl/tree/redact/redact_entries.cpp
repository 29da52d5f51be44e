#include "ravctl/tree/redact/redact_entries.h"

#include <zlib.h>

#include <algorithm>
#include <array>
#include <cctype>

#include "firmware/smbios_from_memory.h"
#include "ravctl/answer/output.h"
#include "ravctl/base/error.h"
#include "ravctl/base/text.h"
#include "ravctl/tree/bundle_format.h"
#include "ravctl/tree/redact/redact_tables.h"
#include "ravctl/tree/redact/redactor.h"

namespace ravctl {

namespace {

enum class ContentKind { kText, kTrace, kBinary, kSmbios, kEsxSmbios, kMemory };

struct KindRow {
  std::string_view start;
  std::string_view end;
  ContentKind kind;
};

// The first row that fits; a text else.
constexpr auto kKinds = std::to_array<KindRow>({
    {"sys/firmware/dmi/tables/DMI", "", ContentKind::kSmbios},
    {"sys/firmware/dmi/tables/", "", ContentKind::kBinary},
    {"vmfs/devices/char/mem/smbios", "", ContentKind::kEsxSmbios},
    {kMemoryPath, "", ContentKind::kMemory},
    {"proc/bus/pci/devices", "", ContentKind::kText},
    {"proc/bus/pci/", "", ContentKind::kBinary},
    {"sys/", "/config", ContentKind::kBinary},
});

ContentKind KindOf(const CapturedEntry& entry) {
  for (const KindRow& row : kKinds) {
    if (entry.path.starts_with(row.start) && entry.path.ends_with(row.end)) return row.kind;
  }
  const size_t name = entry.path.rfind('/') + 1;
  return entry.path.compare(name, 4, "log.") == 0 ? ContentKind::kTrace : ContentKind::kText;
}

// ---- packed traces

bool IsPacked(const std::string& content) {
  return content.starts_with("\x1f\x8b");
}

std::string Unpack(const std::string& packed) {
  std::string text;
  z_stream stream{};
  if (inflateInit2(&stream, 16 + MAX_WBITS) != Z_OK) throw std::bad_alloc();
  stream.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(packed.data()));
  stream.avail_in = static_cast<uInt>(packed.size());
  std::vector<char> room(1 << 20);
  int result = Z_OK;
  while (result == Z_OK && text.size() <= kLargestFile) {
    stream.next_out = reinterpret_cast<Bytef*>(room.data());
    stream.avail_out = static_cast<uInt>(room.size());
    result = inflate(&stream, Z_NO_FLUSH);
    text.append(room.data(), room.size() - stream.avail_out);
  }
  inflateEnd(&stream);
  return text;
}

std::string Pack(const std::string& text) {
  z_stream stream{};
  if (deflateInit2(&stream, Z_DEFAULT_COMPRESSION, Z_DEFLATED, 16 + MAX_WBITS, 8, Z_DEFAULT_STRATEGY) != Z_OK) {
    throw std::bad_alloc();
  }
  std::string packed(deflateBound(&stream, static_cast<uLong>(text.size())) + 32, '\0');
  stream.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(text.data()));
  stream.avail_in = static_cast<uInt>(text.size());
  stream.next_out = reinterpret_cast<Bytef*>(packed.data());
  stream.avail_out = static_cast<uInt>(packed.size());
  deflate(&stream, Z_FINISH);
  packed.resize(packed.size() - stream.avail_out);
  deflateEnd(&stream);
  return packed;
}

// ---- dumps in traces

bool IsPair(std::string_view text, size_t at) {
  return at + 1 < text.size() && std::isxdigit(static_cast<unsigned char>(text[at])) != 0 &&
         std::isxdigit(static_cast<unsigned char>(text[at + 1])) != 0;
}

// "0010: 53 4E 30 31  SN01" and "53 4E 30 31" => how far the offset reaches and that pairs follow.
bool IsDumpLine(std::string_view line) {
  if (line.size() > 5 && IsPair(line, 0) && IsPair(line, 2) && line.substr(4, 2) == ": ") line.remove_prefix(6);
  size_t at = 0;
  while (IsPair(line, at)) {
    at += 2;
    if (at == line.size() || line.substr(at, 2) == "  ") return true;
    if (line[at] != ' ') return false;
    ++at;
  }
  return at > 0 && at == line.size();
}

void BlankDumps(std::string& text) {
  for (size_t start = 0; start < text.size();) {
    const size_t end = std::min(text.find('\n', start), text.size());
    if (IsDumpLine(std::string_view(text).substr(start, end - start))) {
      std::replace_if(
          text.begin() + static_cast<ptrdiff_t>(start), text.begin() + static_cast<ptrdiff_t>(end),
          [](char character) { return character != ' ' && character != ':'; }, '.');
    }
    start = end + 1;
  }
}

// ---- learning

// "00:11:22:33:44:55\n" and "0x5001438012345678\n"
std::vector<unsigned char> BytesOf(std::string_view text) {
  if (text.starts_with("0x")) text.remove_prefix(2);
  std::vector<unsigned char> bytes;
  for (size_t at = 0; IsPair(text, at);) {
    bytes.push_back(static_cast<unsigned char>(std::stoi(std::string(text.substr(at, 2)), nullptr, 16)));
    at += 2;
    if (at < text.size() && text[at] == ':') ++at;
  }
  return bytes;
}

// "server:/export /mnt nfs ..."
void LearnServers(std::string_view mounts, Redactor& redactor) {
  for (const std::string& line : SplitList(mounts, '\n')) {
    const size_t colon = line.find(":/");
    if (colon != std::string::npos && line.find_first_of(" \t/") > colon) redactor.LearnHost(line.substr(0, colon));
  }
}

std::string_view EsxTable(std::string_view content) {
  const size_t head = content.size() > 5 ? static_cast<unsigned char>(content[5]) : 0;
  return content.substr(std::min(head, content.size()));
}

void Learn(const CapturedEntry& entry, Redactor& redactor) {
  switch (KindOf(entry)) {
    case ContentKind::kSmbios:
      return LearnFromSmbios(entry.content, redactor);
    case ContentKind::kEsxSmbios:
      return LearnFromSmbios(EsxTable(entry.content), redactor);
    case ContentKind::kMemory:
      return LearnFromMemory(entry, redactor);
    case ContentKind::kBinary:
      return;
    case ContentKind::kTrace:
      return redactor.LearnFromText(IsPacked(entry.content) ? Unpack(entry.content) : entry.content);
    case ContentKind::kText:
      break;
  }
  if (entry.path.ends_with("/address") || entry.path.ends_with("/port_name")) {
    redactor.LearnAddress(BytesOf(entry.content));
  }
  if (entry.path == "etc/fstab" || entry.path == "etc/mtab" || entry.path.ends_with("/mounts")) {
    LearnServers(entry.content, redactor);
  }
  redactor.LearnFromText(entry.content);
}

// ---- replacing

void RedactTrace(std::string& text, Redactor& redactor) {
  BlankDumps(text);
  redactor.Text(text);
}

void RedactContent(CapturedEntry& entry, Redactor& redactor) {
  switch (KindOf(entry)) {
    case ContentKind::kSmbios:
      return RedactSmbios(entry.content, 0, entry.content.size(), redactor);
    case ContentKind::kEsxSmbios:
      return RedactSmbios(entry.content, entry.content.size() - EsxTable(entry.content).size(), entry.content.size(),
                          redactor);
    case ContentKind::kMemory:
      return RedactMemory(entry, redactor);
    case ContentKind::kBinary:
      return;
    case ContentKind::kTrace: {
      if (!IsPacked(entry.content)) return RedactTrace(entry.content, redactor);
      std::string text = Unpack(entry.content);
      RedactTrace(text, redactor);
      entry.content = Pack(text);
      return;
    }
    case ContentKind::kText:
      return redactor.Text(entry.content);
  }
}

}  // namespace

void RedactAll(std::vector<CapturedEntry>& entries, std::vector<Uncaptured>& missing, BundleOrigin& origin) {
  Redactor redactor;
  redactor.LearnHost(origin.host);
  for (const CapturedEntry& entry : entries) {
    if (entry.type == EntryType::kFile) Learn(entry, redactor);
  }
  uint64_t bytes = 0;
  for (const CapturedEntry& entry : entries)
    bytes += entry.content.size();
  Progress progress("redacting", bytes);
  uint64_t done = 0;
  for (CapturedEntry& entry : entries) {
    done += entry.content.size();
    if (entry.type == EntryType::kFile) {
      RedactContent(entry, redactor);
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
