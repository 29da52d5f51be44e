#include "inventory/scsi_inquiry_data.h"

#include <algorithm>
#include <cctype>
#include <string_view>

namespace {

InquiryBytes Part(InquiryBytes answer, size_t offset, size_t length) {
  if (offset >= answer.size()) return {};
  return answer.subspan(offset, std::min(length, answer.size() - offset));
}

bool IsSpace(uint8_t byte) {
  return std::isspace(byte) != 0;
}

}  // namespace

uint8_t InquiryLengthByte(InquiryBytes answer) {
  return answer.size() > 3 ? answer[3] : uint8_t{0};
}

InquiryBytes VendorField(InquiryBytes answer) {
  return Part(answer, 8, 8);
}

InquiryBytes ProductField(InquiryBytes answer) {
  return Part(answer, 16, 16);
}

InquiryBytes SerialNumberField(InquiryBytes page) {
  return Part(page, 4, InquiryLengthByte(page));
}

size_t FindNonAlphanumeric(InquiryBytes field) {
  const auto found = std::ranges::find_if(field, [](uint8_t byte) { return std::isalnum(byte) == 0; });
  return static_cast<size_t>(found - field.begin());
}

std::string InquiryText(InquiryBytes field) {
  const auto end = std::ranges::find(field, uint8_t{0});
  const auto first = std::find_if_not(field.begin(), end, IsSpace);
  auto last = end;
  while (last != first && IsSpace(*(last - 1))) {
    --last;
  }
  return std::string(first, last);
}
