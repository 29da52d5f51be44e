#pragma once

#include <cstdint>

// A bundle is a tar archive, packed with gzip or zstd: the files of a machine by their paths without the first slash,
// and behind them the manifest, which tells what was captured and what could not be, and that the archive is whole.
namespace ravctl {

inline constexpr const char* kManifestPath = "manifest.json";
inline constexpr const char* kManifestSchema = "ravctl/bundle-manifest";
inline constexpr int kManifestVersion = 1;

// The file that stands in for the physical memory. It has holes, so that its size says nothing about what it holds.
inline constexpr const char* kMemoryPath = "dev/mem";
inline constexpr uint64_t kHighestAddress = uint64_t{1} << 52;

// What a bundle may hold, when it is written as well as when it is read.
inline constexpr uint64_t kLargestFile = uint64_t{256} << 20;
inline constexpr uint64_t kLargestBundle = uint64_t{512} << 20;
inline constexpr uint64_t kLargestManifest = uint64_t{64} << 20;
inline constexpr unsigned int kMostEntries = 100000;
inline constexpr unsigned int kDeepestPath = 64;  // names in a path

}  // namespace ravctl
