#pragma once

#include <cstdarg>
#include <cstddef>

// vsnprintf for the formats that nearly all messages have, in a fraction of its time: text, "%%", "%s", "%c", and "%d",
// "%i", "%u", "%x", "%X", the numbers also with "l", "ll" or "z", all of them without flags, width and precision.
// The number of characters of the text in out, which is terminated; -1 when the format has anything else or the text
// does not fit into size bytes with its zero: what is in out then means nothing, args is used up, and vsnprintf is to
// be asked. A null "%s" is "(null)". Pure; any thread.
int FormatPlain(char* out, size_t size, const char* fmt, va_list args) __attribute__((format(printf, 3, 0)));
