#pragma once

#include <nlohmann/json.hpp>
#include <string>

// Whether a JSON value is what a schema says. Knows the keywords that the schemas of the tool use; one that it does not
// know is a failure, so that nothing in a schema goes unchecked.
// Result: empty, or the first fault with its place: "/data/3/pid: not of type integer".
std::string SchemaFault(const nlohmann::json& value, const nlohmann::json& schema);
