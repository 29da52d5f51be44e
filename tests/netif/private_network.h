#pragma once

#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

#include "support/fixture_root.h"

// Tests against the real kernel in a network namespace of their own, set up and looked at with the ip command.
class PrivateNetwork : public ::testing::Test {
 protected:
  void SetUp() override;

  // Runs the ip commands, one a line, and then the body, inside the namespace and inside root.
  void Run(const std::string& commands, const std::function<void()>& body) const;

  FixtureRoot root;
};

// Output of the ip command with these arguments; fails the test when the command fails.
std::string Ip(const std::string& arguments);
void IpBatch(const std::string& commands);

// Value of the first such key as it stands in the text, without quotes; "" when there is none.
//   {"mtu":1500,"ifname":"v0"}, mtu => 1500
std::string JsonField(const std::string& json, const std::string& key);
// The elements of an array of flat objects.
std::vector<std::string> JsonObjects(const std::string& json);

size_t CountDescriptors();

// The text of the exception that the operation throws, "" when it throws none.
std::string FailureOf(const std::function<void()>& operation);
