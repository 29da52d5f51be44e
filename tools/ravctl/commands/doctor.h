#pragma once

#include <CLI/CLI.hpp>
#include <string>
#include <vector>

namespace ravctl {

enum class Health { kGood, kWarning, kBad, kUnknown };

// One line of the doctor.
struct Finding {
  Health health = Health::kGood;
  std::string subject;  // "/etc/pelrix/registry"
  std::string text;     // "readable by everybody"
  std::string toDo;     // empty when there is nothing to do
};

// A check looks at one part of the machine and never throws for what it finds: a part that it may not see is kUnknown.
// To add one: write a function of this type and add its line to the table in doctor.cpp.
using CheckFunction = std::vector<Finding> (*)();

// doctor
void RegisterDoctor(CLI::App& root);

}  // namespace ravctl
