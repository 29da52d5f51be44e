#pragma once

#include <nlohmann/json.hpp>
#include <span>

#include "support/fixture_root.h"

// Runs the built tool on a machine that a test wrote.
//
//   const ToolRoot machine;
//   machine.WriteFile("/etc/pelrix/registry", "...");
//   const ToolResult result = machine.Ravctl("registry list");
//   EXPECT_EQ(result.status, 0) << result.err;
struct ToolResult {
  int status = -1;  // exit status, or -1 when it did not end by itself
  std::string out;
  std::string err;
};

// The words behind the tool's name, as a list or in one text: blanks part them, but not between apostrophes.
//
//   "ini set /etc/a.ini One a 'two words'"
struct CommandLine : std::vector<std::string> {
  CommandLine(const std::string& text);
  CommandLine(const char* text) : CommandLine(std::string(text)) {}
  CommandLine(std::initializer_list<std::string> words) : vector(words) {}
  CommandLine(std::vector<std::string> words) : vector(std::move(words)) {}

  friend CommandLine operator+(CommandLine first, const CommandLine& more) {
    first.insert(first.end(), more.begin(), more.end());
    return first;
  }
};

class ToolRoot : public FixtureRoot {
 public:
  ToolRoot();

  // Exit status and output of `ravctl WORDS` inside the root, as root there, with an empty environment but PATH,
  // LANG=C.UTF-8 and the given variables ("NAME=value"). mounts: as of FixtureRoot::Run, on top of kUsr.
  ToolResult Ravctl(const CommandLine& words, const std::vector<std::string>& environment = {},
                    unsigned int mounts = kNone) const;

  // The same with --json: checks the status, that the answer is one object, and that the object (each line of it, with
  // lines) is what its schema says. Failures fail the test.
  nlohmann::json Json(const CommandLine& words, int status = 0, const std::vector<std::string>& environment = {},
                      unsigned int mounts = kNone) const;
};

// Fails the test when the object is not what the schema of its name says.
void ExpectValid(const nlohmann::json& object);

// A command line that fails, and what it says instead of an answer: one line, given without "ravctl: " in front and its
// end. "..." at the front or the end of it stands for more; "" is no word at all.
struct Fault {
  CommandLine words;
  int status;
  std::string said;
};
// Each of them behind the words of the command.
void ExpectFaults(const ToolRoot& machine, const CommandLine& command, std::span<const Fault> faults);

// The values at these places of the object, as JSON writes them but for the quotes; "-" for null, "none" where nothing
// is. Members(answer, "data/pid warnings/0/where") => "4711, /etc/pelrix"
std::string Members(const nlohmann::json& object, const std::string& places);

// Seen from inside a root (FixtureRoot::Run with kUsr): starts the tool with its standard output in a file and its
// standard error in that name with ".err"; waits for its end; both.
pid_t StartRavctl(const CommandLine& words, const std::string& outputFile = "/tmp/out");
ToolResult WaitForRavctl(pid_t tool, const std::string& outputFile = "/tmp/out");
ToolResult RunRavctl(const CommandLine& words);
