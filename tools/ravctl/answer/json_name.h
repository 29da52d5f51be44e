#pragma once

#include <nlohmann/json_fwd.hpp>

namespace ravctl {

// Objects keep the order of their keys. This header is enough for a reference; json.h is what makes and reads values.
using Json = nlohmann::ordered_json;

}  // namespace ravctl
