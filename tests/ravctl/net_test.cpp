// The net commands in a network of their own, against what the test set there.

#include <arpa/inet.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <sstream>

#include "netif/private_network.h"
#include "platform/unique_fd.h"
#include "ravctl/ravctl_runner.h"

using nlohmann::json;
using ::testing::HasSubstr;

namespace {

struct NetCommands : PrivateNetwork {
  NetCommands() {
    std::filesystem::copy_file(RAVCTL_BINARY, root.HostPath("/ravctl"));
    root.MakeDirectory("/tmp", 01777);
  }
};

ToolResult Tool(const std::vector<std::string>& arguments) {
  const pid_t child = StartRavctl(arguments, "/out");
  int status = 0;
  EXPECT_EQ(::waitpid(child, &status, 0), child);
  return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, ReadWholeFile("/out"), ReadWholeFile("/out.err")};
}

json Answer(std::vector<std::string> arguments, int status = 0) {
  arguments.emplace_back("--json");
  const ToolResult result = Tool(arguments);
  EXPECT_EQ(result.status, status) << result.err;
  json object = json::parse(result.out, nullptr, false);
  if (object.is_discarded()) {
    ADD_FAILURE() << result.out << result.err;
    return {};
  }
  // The schemas lie on the machine outside.
  std::ofstream("/answers", std::ios::app) << object.dump() << '\n';
  return object["data"];
}

// Each of those answers against its schema.
void ExpectValidAnswers(const FixtureRoot& root, const char* path) {
  std::istringstream lines(root.ReadFile(path));
  size_t count = 0;
  for (std::string line; std::getline(lines, line); ++count)
    ExpectValid(json::parse(line));
  EXPECT_GT(count, 0U);
}

// Sends datagrams of 1000 bytes over the loopback interface, where each counts 1028 bytes.
void SendDatagrams(int count) {
  const UniqueFd socket(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = ::htonl(INADDR_LOOPBACK);
  socklen_t size = sizeof address;
  auto* generic = reinterpret_cast<sockaddr*>(&address);
  ASSERT_EQ(::bind(socket.Get(), generic, size), 0);
  ASSERT_EQ(::getsockname(socket.Get(), generic, &size), 0);
  const std::string data(1000, 'x');
  for (int number = 0; number < count; ++number)
    ASSERT_EQ(::sendto(socket.Get(), data.data(), data.size(), 0, generic, size), 1000);
}

// A watch that runs, with its lines so far.
class Watch {
 public:
  explicit Watch(const std::vector<std::string>& arguments) : m_Pid(StartRavctl(arguments, "/watch")) {}

  // Whether the text comes within ten seconds; step is done again and again meanwhile, when there is one.
  static bool Shows(const std::string& text, const std::function<void(int)>& step = {}) {
    for (int tries = 0; tries < 200; ++tries) {
      if (std::filesystem::exists("/watch") && ReadWholeFile("/watch").find(text) != std::string::npos) return true;
      if (step) step(tries);
      ::usleep(50000);
    }
    return false;
  }

  int End(int signal) const {
    ::kill(m_Pid, signal);
    int status = 0;
    EXPECT_EQ(::waitpid(m_Pid, &status, 0), m_Pid);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  }

 private:
  pid_t m_Pid;
};

}  // namespace

TEST_F(NetCommands, ListTellsWhatWasSet) {
  Run(
      [] {
        SendDatagrams(10);
        const json rows = Answer({"net", "list"});
        ASSERT_EQ(rows.size(), 4U);
        const json& lo = rows[0];
        EXPECT_EQ(lo["name"], "lo");
        EXPECT_EQ(lo["mac"], nullptr);
        EXPECT_EQ(lo["hardware"], "loopback");
        EXPECT_EQ(lo["tx_packets"], 10);
        EXPECT_EQ(lo["rx_bytes"], 10280);
        EXPECT_EQ(lo["rx_bytes_per_s"], nullptr);
        EXPECT_EQ(rows[1]["state"], "down");
        const json& v0 = rows[2];
        EXPECT_EQ(v0["name"], "v0");
        EXPECT_EQ(v0["state"], "no carrier");
        EXPECT_EQ(v0["mac"], "02:00:5e:10:20:30");
        EXPECT_EQ(v0["mtu"], 1400);
        EXPECT_EQ(v0["speed_mbit"], 10000);
        EXPECT_EQ(v0["addresses"], json({"192.168.7.20/20", "10.1.2.3/32", "fd00::7/64"}));
        EXPECT_EQ(rows[3]["name"], "fifteen-letters");
        EXPECT_EQ(Answer({"net", "list", "v?", "lo"}).size(), 3U);
        EXPECT_EQ(Answer({"net", "list", "--up"}).size(), 1U);
        EXPECT_EQ(Answer({"net", "list", "x*"}, 1).size(), 0U);
        EXPECT_EQ(Tool({"net", "list", "-o", "name,speed_mbit,rx_bytes", "lo", "v0"}).out,
                  "NAME SPEED  RX\nlo       - 10K\nv0     10G  0B\n");
      },
      "addr add 10.1.2.3 peer 10.1.2.4/32 dev v0\n");
  ExpectValidAnswers(root, "/answers");
}

TEST_F(NetCommands, RatesAreThoseOfTheInterval) {
  Run([] {
    SendDatagrams(50);  // not within the interval
    const pid_t sender = ::fork();
    if (sender == 0) {
      ::usleep(500000);
      SendDatagrams(100);
      ::_exit(0);
    }
    const json rows = Answer({"net", "list", "lo", "--rates=1.5"});
    ::waitpid(sender, nullptr, 0);
    // A busy machine stretches the interval, never the traffic.
    EXPECT_LE(rows[0]["rx_packets_per_s"], 67);
    EXPECT_GT(rows[0]["rx_packets_per_s"], 20);
    EXPECT_NEAR(rows[0]["tx_bytes_per_s"].get<double>() / rows[0]["tx_packets_per_s"].get<double>(), 1028, 25);
  });
  ExpectValidAnswers(root, "/answers");
}

TEST_F(NetCommands, ShowRoutesAndHostAddress) {
  Run([] {
    const json v0 = Answer({"net", "show", "v0"});
    EXPECT_EQ(v0["flags"], json({"up", "broadcast"}));
    EXPECT_EQ(v0["ipv4_netmask"], "255.255.240.0");
    EXPECT_EQ(v0["ipv4_broadcast"], "192.168.15.255");
    EXPECT_EQ(v0["ipv6_address"], "fd00::7");
    EXPECT_EQ(v0["ipv4_routes"], 1);
    EXPECT_EQ(Answer({"net", "show", "fifteen-letters"})["ipv4_address"], nullptr);
    EXPECT_EQ(Tool({"net", "show", "v9"}).err, "ravctl: net show: no such interface: v9 (did you mean v1?)\n");

    Answer({"net", "routes", "-i", "lo"}, 1);
    Ip("link set v1 up");
    Ip("-batch -", "route add default via 192.168.7.1 src 192.168.7.20 metric 5\nroute add blackhole 10.0.0.0/12");
    const ToolResult routes = Tool({"net", "routes", "-o", "destination,gateway,interface,source,metric"});
    EXPECT_THAT(routes.out, HasSubstr("default        192.168.7.1 v0        192.168.7.20      5\n"));
    EXPECT_THAT(routes.out, HasSubstr("10.0.0.0/12    -           -         -                 0\n"));
    EXPECT_THAT(routes.out, HasSubstr("192.168.0.0/20 -           v0        192.168.7.20      0\n"));
    EXPECT_EQ(Answer({"net", "routes", "-i", "v1"}).size(), 1U);

    const json host = Answer({"net", "host-ip", "--index", "1"});
    EXPECT_EQ(host["ipv4"], "192.168.7.20");
    EXPECT_EQ(host["ipv6"], "fd00::7");  // v1 has got an address of its link by now
    std::string why;
    for (const json& row : host["interfaces"])
      why += row["interface"].get<std::string>() + (row["chosen"] ? "+" : "-") + row["why"].get<std::string>() + '|';
    EXPECT_THAT(why, HasSubstr("lo-no Ethernet hardware (loopback)|v1-usable address number 0, wanted is 1|"
                               "v0+usable address number 1|fifteen-letters-no IPv4 address|"));
    EXPECT_EQ(Tool({"net", "host-ip", "-4", "-s"}).out, "1.2.3.4\n");
    EXPECT_EQ(Tool({"net", "host-ip", "-s", "--index", "3"}).status, 1);
  });
  ExpectValidAnswers(root, "/answers");
}

TEST_F(NetCommands, WatchTellsEachChange) {
  Run([] {
    const Watch watch({"net", "watch", "--json"});
    ASSERT_TRUE(Watch::Shows("\n", [](int tries) { Ip("link set v1 mtu " + std::to_string(1300 + tries % 2)); }));
    const std::pair<const char*, const char*> steps[] = {
        {"link set v1 mtu 1280", R"("interface":"v1","event":"changed","property":"mtu","before":")"},
        {"link set v1 up",
         R"("interface":"v0","event":"changed","property":"state","before":"no carrier","after":"up")"},
        {"addr add 10.9.8.7/24 dev v1", R"("property":"address","before":null,"after":"10.9.8.7/24")"},
        {"addr del 10.9.8.7/24 dev v1", R"("property":"address","before":"10.9.8.7/24","after":null)"},
        {"link add d0 address 02:00:00:00:00:09 type bridge",
         R"("interface":"d0","event":"added","property":null,"before":null,"after":null)"},
        {"link set d0 name d1", R"("interface":"d1","event":"changed","property":"name","before":"d0","after":"d1")"},
        {"link del d1", R"("interface":"d1","event":"removed","property":null)"},
    };
    for (const auto& [command, line] : steps) {
      Ip(command);
      EXPECT_TRUE(Watch::Shows(line)) << command << '\n' << ReadWholeFile("/watch");
    }
    EXPECT_EQ(watch.End(SIGTERM), 0) << ReadWholeFile("/watch.err");
    EXPECT_EQ(::waitpid(-1, nullptr, 0), -1);  // nobody is left behind
  });
  ExpectValidAnswers(root, "/watch");
}

TEST_F(NetCommands, WatchEndsByItselfAndWaitsQuietly) {
  Run([] {
    const Watch watch({"net", "watch", "-i", "v1", "--count", "1", "-o", "property,after"});
    EXPECT_TRUE(Watch::Shows("mtu", [](int tries) { Ip("link set v1 mtu " + std::to_string(1300 + tries % 2)); }));
    EXPECT_EQ(watch.End(0), 0);
    const std::string text = ReadWholeFile("/watch");
    EXPECT_EQ(text.substr(0, text.find("130")), "PROPERTY  AFTER\nmtu       ") << text;
    rusage before{}, after{};
    ::getrusage(RUSAGE_CHILDREN, &before);
    EXPECT_EQ(Tool({"net", "watch", "--timeout", "2"}).status, 1);
    ::getrusage(RUSAGE_CHILDREN, &after);
    EXPECT_LE(after.ru_utime.tv_sec + after.ru_stime.tv_sec, before.ru_utime.tv_sec + before.ru_stime.tv_sec + 1);
  });
}

TEST(Net, BadCommandLines) {
  struct Row {
    std::vector<std::string> arguments;
    const char* line;
  };
  const Row rows[] = {
      {{"net", "lst"}, "ravctl: unknown command: lst (did you mean list?)\n"},
      {{"net", "show"}, "ravctl: NAME is required: net show (see ravctl net show --help)\n"},
      {{"net", "list", "-o", "adresses"}, "ravctl: net list: no such column: adresses (did you mean addresses?)\n"},
      {{"net", "watch", "-o", "propety"}, "ravctl: net watch: no such column: propety (did you mean property?)\n"},
      {{"net", "host-ip", "-4", "-6"}, "ravctl: --ipv4 excludes --ipv6: net host-ip (see ravctl net host-ip --help)\n"},
  };
  const ToolRoot machine;
  for (const Row& row : rows) {
    const ToolResult result = machine.Ravctl(row.arguments);
    EXPECT_EQ(result.status, 2) << row.line;
    EXPECT_EQ(result.err, row.line);
  }
  for (const char* bad : {"--rates=0", "--rates=-1", "--rates=x"}) {
    const ToolResult result = machine.Ravctl({"net", "list", bad});
    EXPECT_EQ(result.status, 2) << bad;
    EXPECT_THAT(result.err, HasSubstr("--rates")) << bad;
  }
}
