#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace ravctl {

// The columns that a help page may take: COLUMNS, else those of the terminal, else 100.
size_t HelpWidth();

// The lines of a help page broken between words so that none is wider. What goes on stands below the column of the
// meanings, or as far to the right as the line began. Command lines of examples stay whole, to be copied.
std::string Wrapped(std::string_view help, size_t meanings, size_t width);

}  // namespace ravctl
