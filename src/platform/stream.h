#pragma once

#include <cstdio>
#include <memory>

// Owners of the C library's streams. Closing one can fail unseen: what was written matters to nobody, or was synced.

struct CloseFile {
  void operator()(FILE* file) const { std::fclose(file); }
};
using FileStream = std::unique_ptr<FILE, CloseFile>;

// The end of a command's output; its owner waits for the command.
struct ClosePipe {
  void operator()(FILE* pipe) const { ::pclose(pipe); }
};
using PipeStream = std::unique_ptr<FILE, ClosePipe>;
