#include "ravctl/tree/redact/forms.h"

#include <re2/re2.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <memory>
#include <span>
#include <string>

#include "ravctl/base/text.h"

namespace ravctl {

namespace {

constexpr int64_t kPatternMemory = int64_t{64} << 20;

struct FormRow {
  Form form;
  bool isBetweenLimits;  // neither letter nor digit stands in front of it or behind it
  const char* pattern;   // the first group that took part is what was found
};

// The lengths have bounds, so that a text full of key words does not offer its whole rest behind each.
// Key words are followed by "=", ":" or ">", in quotes or not, as texts, JSON and XML have it; "=s=" is a registry's.
#define SEPARATOR R"((?:=e?s=|[=:>])["'\\ \t]*)"
#define QUOTE R"(["'\\ \t]{0,4})"
#define SERIAL R"(((?:[0-9a-z]{1,4} ){0,4}[0-9a-z][0-9a-z._/+-]{3,62}[0-9a-z]))"
#define HOST R"(([0-9a-z](?:[0-9a-z._-]{0,126}[0-9a-z])?))"
#define NAME R"(([^\s"'<>,;\\]{3,128}))"

// Of those that begin at one place the first row wins.
constexpr auto kForms = std::to_array<FormRow>({
    {Form::kUuid, true, "([0-9a-f]{8}-?[0-9a-f]{4}-?[0-9a-f]{4}-?[0-9a-f]{4}-?[0-9a-f]{12})"},
    {Form::kAddress, true, "([0-9a-f]{2}(?:[:-][0-9a-f]{2}){5,31})"},
    {Form::kAddress, true, R"(([0-9a-f]{4}(?:\.[0-9a-f]{4}){2}))"},
    {Form::kAddress, true, "(?:0x|3)?([1256][0-9a-f]{15}(?:[0-9a-f]{16})?)"},
    {Form::kAddress, true, R"((?:naa|eui)\.([0-9a-f]{16}(?:[0-9a-f]{16})?))"},
    {Form::kBareMac, true, "(?:[ew][nlw]x)?([0-9a-f]{12})"},
    {Form::kName, true, R"([in]qn\.[0-9]{4}-[0-9]{2}\.([^\s"'<>,;\\]{1,223}))"},
    {Form::kIpV4, true, R"(([0-9]{1,3}(?:\.[0-9]{1,3}){3}))"},
    {Form::kIpV6, false, R"(((?:[0-9a-f]{0,4}:){2,7}(?:[0-9a-f]{1,4}|(?:[0-9]{1,3}\.){3}[0-9]{1,3})?))"},
    {Form::kSerial, false, R"((?:serial|service[ _-]?tag|asset[ _-]?tag)[^=:>\n]{0,24}=e?s=([^\r\n]{1,128}))"},
    {Form::kSerial, false, "(?:serial|service[ _-]?tag|asset[ _-]?tag)[^=:>\\n]{0,24}" SEPARATOR SERIAL},
    {Form::kSerial, false, R"(serial(?:[ _-]?(?:number|num|no|nr)\.?)? )" SERIAL},
    {Form::kSerial, false, "(?:sn|s/n)" QUOTE SEPARATOR SERIAL},
    {Form::kDevice, false, R"(by-(?:part)?(?:id|uuid|label)/([^\s"',\\/]{1,128}))"},
    {Form::kDevice, false, R"(uuid=["']?([0-9a-z-]{4,36}))"},
    {Form::kHost, false, "(?:(?:host|node|computer|server)[ _-]?name|fqdn)" QUOTE SEPARATOR HOST},
    {Form::kHost, false, R"(\b(?:host|server|gateway|proxy|peer)=(?:e?s=)?["']?)" HOST},
    {Form::kHost, false, R"((?m:^))" HOST R"(:/[^/])"},
    {Form::kHost, false, R"((?m:^|[\s"'=])(?://|\\\\))" HOST R"([/\\])"},
    {Form::kName, false, R"(://([^\s/@:"']{3,64})(?::[^\s/@"']{0,64})?@)"},
    {Form::kHost, false, R"((?:://|@))" HOST R"((?:[/:"'\s<>,]|\z))"},
    {Form::kHost, false, R"(@([0-9a-z-]{1,63}\.[0-9a-z.-]{0,126}[0-9a-z]))"},
    {Form::kName, false,
     R"((?:\b|_)(?:user(?:name)?|login|owner|contact|(?:part)?label|password|passwd|passphrase|secret|community))" QUOTE
         SEPARATOR NAME},
});
constexpr int kGroups = static_cast<int>(kForms.size()) + 1;

// Two to sixteen digits a unit, with "0x" or without.
#define UNITS(DIGITS, MORE) "(?:(?:0x)?[0-9a-f]{" DIGITS "}[ ,]{1,2}){" MORE ",}(?:0x)?[0-9a-f]{" DIGITS "}\\b"
#define ANY_UNITS "(?:" UNITS("2", "0") "|" UNITS("4", "0") "|" UNITS("8", "0") "|" UNITS("16", "0") ")"
#define OFFSET R"((?:(?:0x)?[0-9a-f]{4,16}(?:h|[:|>])?[ \t]+))"

// A line that is nothing else, and enough units anywhere; behind an offset one is enough. To the end of the line.
constexpr const char* kDump =
    R"((?im)(^[ \t]*)" OFFSET "?(?:[0-9a-f]{10,}|" ANY_UNITS R"()(?:[ \t]{2,}[^\n]*|[ \t]*)$)"
    R"(|\b(?:0x)?[0-9a-f]{4,16}(?:h|[:|>])[ \t]{1,4})" ANY_UNITS R"((?:[ \t]{2,}[^\n]*|[ \t]*)$)"
    R"(|\b(?:)" UNITS("2", "3") "|" UNITS("4", "3") "|" UNITS("8", "2") "|" UNITS(
        "16", "1") R"()[^\n]*|\b[0-9a-f]{18,31}\b|\b[0-9a-f]{34,}))";

constexpr const char* kBinaryValue = R"((?m)=b=((?:[0-9A-Fa-f]{1,2}[ \t]*)+)$)";

std::unique_ptr<RE2> MakePattern(const std::string& pattern) {
  RE2::Options options;
  options.set_encoding(RE2::Options::EncodingLatin1);
  options.set_max_mem(kPatternMemory);
  options.set_log_errors(false);
  auto compiled = std::make_unique<RE2>(pattern, options);
  if (!compiled->ok()) std::abort();
  return compiled;
}

const RE2& FormPattern() {
  static const std::unique_ptr<RE2> pattern = [] {
    std::string all;
    for (const FormRow& row : kForms) {
      const char* limit = row.isBetweenLimits ? R"((?:\b|_))" : "";
      all += (all.empty() ? "(?i)" : "|") + std::string(limit) + row.pattern + limit;
    }
    return MakePattern(all);
  }();
  return *pattern;
}

}  // namespace

void ForEachForm(std::string_view text, const std::function<void(Form, std::string_view)>& take) {
  const RE2& pattern = FormPattern();
  const re2::StringPiece all(text.data(), text.size());
  std::array<re2::StringPiece, kGroups> groups;
  size_t at = 0;
  while (at < text.size() && pattern.Match(all, at, text.size(), RE2::UNANCHORED, groups.data(), kGroups)) {
    size_t row = 0;
    while (groups.at(row + 1).data() == nullptr)
      ++row;
    const re2::StringPiece& found = groups.at(row + 1);
    const auto start = static_cast<size_t>(found.data() - text.data());
    const bool isByForm = kForms.at(row).isBetweenLimits || kForms.at(row).form == Form::kIpV6;
    take(kForms.at(row).form, text.substr(start, found.size()));
    at = std::max(isByForm ? start + found.size() : start, at + 1);
  }
}

void BlankDumps(std::string& text) {
  static const std::unique_ptr<RE2> pattern = MakePattern(kDump);
  re2::StringPiece found;
  for (size_t at = 0; at < text.size() && pattern->Match(text, at, text.size(), RE2::UNANCHORED, &found, 1);) {
    const auto start = static_cast<size_t>(found.data() - text.data());
    at = std::max(start + found.size(), at + 1);
    for (char& character : std::span(text).subspan(start, found.size())) {
      if (character != ' ' && character != ':' && character != '\t') character = '.';
    }
  }
}

void ForEachBinaryValue(std::string& text, const std::function<void(std::string&)>& change) {
  static const std::unique_ptr<RE2> pattern = MakePattern(kBinaryValue);
  std::string result;
  size_t at = 0;
  re2::StringPiece found[2];
  while (at < text.size() && pattern->Match(text, at, text.size(), RE2::UNANCHORED, found, 2)) {
    const auto start = static_cast<size_t>(found[1].data() - text.data());
    std::string bytes;
    for (const std::string& digits : SplitList(std::string_view(found[1].data(), found[1].size()), ' '))
      bytes += static_cast<char>(std::strtoul(digits.c_str(), nullptr, 16));
    change(bytes);
    result.append(text, at, start - at).append(HexBytes(bytes, " ")).append(" ");
    at = start + found[1].size();
  }
  text = result.append(text, at);
}

}  // namespace ravctl
