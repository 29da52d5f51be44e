#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace ravctl {

// Text from outside made fit for a terminal: control characters (those of 8 bits too), DEL and bytes that are no UTF-8
// are shown as \xNN, byte by byte. Everything else stays as it is.
//   "a\tb\x1b[0m" => "a\x09b\x1b[0m" (as visible characters)
std::string Printable(std::string_view text);
// Appends to out; for output that is written entry by entry.
void AppendPrintable(std::string& out, std::string_view text);
// Whether Printable would change nothing.
bool IsPrintable(std::string_view text);

// Text from outside made fit for a JSON string: bytes that are no UTF-8 become the visible characters \xNN; control
// characters stay, JSON has its own way to write them.
std::string ValidUtf8(std::string_view text);
// Appends text as a JSON string with its quotes.
void AppendJsonString(std::string& out, std::string_view text);

// The candidate that a mistyped word most probably meant, empty when none is near.
std::string NearestMatch(std::string_view word, const std::vector<std::string>& candidates);

// "did you mean NEAREST?", or the other advice when no candidate is near.
std::string DidYouMean(std::string_view word, const std::vector<std::string>& candidates, std::string_view otherwise);

// "1536" => "1.5K"; powers of 1024.
std::string HumanSize(unsigned long long bytes);

inline constexpr std::string_view kLowerHex = "0123456789abcdef";
inline constexpr std::string_view kUpperHex = "0123456789ABCDEF";
// Two digits a byte: "a0:36:9f" with ":" between them.
std::string HexBytes(std::string_view bytes, std::string_view separator = "", std::string_view digits = kLowerHex);

// "a,b,,c" => {"a", "b", "c"}
std::vector<std::string> SplitList(std::string_view text, char separator = ',');

}  // namespace ravctl
