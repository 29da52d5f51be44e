#pragma once

#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "support/fixture_root.h"

// Runs the built tool on a machine that a test wrote.
//
//   const ToolRoot machine;
//   machine.WriteFile("/etc/pelrix/registry", "...");
//   const ToolResult result = machine.Ravctl({"registry", "list"});
//   EXPECT_EQ(result.status, 0) << result.err;
struct ToolResult {
  int status = -1;  // exit status, or -1 when it did not end by itself
  std::string out;
  std::string err;
};

class ToolRoot : public FixtureRoot {
 public:
  ToolRoot();

  // Exit status and output of `ravctl ARGUMENTS` inside the root, as root there, with an empty environment but PATH,
  // LANG=C.UTF-8 and the given variables ("NAME=value"). mounts: as of FixtureRoot::Run, on top of kUsr.
  ToolResult Ravctl(const std::vector<std::string>& arguments, const std::vector<std::string>& environment = {},
                    unsigned int mounts = kNone) const;

  // The same with --json: checks the status, that the answer is one object, and that the object (each line of it, with
  // lines) is what its schema file says. Failures fail the test.
  nlohmann::json Json(std::vector<std::string> arguments, int status = 0,
                      const std::vector<std::string>& environment = {}, unsigned int mounts = kNone) const;
};

// Fails the test when the object is not what the schema file of its name says.
void ExpectValid(const nlohmann::json& object);

// Seen from inside a root (FixtureRoot::Run with kUsr): starts the tool with its standard output in a file.
pid_t StartRavctl(const std::vector<std::string>& arguments, const std::string& outputFile);
