// ini_edit FILE SECTION KEY [VALUE]: sets a key of an INI file; without a value it shows what it is. The file is
// replaced as a whole, with owner and mode kept: a reader sees the old file or the new one.

#include <cstdio>
#include <string>

#include "platform/ini_file.h"

int main(int argc, char** argv) {
  if (argc < 4) {
    std::fprintf(stderr, "usage: ini_edit FILE SECTION KEY [VALUE]\n");
    return 2;
  }
  CIniFile file;
  file.Open(argv[1]);
  if (argc > 4 && !file.SetString(argv[2], argv[3], argv[4])) {
    std::fprintf(stderr, "cannot write to %s\n", argv[1]);
    return 1;
  }
  std::string value;
  if (!file.GetString(value, argv[2], argv[3], "")) return 1;
  std::printf("[%s] %s=%s\n", argv[2], argv[3], value.c_str());
  return value.empty() ? 1 : 0;
}
