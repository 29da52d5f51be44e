#pragma once

#include <dirent.h>

#include <memory>

#include "platform/cancellation.h"

// Owns an open directory; null stands for none. Opened with opendir it is close-on-exec.
struct CloseDirectory {
  void operator()(DIR* directory) const {
    const CancellationBlock block;
    ::closedir(directory);
  }
};
using DirectoryStream = std::unique_ptr<DIR, CloseDirectory>;
