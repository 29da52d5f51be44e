#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>

// Readers of INQUIRY answers (SPC-4, 6.6.2 and 7.8.18). Pure: bounded by the bytes given, whatever a length in them
// says; a device may answer with less than it was asked for, without terminators, and with names that fill their field.

using InquiryBytes = std::span<const uint8_t>;

// Byte 3 of any answer: 0 when the device gave no data worth reading, and for an answer that is shorter.
uint8_t InquiryLengthByte(InquiryBytes answer);

// Vendor (8 bytes) and product identification (16 bytes) of standard inquiry data, as far as the answer has them.
InquiryBytes VendorField(InquiryBytes answer);
InquiryBytes ProductField(InquiryBytes answer);

// The serial number of a unit serial number page; cut where the answer ends when the page length reaches beyond it.
InquiryBytes SerialNumberField(InquiryBytes page);

// Index of the first byte that is neither a letter nor a digit; the size of the field when there is none.
size_t FindNonAlphanumeric(InquiryBytes field);

// The text up to the first NUL or the end of the field, without the white space around it.
std::string InquiryText(InquiryBytes field);
