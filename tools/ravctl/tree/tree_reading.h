#pragma once

#include <functional>
#include <string>

#include "ravctl/answer/json.h"

namespace ravctl {

// What the reading finds, in a child that is ended after so many seconds. Throws CommandError: what the reading threw,
// and kInputDamaged, which names where, when it did not come to its end.
Json ReadInChild(int seconds, const std::string& where, const std::function<Json()>& read);

// Reads something in a captured tree or a bundle. Entering one is for good, so a child does it and hands over what it
// read. Throws CommandError: what the reading threw, and kUsage inside a tree.
Json ReadInTree(const std::string& directoryOrBundle, const std::function<Json()>& read);

// Whether the path is that of a directory, or of a packed file, as every bundle is.
bool IsTree(const std::string& path);

}  // namespace ravctl
