#include "ravctl/ravctl_runner.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

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

ToolRoot::ToolRoot() {
  fs::copy_file(RAVCTL_BINARY, HostPath(kTool));
  MakeDirectory("/tmp", 01777);
}

ToolResult ToolRoot::Ravctl(const std::vector<std::string>& arguments, const std::vector<std::string>& environment,
                            unsigned int mounts) const {
  Run(
      [&] {
        const pid_t child = ::fork();
        if (child == 0) Execute(arguments, environment, "/tool-out", "/tool-err");
        int status = 0;
        ASSERT_EQ(::waitpid(child, &status, 0), child);
        std::FILE* file = std::fopen("/tool-status", "w");
        ASSERT_NE(file, nullptr);
        std::fprintf(file, "%d", WIFEXITED(status) ? WEXITSTATUS(status) : -1);
        std::fclose(file);
      },
      mounts | kUsr);
  return {std::stoi(ReadFile("/tool-status")), ReadFile("/tool-out"), ReadFile("/tool-err")};
}

nlohmann::json ToolRoot::Json(std::vector<std::string> arguments, int status,
                              const std::vector<std::string>& environment, unsigned int mounts) const {
  arguments.emplace_back("--json");
  const ToolResult result = Ravctl(arguments, environment, mounts);
  EXPECT_EQ(result.status, status) << result.err << result.out;
  nlohmann::json object = nlohmann::json::parse(result.out, nullptr, false);
  EXPECT_FALSE(object.is_discarded()) << result.out << result.err;
  ExpectValid(object);
  return object;
}

void ExpectValid(const nlohmann::json& object) {
  ASSERT_TRUE(object.is_object() && object.contains("schema"));
  const std::string name = object["schema"];
  ASSERT_EQ(name.substr(0, 7), "ravctl/");
  EXPECT_EQ(SchemaFault(object, fs::path(RAVCTL_SCHEMAS) / (name.substr(7) + ".json")), "");
}

pid_t StartRavctl(const std::vector<std::string>& arguments, const std::string& outputFile) {
  const pid_t child = ::fork();
  if (child == 0) Execute(arguments, {}, outputFile.c_str(), (outputFile + ".err").c_str());
  return child;
}
