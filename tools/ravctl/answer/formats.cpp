#include "ravctl/answer/formats.h"

#include "ravctl/answer/json.h"
#include "ravctl/base/text.h"

namespace ravctl {

std::string SizeText(const Json& bytes) {
  return HumanSize(bytes.get<uint64_t>());
}

std::string RateText(const Json& bytesPerSecond) {
  return HumanSize(bytesPerSecond.get<uint64_t>()) + "/s";
}

}  // namespace ravctl
