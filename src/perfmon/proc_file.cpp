#include "perfmon/proc_file.h"

#include <fcntl.h>

#include "platform/descriptor_io.h"
#include "platform/unique_fd.h"

bool ReadProcFile(const char* path, std::string& text) {
  text.clear();
  const UniqueFd file(::open(path, O_RDONLY | O_CLOEXEC));
  if (file) ReadToEnd(file.Get(), text);
  return static_cast<bool>(file);
}
