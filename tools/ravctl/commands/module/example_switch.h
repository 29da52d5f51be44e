#pragma once

#include <string_view>

namespace ravctl {

// The module switch of the examples, a whole shared library: it loads the modules of the directory "modules" beside
// wherever it is put.
std::string_view ExampleSwitch();

}  // namespace ravctl
