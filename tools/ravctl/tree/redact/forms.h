#pragma once

#include <functional>
#include <string_view>

namespace ravctl {

// What a piece of text is by its form, or by the words in front of it.
enum class Form {
  kUuid,     // 32 digits, with or without dashes
  kAddress,  // MAC address or WWN with colons, dashes or dots; a WWN without them
  kBareMac,  // 12 hexadecimal digits
  kIpV4,
  kIpV6,
  kSerial,  // "Serial Number: ...", "SN=...", <serial>...
  kDevice,  // "UUID=..." and "/dev/disk/by-id/..."
  kHost,    // "hostname=...", "scheme://...", "name@...", "server:/export"
  kName,    // of a user, a label, an iSCSI target
};

// Calls take for everything in the text that has one of these forms, in order; the views point into the text. A form is
// a hint: take looks closer. What stands in what was taken by its place is offered by its own form, too. Linear in
// time.
void ForEachForm(std::string_view text, const std::function<void(Form form, std::string_view found)>& take);

// Writes dots over hexadecimal dumps, whatever their units, offsets and prefixes: an identity may be cut anywhere in
// one. What follows a dump in its line is its text column and goes too.
void BlankDumps(std::string& text);

// Calls change for the bytes of each binary value in the text of a registry ("Name=b=0a ff 01 "); it keeps their
// number.
void ForEachBinaryValue(std::string& text, const std::function<void(std::string& bytes)>& change);

}  // namespace ravctl
