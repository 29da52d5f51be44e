#include "ravctl/commands/module/example_switch.h"

// The build names the file.
asm(R"(
  .section .rodata
  .global ravctl_example_switch, ravctl_example_switch_end
ravctl_example_switch:
  .incbin ")" RAVCTL_EXAMPLE_SWITCH R"("
ravctl_example_switch_end:
  .previous
)");

extern "C" const char ravctl_example_switch[];
extern "C" const char ravctl_example_switch_end[];

namespace ravctl {

std::string_view ExampleSwitch() {
  return {ravctl_example_switch, ravctl_example_switch_end};
}

}  // namespace ravctl
