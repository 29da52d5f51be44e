#pragma once

#include <string>
#include <string_view>

#include "ravctl/answer/output.h"
#include "ravctl/registry/store_tree.h"

// The JSON form in which a registry is exported and imported: keys in order, each with its names from the root on and
// its values. Names and texts that are no UTF-8 are given as hexadecimal bytes, and "encoding" says so; so it holds
// every registry without loss.
namespace ravctl {

extern const Schema kExportSchema;

// The data part.
Json ExportData(const StoreKey& root);
// The whole object with schema and version, as text that ends with a newline.
std::string ExportText(const StoreKey& root);

// Whether the bytes are meant as such an object: they begin with one of its members. Lines of the store may begin with
// a brace, too.
bool IsExport(std::string_view bytes);
// Throws CommandError (damaged) that says where the object is not what it should be.
StoreKey ParseExport(std::string_view bytes, const std::string& path);

// Stores all of the key in the node.
void FillNode(const StoreKey& key, CRegistryNode& node);
// The text form of the store, as the library writes it.
std::string StoreText(const StoreKey& root);
// What the library reads when that text is in a file.
StoreKey AsReadBack(const StoreKey& root);

}  // namespace ravctl
