#include "netif/private_network.h"

#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <iterator>

#include "netif/libnetif_exception.h"

namespace {

constexpr const char* kIp = "/usr/sbin/ip";

}  // namespace

void PrivateNetwork::SetUp() {
  if (::access(kIp, X_OK) != 0) GTEST_SKIP() << "iproute2 is not installed";
}

void PrivateNetwork::Run(const std::string& commands, const std::function<void()>& body) const {
  const auto inside = [&] {
    IpBatch(commands);
    if (!::testing::Test::HasFailure()) body();
  };
  root.Run(inside, FixtureRoot::kUsr | FixtureRoot::kProc | FixtureRoot::kNetwork);
}

std::string Ip(const std::string& arguments) {
  FILE* pipe = ::popen((std::string(kIp) + " " + arguments).c_str(), "re");
  if (pipe == nullptr) return "";
  std::string output;
  for (int c = std::getc(pipe); c != EOF; c = std::getc(pipe))
    output += static_cast<char>(c);
  EXPECT_EQ(::pclose(pipe), 0) << arguments;
  return output;
}

void IpBatch(const std::string& commands) {
  FILE* pipe = ::popen((std::string(kIp) + " -batch -").c_str(), "we");
  ASSERT_NE(pipe, nullptr);
  std::fputs(commands.c_str(), pipe);
  EXPECT_EQ(::pclose(pipe), 0) << commands;
}

std::string JsonField(const std::string& json, const std::string& key) {
  const std::string start = "\"" + key + "\":";
  size_t from = json.find(start);
  if (from == std::string::npos) return "";
  from += start.size();
  const bool quoted = json[from] == '"';
  return quoted ? json.substr(from + 1, json.find('"', from + 1) - from - 1)
                : json.substr(from, json.find_first_of(",}]", from) - from);
}

std::vector<std::string> JsonObjects(const std::string& json) {
  std::vector<std::string> objects;
  for (size_t from = json.find('{'); from != std::string::npos; from = json.find('{', from + 1)) {
    objects.push_back(json.substr(from, json.find('}', from) - from + 1));
  }
  return objects;
}

size_t CountDescriptors() {
  const std::filesystem::directory_iterator list("/proc/self/fd");
  return static_cast<size_t>(std::distance(begin(list), end(list)));
}

std::string FailureOf(const std::function<void()>& operation) {
  try {
    operation();
  } catch (const libnetif::libnetif_exception& failure) {
    return failure.what();
  }
  return "";
}
