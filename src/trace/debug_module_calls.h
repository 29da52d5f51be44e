#pragma once

// Lets a module call the operations of `Debug` by name.
//
// The executable exports the object alone, not its operations: a module reaches them through the object's table of
// virtual operations. A compiler that sees `Debug.Print(...)` knows the exact class of `Debug` and calls CDebug::Print
// directly, though, which nobody could resolve at load time. So each module carries, for the operations of the table,
// a stub under that name which jumps through the table of the object it was called on. A jump leaves every argument,
// the variable ones included, where the caller put it.

// System V ABI for x86-64: the object is in %rdi, %al belongs to variadic calls, %r11 is free.
#define RAVD_TABLE_STUB(symbol, slot)                               \
  __asm__(".pushsection .text." symbol ",\"axG\",@progbits," symbol \
          ",comdat\n"                                               \
          ".weak " symbol                                           \
          "\n"                                                      \
          ".hidden " symbol                                         \
          "\n"                                                      \
          ".type " symbol ",@function\n" symbol                     \
          ":\n"                                                     \
          "  endbr64\n"                                             \
          "  movq (%rdi), %r11\n"                                   \
          "  jmpq *(8 * " #slot                                     \
          ")(%r11)\n"                                               \
          ".size " symbol ", . - " symbol                           \
          "\n"                                                      \
          ".popsection")

// Slots 0 and 1 are the destructors.
RAVD_TABLE_STUB("_ZNK6CDebug8IsMasterEv", 2);
RAVD_TABLE_STUB("_ZN6CDebug4InitEPKc", 3);
RAVD_TABLE_STUB("_ZN6CDebug5PrintEjPKcz", 4);
RAVD_TABLE_STUB("_ZN6CDebug11PrintAlwaysEPKcz", 5);
RAVD_TABLE_STUB("_ZN6CDebug11PrintAlwaysEjPKcz", 6);
RAVD_TABLE_STUB("_ZN6CDebug12PrintAlwaysVEPKcP13__va_list_tagS1_", 7);
RAVD_TABLE_STUB("_ZN6CDebug12ClientPrintVEPKcP13__va_list_tagS1_", 8);

#undef RAVD_TABLE_STUB
