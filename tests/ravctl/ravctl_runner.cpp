#include "ravctl/ravctl_runner.h"

#include "ravctl/commands/all_commands.h"
#include "ravctl/commands/schema.h"
#include "ravctl/json_schema.h"

namespace fs = std::filesystem;

namespace {

constexpr const char* kTool = "/ravctl";

[[noreturn]] void Execute(const std::vector<std::string>& arguments, const std::vector<std::string>& environment,
                          const char* out, const char* err) {
  ShowOwnProcess();
  ::close(STDIN_FILENO);
  ::open("/dev/null", O_RDONLY);
  for (const auto& [fd, path] : {std::pair{STDOUT_FILENO, out}, std::pair{STDERR_FILENO, err}}) {
    const int file = ::open(path, O_CREAT | O_TRUNC | O_WRONLY, 0644);
    ::dup2(file, fd);
    ::close(file);
  }
  std::vector<std::string> words = arguments;
  std::vector<char*> argv{const_cast<char*>("ravctl")};
  for (std::string& word : words)
    argv.push_back(word.data());
  argv.push_back(nullptr);
  std::vector<std::string> variables = {"PATH=/usr/bin:/usr/sbin", "LANG=C.UTF-8", kNoLeakCheck};
  variables.insert(variables.end(), environment.begin(), environment.end());
  std::vector<char*> envp;
  for (std::string& variable : variables)
    envp.push_back(variable.data());
  envp.push_back(nullptr);
  ::execve(kTool, argv.data(), envp.data());
  ::_exit(127);
}

}  // namespace

CommandLine::CommandLine(const std::string& text) {
  bool isQuoted = false;
  bool isWord = false;
  for (const char character : text) {
    if (character == '\'') {
      isQuoted = !isQuoted;
    } else if (character == ' ' && !isQuoted) {
      isWord = false;
      continue;
    }
    if (!isWord) emplace_back();
    isWord = true;
    if (character != '\'') back() += character;
  }
}

ToolRoot::ToolRoot() {
  fs::copy_file(RAVCTL_BINARY, HostPath(kTool));
  MakeDirectory("/tmp", 01777);
}

ToolResult ToolRoot::Ravctl(const CommandLine& words, const std::vector<std::string>& environment,
                            unsigned int mounts) const {
  Run(
      [&] {
        const pid_t child = ::fork();
        if (child == 0) Execute(words, environment, "/tool-out", "/tool-err");
        WriteWholeFile("/tool-status", std::to_string(WaitForRavctl(child, "").status));
      },
      mounts | kUsr);
  return {std::stoi(ReadFile("/tool-status")), ReadFile("/tool-out"), ReadFile("/tool-err")};
}

nlohmann::json ToolRoot::Json(const CommandLine& words, int status, const std::vector<std::string>& environment,
                              unsigned int mounts) const {
  const ToolResult result = Ravctl(words + "--json", environment, mounts);
  EXPECT_EQ(result.status, status) << result.err << result.out;
  nlohmann::json object = nlohmann::json::parse(result.out, nullptr, false);
  EXPECT_FALSE(object.is_discarded()) << result.out << result.err;
  ExpectValid(object);
  return object;
}

void ExpectValid(const nlohmann::json& object) {
  static const auto* const tool = [] {
    auto* made = new ravctl::Command({"ravctl", ""}, "");
    ravctl::AddAllCommands(*made);
    return made;
  }();
  static const std::map<std::string, ravctl::KnownSchema> known = ravctl::AllSchemas(*tool);
  ASSERT_TRUE(object.is_object() && object.contains("schema"));
  const std::string name = object["schema"];
  ASSERT_EQ(name.substr(0, 7), "ravctl/");
  const auto found = known.find(name.substr(7));
  ASSERT_NE(found, known.end()) << name;
  EXPECT_EQ(SchemaFault(object, found->second.AsJsonSchema()), "");
}

void ExpectFaults(const ToolRoot& machine, const CommandLine& command, std::span<const Fault> faults) {
  for (const auto& [words, status, said] : faults) {
    SCOPED_TRACE(::testing::PrintToString(command + words));
    const ToolResult result = machine.Ravctl(command + words);
    EXPECT_EQ(result.status, status);
    const bool isJson = std::ranges::find(words, "--json") != words.end();
    EXPECT_EQ(result.out.empty(), !isJson) << result.out;
    EXPECT_EQ(std::ranges::count(result.err, '\n'), said.empty() ? 0 : 1) << result.err;
    if (said.empty()) continue;
    const size_t front = said.starts_with("...") ? 3 : 0;
    const size_t end = said.ends_with("...") ? 3 : 0;
    const std::string part = said.substr(front, said.size() - std::min(front + end, said.size()));
    EXPECT_THAT(result.err, ::testing::HasSubstr((front == 0 ? "ravctl: " : "") + part + (end == 0 ? "\n" : "")));
    // Nor is a program left without an answer. The sanitizers make each start a second long: once is enough there.
    if (kSanitized || result.err.starts_with("ravctl: warning: ")) continue;
    const nlohmann::json answer =
        nlohmann::json::parse(machine.Ravctl(CommandLine("--json") + command + words).out, nullptr, false);
    ExpectValid(answer);
    EXPECT_EQ(Members(answer, "data error/code") + ", ravctl: " + Members(answer, "error/message") + "\n",
              "-, " + std::to_string(status) + ", " + result.err);
  }
}

std::string Members(const nlohmann::json& object, const std::string& places) {
  std::string all;
  for (const std::string& place : CommandLine(places)) {
    const nlohmann::json::json_pointer pointer("/" + place);
    const nlohmann::json member = object.contains(pointer) ? object[pointer] : nlohmann::json("none");
    all += (all.empty() ? "" : ", ") + (member.is_string() ? member.get<std::string>()
                                        : member.is_null() ? "-"
                                                           : member.dump());
  }
  return all;
}

pid_t StartRavctl(const CommandLine& words, const std::string& outputFile) {
  const pid_t child = ::fork();
  if (child == 0) Execute(words, {}, outputFile.c_str(), (outputFile + ".err").c_str());
  return child;
}

ToolResult WaitForRavctl(pid_t tool, const std::string& outputFile) {
  int status = 0;
  EXPECT_EQ(::waitpid(tool, &status, 0), tool);
  ToolResult result{WIFEXITED(status) ? WEXITSTATUS(status) : -1, "", ""};
  if (!outputFile.empty()) result.out = ReadWholeFile(outputFile), result.err = ReadWholeFile(outputFile + ".err");
  return result;
}

ToolResult RunRavctl(const CommandLine& words) {
  return WaitForRavctl(StartRavctl(words));
}
