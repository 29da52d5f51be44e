#pragma once

#include <filesystem>
#include <nlohmann/json.hpp>
#include <string>

// Whether a JSON value is what a schema file says. Knows the keywords that the files of this tree use; one that it does
// not know is a failure, so that nothing in a file goes unchecked.
// Result: empty, or the first fault with its place: "/data/3/pid: not of type integer".
std::string SchemaFault(const nlohmann::json& value, const std::filesystem::path& schemaFile);
