#pragma once

#include <string>
#include <string_view>

namespace ravctl {

// What turns one text into the other, as a unified diff of one hunk with three lines of context: from the first line
// that differs to the last. Empty when the texts are equal. The lines are byte for byte those of the texts, so that
// patch(1) makes the one from the other. A name that is /dev/null stands for a file that is not there.
//
//   UnifiedDiff("a.ini", "a.ini", "[S]\nk=1\n", "[S]\nk=2\n") =>
//   --- a.ini
//   +++ a.ini
//   @@ -1,2 +1,2 @@
//    [S]
//   -k=1
//   +k=2
std::string UnifiedDiff(std::string_view oldName, std::string_view newName, std::string_view oldText,
                        std::string_view newText);

}  // namespace ravctl
