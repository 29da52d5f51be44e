// Answers of devices to the INQUIRY command.

#include <cstdint>
#include <cstdlib>

#include "inventory/scsi_inquiry.h"
#include "inventory/scsi_inquiry_data.h"

namespace {

void Check(bool condition) {
  if (!condition) std::abort();
}

bool LiesIn(InquiryBytes field, InquiryBytes answer) {
  return field.empty() || (field.data() >= answer.data() && field.size() <= answer.size() &&
                           field.data() + field.size() <= answer.data() + answer.size());
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size > 512) return 0;
  const InquiryBytes answer(data, size);
  for (const InquiryBytes field : {VendorField(answer), ProductField(answer), SerialNumberField(answer)}) {
    Check(LiesIn(field, answer));
    Check(FindNonAlphanumeric(field) <= field.size());
    Check(InquiryText(field).size() <= field.size());
  }
  Check(CScsiInquiry().ScsiFormatString(data, static_cast<int>(size)).size() <= 64);
  return 0;
}
