#include "ravctl/registry/store_check.h"

#include <algorithm>
#include <map>
#include <string>

#include "ravctl/base/text.h"
#include "ravctl/registry/store_tree.h"
#include "registry/registry_text.h"

namespace ravctl {

namespace {

constexpr size_t kMaxKeyText = 300;  // of a path in a finding
constexpr size_t kMaxShown = 60;     // of a line

std::string Shown(std::string_view text) {
  return Printable(text.substr(0, kMaxShown)) + (text.size() > kMaxShown ? "..." : "");
}

// The line that the library would write for the value of this one, without the newline; empty when there is no value.
std::string LineAsWritten(const RegistryLine& line) {
  CRegistryValue value;
  if (!MakeRegistryValue(line, value)) return "";
  std::string name(line.name);
  const RegistryEntry entry = RegistryEntry::Of(name.data(), name.size(), value.Word(), value.Type());
  RegistryText text;
  AppendRegistryLine(entry, text);
  std::string written(text.From(0));
  if (written.ends_with('\n')) written.pop_back();
  return written;
}

std::string WithoutBlanks(std::string_view text) {
  std::string kept;
  for (const char c : text) {
    if (c == ' ' || c == '\t') continue;
    kept += c >= 'A' && c <= 'F' ? static_cast<char>(c - 'A' + 'a') : c;
  }
  return kept;
}

// "+0042" and "42" are the same number.
std::string PlainNumber(std::string_view text) {
  const size_t first = text.find_first_not_of(" \t");
  text.remove_prefix(std::min(first, text.size()));
  std::string plain = text.starts_with('-') ? "-" : "";
  if (text.starts_with('-') || text.starts_with('+')) text.remove_prefix(1);
  const size_t digit = text.find_first_not_of('0');
  text.remove_prefix(std::min(digit, text.empty() ? 0 : text.size() - 1));
  return plain + std::string(text);
}

class Checker {
 public:
  StoreCheck Run(std::string_view bytes) {
    m_Open.emplace_back();
    if (bytes.empty()) Damage(0, "empty", "the file is empty");
    while (!bytes.empty() && !m_Open.empty())
      TakeLine(bytes);
    if (m_Open.empty()) {
      if (!bytes.empty()) AfterTheEnd(bytes);
    } else if (m_Line > 0) {
      Unclosed();
    }
    if (!m_Check.hasValueLine && m_Line > 0) Damage(0, "no-value", "the file holds no value, a start passes it over");
    return std::move(m_Check);
  }

 private:
  struct Key {
    std::string name;
    size_t line = 0;
    std::map<std::string, size_t, std::less<>> names;  // of its entries, and where they stand
  };

  void Add(size_t line, StoreFinding::Health health, const char* code, std::string detail) {
    if (m_Check.findings.size() >= kMaxFindings) {
      if (health == StoreFinding::Health::kDamage) ++m_Check.unlisted;
      return;
    }
    m_Check.findings.push_back({line, health, code, PathOfKey(), std::move(detail)});
  }
  void Damage(size_t line, const char* code, std::string detail) {
    Add(line, StoreFinding::Health::kDamage, code, std::move(detail));
  }
  void Note(const char* code, std::string detail) { Add(m_Line, StoreFinding::Health::kNote, code, std::move(detail)); }

  std::string PathOfKey() const {
    std::string path;
    for (size_t level = 1; level < m_Open.size() && path.size() < kMaxKeyText; ++level)
      path += (level > 1 ? "\\" : "") + m_Open[level].name;
    return path;
  }

  void TakeLine(std::string_view& bytes) {
    ++m_Line;
    const size_t end = bytes.find('\n');
    const std::string_view line = bytes.substr(0, end);
    const bool hasNewline = end != std::string_view::npos;
    bytes.remove_prefix(hasNewline ? end + 1 : bytes.size());
    if (!hasNewline) Damage(m_Line, "cut-end", "the last line has no end, its value may be cut: " + Shown(line));
    if (line.size() + (hasNewline ? 1 : 0) > kRegistryLineLimit) {
      TakeLongLine(line, hasNewline);
    } else {
      TakePiece(line);
    }
  }

  // The library reads it in pieces, and each as a line of its own.
  void TakeLongLine(std::string_view line, bool hasNewline) {
    Damage(m_Line, "over-long",
           std::to_string(line.size()) + " bytes, of which " + std::to_string(kRegistryLineLimit) +
               " are read; the rest is taken for further lines: " + Shown(line));
    while (line.size() + (hasNewline ? 1 : 0) > kRegistryLineLimit && !m_Open.empty()) {
      TakePiece(line.substr(0, kRegistryLineLimit));
      line.remove_prefix(kRegistryLineLimit);
    }
    if (!m_Open.empty() && (hasNewline || !line.empty())) TakePiece(line);
  }

  void TakePiece(std::string_view line) {
    const size_t zero = line.find('\0');
    if (zero != std::string_view::npos) {
      Damage(m_Line, "zero-byte", "what follows the zero byte is lost: " + Shown(line));
      line = line.substr(0, zero);
    }
    if (line.empty()) {
      m_Open.pop_back();
      return;
    }
    const std::string copy(line);  // a zero byte follows, as the number parsers want it
    const RegistryLine parsed = ParseRegistryLine(copy);
    if (parsed.kind == RegistryLine::Kind::kSkipped) {
      Damage(m_Line, "no-marker", "neither a key nor a value with a known type, it is skipped: " + Shown(line));
    } else if (parsed.kind == RegistryLine::Kind::kSubKey) {
      TakeSubKey(parsed, copy);
    } else {
      TakeValue(parsed, copy);
    }
  }

  void TakeSubKey(const RegistryLine& parsed, std::string_view line) {
    if (parsed.name.size() + 2 != line.size()) {
      Damage(m_Line, "key-rest", "what follows the first closing bracket is lost: " + Shown(line));
    }
    if (parsed.name.empty()) Note("no-name", "a key without a name cannot be reached through a path");
    if (parsed.name.find('\\') != std::string_view::npos) {
      Note("backslash", "a key whose name holds a backslash cannot be reached through a path: " + Shown(line));
    }
    TakeName(parsed.name);
    ++m_Check.keys;
    m_Open.push_back({std::string(parsed.name), m_Line, {}});
  }

  void TakeValue(const RegistryLine& parsed, const std::string& line) {
    m_Check.hasValueLine = true;
    const std::string written = LineAsWritten(parsed);
    if (written.empty()) {
      Damage(m_Line, "bad-number", "no number, it is skipped: " + Shown(line));
      return;
    }
    TakeName(parsed.name);
    ++m_Check.values;
    if (line.ends_with('\r')) Note("carriage-return", "the carriage return at the end belongs to it: " + Shown(line));
    // A text of the longest piece is written one character shorter, which is told with its line already.
    const bool hasSpellings = parsed.type == kRegistryNumber || parsed.type == kRegistryBinary;
    if (hasSpellings && written != line) CompareSpelling(parsed, line, written);
  }

  // The line came back in another way: is it another value?
  void CompareSpelling(const RegistryLine& parsed, const std::string& line, const std::string& written) {
    const std::string data(parsed.data);
    const std::string writtenData = written.substr(line.size() - data.size());
    bool isSame = false;
    if (parsed.type == kRegistryNumber) {
      const std::optional<StoreValue> unsignedForm = ParseValue(kRegistryNumber, PlainNumber(data));
      const std::optional<StoreValue> kept = ParseValue(kRegistryNumber, writtenData);
      isSame = unsignedForm && unsignedForm == kept;
    } else {
      isSame = WithoutBlanks(data) == WithoutBlanks(writtenData);
    }
    if (isSame) {
      Note("spelling", "it is read, and written as " + Shown(written));
    } else {
      Damage(m_Line, parsed.type == kRegistryNumber ? "bad-number" : "bad-bytes",
             "it is read as " + Shown(writtenData) + ": " + Shown(line));
    }
  }

  void TakeName(std::string_view name) {
    auto& names = m_Open.back().names;
    const auto [place, isNew] = names.try_emplace(std::string(name), m_Line);
    if (isNew) return;
    Damage(m_Line, "twice",
           "the same name as in line " + std::to_string(place->second) + ", whose value is lost: " + Shown(name));
    place->second = m_Line;
  }

  void AfterTheEnd(std::string_view rest) {
    const auto lines = static_cast<size_t>(std::ranges::count(rest, '\n')) + (rest.ends_with('\n') ? 0 : 1);
    Damage(m_Line + 1, "after-end",
           std::to_string(lines) +
               " lines follow the end of the root and are not read: " + Shown(rest.substr(0, rest.find('\n'))));
  }

  void Unclosed() {
    Damage(m_Line, "cut-end",
           std::to_string(m_Open.size()) + " empty lines are missing at the end" +
               (m_Open.size() > 1 ? ", the key that was opened in line " + std::to_string(m_Open.back().line) +
                                        " may have lost entries"
                                  : ""));
  }

  StoreCheck m_Check;
  std::vector<Key> m_Open;  // the root first; empty after its end
  size_t m_Line = 0;
};

}  // namespace

size_t StoreCheck::Damage() const {
  const auto count = std::ranges::count(findings, StoreFinding::Health::kDamage, &StoreFinding::health);
  return static_cast<size_t>(count) + unlisted;
}

StoreCheck CheckStore(std::string_view bytes) {
  return Checker().Run(bytes);
}

}  // namespace ravctl
