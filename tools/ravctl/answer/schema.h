#pragma once

#include <string>

#include "ravctl/answer/field.h"

namespace ravctl {

// What a command answers that failed.
extern const Schema kFailure;

// The JSON Schema (2020-12) of the answers of that form: it stands alone, and allows no key that it does not describe.
// The title says whose answers they are.
Json JsonSchema(const Schema& schema, const std::string& title);

// Whether a value from outside is what the type says, but for the form of its texts: what shows it may rely on that. A
// key that an older one lacks becomes null or an empty list, where the type has that.
bool Complete(Json& value, const Type& type);

}  // namespace ravctl
