#pragma once

#include <CLI/CLI.hpp>

namespace ravctl {

// net and everything below it
void RegisterNet(CLI::App& root);

// The commands below net, each in a file of its own.
void AddNetList(CLI::App& net);
void AddNetShow(CLI::App& net);
void AddNetRoutes(CLI::App& net);
void AddNetWatch(CLI::App& net);
void AddNetHostIp(CLI::App& net);

}  // namespace ravctl
