// The net commands in a network of their own, against what the test set there.

#include <arpa/inet.h>
#include <netinet/in.h>

#include <fstream>

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

json Answer(const CommandLine& words, int status = 0) {
  const ToolResult result = RunRavctl(words + "--json");
  EXPECT_EQ(result.status, status) << result.err;
  const json object = json::parse(result.out, nullptr, false);
  EXPECT_TRUE(object.is_object()) << result.out << result.err;
  // The schemas lie on the machine outside.
  std::ofstream("/answers", std::ios::app) << object.dump() << '\n';
  return object.value("data", json());
}

void ExpectValidAnswers(const FixtureRoot& root) {
  std::istringstream lines(root.ReadFile("/answers"));
  for (std::string line; std::getline(lines, line);)
    ExpectValid(json::parse(line));
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

}  // namespace

TEST_F(NetCommands, ListTellsWhatWasSet) {
  Run(
      [] {
        SendDatagrams(10);
        const json rows = Answer("net list");
        ASSERT_EQ(rows.size(), 4U);
        EXPECT_EQ(Members(rows[0], "name mac hardware tx_packets rx_bytes rx_bytes_per_s"),
                  "lo, -, loopback, 10, 10280, -");
        EXPECT_EQ(rows[1]["state"], "down");
        EXPECT_EQ(Members(rows[2], "name state mac mtu speed_mbit addresses"),
                  "v0, no carrier, 02:00:5e:10:20:30, 1400, 10000, "
                  "[\"192.168.7.20/20\",\"10.1.2.3/32\",\"fd00::7/64\"]");
        EXPECT_EQ(rows[3]["name"], "fifteen-letters");
        EXPECT_EQ(Answer("net list v? lo").size(), 3U);
        EXPECT_EQ(Answer("net list --up").size(), 1U);
        EXPECT_EQ(Answer("net list x*", 1).size(), 0U);
        EXPECT_EQ(RunRavctl("net list -o name,speed_mbit,rx_bytes lo v0").out,
                  "NAME SPEED  RX\nlo       - 10K\nv0     10G  0B\n");
      },
      "addr add 10.1.2.3 peer 10.1.2.4/32 dev v0\n");
  ExpectValidAnswers(root);
}

TEST_F(NetCommands, RatesAreThoseOfTheInterval) {
  Run([] {
    SendDatagrams(1000);  // not within the interval
    const pid_t sender = ::fork();
    while (sender == 0) {
      SendDatagrams(1);
      ::usleep(10000);
    }
    const json rows = Answer("net list lo --rates=1.5");
    ::kill(sender, SIGKILL);
    ::waitpid(sender, nullptr, 0);
    // A busy machine makes the datagrams fewer, never more.
    EXPECT_LE(rows[0]["rx_packets_per_s"], 101);
    EXPECT_GT(rows[0]["rx_packets_per_s"], 5);
    EXPECT_NEAR(rows[0]["tx_bytes_per_s"].get<double>() / rows[0]["tx_packets_per_s"].get<double>(), 1028, 25);
  });
  ExpectValidAnswers(root);
}

TEST_F(NetCommands, LongFormRoutesAndHostAddress) {
  Run([] {
    const json v0 = Answer("net list v0")[0];
    EXPECT_EQ(Members(v0, "flags ipv4_netmask ipv4_broadcast ipv6_address ipv4_routes"),
              "[\"up\",\"broadcast\"], 255.255.240.0, 192.168.15.255, fd00::7, 1");
    EXPECT_EQ(Answer("net list --long fif*")[0]["ipv4_address"], nullptr);
    EXPECT_EQ(RunRavctl("net list v0 v9").err, "ravctl: net list: no such interface: v9 (did you mean v1?)\n");

    const std::string shown = RunRavctl("net list v0").out;
    EXPECT_THAT(shown, HasSubstr("speed_mbit     10000 (10Gbit/s)\n"));
    EXPECT_THAT(shown, HasSubstr("rx_bytes       0 (0B)\n"));
    EXPECT_THAT(RunRavctl("net list --long v0 fif*").out, HasSubstr("\nfifteen-letters ipv4_routes    0\n"));

    Answer("net routes -i lo", 1);
    Ip("link set v1 up");
    Ip("-batch -", "route add default via 192.168.7.1 src 192.168.7.20 metric 5\nroute add blackhole 10.0.0.0/12");
    const ToolResult routes = RunRavctl("net routes -o destination,gateway,interface,source,metric");
    EXPECT_THAT(routes.out, HasSubstr("default        192.168.7.1 v0        192.168.7.20      5\n"));
    EXPECT_THAT(routes.out, HasSubstr("10.0.0.0/12    -           -         -                 0\n"));
    EXPECT_THAT(routes.out, HasSubstr("192.168.0.0/20 -           v0        192.168.7.20      0\n"));
    EXPECT_EQ(Answer("net routes -i v1").size(), 1U);

    const json host = Answer("net host-ip --index 1");
    EXPECT_EQ(Members(host, "ipv4 ipv6"), "192.168.7.20, fd00::7");  // v1 has got an address of its link by now
    std::string why;
    for (const json& row : host["interfaces"])
      why += row["interface"].get<std::string>() + (row["chosen"] ? "+" : "-") + row["why"].get<std::string>() + '|';
    EXPECT_THAT(why, HasSubstr("lo-no Ethernet hardware (loopback)|v1-usable address number 0, wanted is 1|"
                               "v0+usable address number 1|fifteen-letters-no IPv4 address|"));
    EXPECT_EQ(RunRavctl("net host-ip -4 -s").out, "1.2.3.4\n");
    EXPECT_EQ(RunRavctl("net host-ip -s --index 3").status, 1);
  });
  ExpectValidAnswers(root);
}

TEST_F(NetCommands, ABundleAnswersAsTheMachineDid) {
  Run([] {
    for (const CommandLine made : {"bundle /b.tar.gz", "bundle --redact /r.tar.gz"})
      EXPECT_EQ(RunRavctl(made).status, 0);
    for (const CommandLine words : {"net list --up v? lo -o name,flags,mac,mtu,addresses,ipv4_netmask,ipv4_routes",
                                    "net routes -i v0", "net host-ip --index 1 -6", "net host-ip -s --index 3"}) {
      const ToolResult live = RunRavctl(words);
      const ToolResult captured = RunRavctl(words + "--sysroot /b.tar.gz");
      EXPECT_EQ(captured.out, live.out);
      EXPECT_EQ(captured.status, live.status);
      EXPECT_THAT(captured.err, HasSubstr("warning: this is how it was at the time of the capture: 2"));
    }
    ASSERT_EQ(std::system("/usr/bin/tar -xOf /b.tar.gz ravctl/perf-sample.json > /perf"), 0);
    EXPECT_EQ(Answer("perf --sysroot /b.tar.gz"), json::parse(ReadWholeFile("/perf"))["data"]);
    EXPECT_THAT(RunRavctl("perf --sysroot /b.tar.gz").out, HasSubstr("\nmemory physical "));
    for (const CommandLine words : {"perf -n 1", "perf --interval 2", "net list --rates"})
      EXPECT_EQ(RunRavctl(words + "--sysroot /b.tar.gz").status, 2);
    std::string redacted;
    for (const CommandLine words : {"net list", "net routes", "net host-ip", "perf"})
      redacted += Answer(words + "--sysroot /r.tar.gz").dump();
    for (const char* secret : {"02:00:5e:10:20:30", "192.168.7.20", "fd00::7"})
      EXPECT_EQ(redacted.find(secret), std::string::npos) << secret;
    EXPECT_THAT(redacted, HasSubstr("fifteen-letters"));
  });
  ExpectValidAnswers(root);
}
