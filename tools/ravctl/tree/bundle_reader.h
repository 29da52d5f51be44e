#pragma once

#include <string>

namespace ravctl {

// Unpacks a bundle below an empty directory and checks it against its manifest; an archive without one, such as a tree
// that was packed by hand, is taken as it is.
//
// The archive is not trusted. What a bundle does not hold is refused: absolute paths, "..", hard links, devices, a path
// through a link, a link that leads out of the tree, a second entry of the same path, and more than bundle_format.h
// allows. Owners are not kept; modes are, but the caller can always read. Entries that were unpacked before a fault was
// met stay where they are.
//
// archive: open for reading, at its start. bundle: how the caller named it. directory: an open directory.
// Throws CommandError with kInputDamaged.
void UnpackBundle(int archive, const std::string& bundle, int directory);

}  // namespace ravctl
