// The module metrics from outside: its page over HTTP and in a file, clients that mean no good, and its end.

#include "metrics/metrics.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/un.h>

#include "platform/unique_fd.h"
#include "support/daemon_root.h"

using ::testing::EndsWith, ::testing::HasSubstr, ::testing::Not, ::testing::StartsWith;

namespace {

constexpr const char* kGet = "GET /metrics HTTP/1.1\r\nHost: x\r\n\r\n";

class MetricsModule : public ::testing::Test {
 protected:
  MetricsModule() {
    rlimit limit{4096, 4096};
    ::setrlimit(RLIMIT_NOFILE, &limit);
    settings.textFile = "none";
    settings.listen = "127.0.0.1:0";
    settings.program = Program("echo 'drive\ta\tdevice=sda\tsize=512'; echo end");
  }

  std::string Program(const std::string& text) const {
    root.WriteFile("/program", "#!/bin/sh\n" + text + "\n", 0755);
    return root.HostPath("/program").string();
  }

  // A connection on which that was sent.
  static UniqueFd Connect(const std::string& where, const std::string& text) {
    UniqueFd client;
    if (where.starts_with("unix:")) {
      client = UniqueFd(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
      sockaddr_un address{AF_UNIX, ""};
      where.copy(address.sun_path, sizeof address.sun_path - 1, 5);
      EXPECT_EQ(::connect(client.Get(), reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    } else {
      client = UniqueFd(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
      sockaddr_in address{};
      address.sin_family = AF_INET;
      address.sin_port = htons(static_cast<uint16_t>(std::atoi(where.substr(where.rfind(':') + 1).c_str())));
      address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
      EXPECT_EQ(::connect(client.Get(), reinterpret_cast<sockaddr*>(&address), sizeof address), 0) << where;
    }
    ::send(client.Get(), text.data(), text.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
    return client;
  }

  // All that comes until the server closes.
  static std::string Ask(const std::string& where, const std::string& text) {
    const UniqueFd client = Connect(where, text);
    std::string answer;
    char piece[4096];
    for (ssize_t length; (length = ::recv(client.Get(), piece, sizeof piece, 0)) > 0;)
      answer.append(piece, static_cast<size_t>(length));
    return answer;
  }

  FixtureRoot root;
  MetricsSettings settings;
};

}  // namespace

TEST_F(MetricsModule, PageIsServedAndNothingElse) {
  Metrics metrics(settings);
  ASSERT_TRUE(metrics.Start());
  const std::string& where = metrics.Where();
  ASSERT_TRUE(WaitUntil(
      [&] { return Ask(where, kGet).find("ravd_drive_size_bytes{device=\"sda\"} 512\n") != std::string::npos; }));
  const std::string page = Ask(where, kGet);
  EXPECT_THAT(page, StartsWith("HTTP/1.1 200 OK\r\n"));
  EXPECT_THAT(page, HasSubstr("\r\nContent-Type: text/plain; version=0.0.4; charset=utf-8\r\n"));
  EXPECT_THAT(page,
              HasSubstr("\nravd_changes_total{kind=\"drive\",change=\"added\"} 0\n"));  // the first look is no change
  EXPECT_THAT(Ask(where, "HEAD /metrics HTTP/1.1\r\nHost: x\r\n\r\n"), EndsWith("\r\n\r\n"));
  EXPECT_THAT(Ask(where, "GET /../etc/shadow HTTP/1.1\r\nHost: x\r\n\r\n"), StartsWith("HTTP/1.1 404"));
  for (const char* method : {"POST", "PUT", "DELETE", "OPTIONS"}) {
    EXPECT_THAT(Ask(where, method + std::string(" /metrics HTTP/1.1\r\nHost: x\r\nContent-Length: 3\r\n\r\nabc")),
                StartsWith("HTTP/1.1 405"));
  }
}

TEST_F(MetricsModule, HostileClientsDoNotShutOutTheGoodOne) {
  rlimit limit{};
  ::getrlimit(RLIMIT_NOFILE, &limit);
  if (limit.rlim_cur < 4096) GTEST_SKIP() << "4,096 descriptors cannot be had here";
  Metrics metrics(settings);
  ASSERT_TRUE(metrics.Start());
  const std::string& where = metrics.Where();
  std::vector<UniqueFd> clients;
  for (int i = 0; i < 1000; ++i)
    clients.push_back(Connect(where, i % 2 == 0 ? "" : "GET /metr"));
  EXPECT_THAT(Ask(where, kGet), HasSubstr("ravd_build_info"));
  // Headers and bodies without end are cut off or refused; rubbish as well.
  EXPECT_THAT(Ask(where, "GET /metrics HTTP/1.1\r\nX: " + std::string(100'000, 'x')), Not(HasSubstr("200 OK")));
  EXPECT_THAT(Ask(where, "GET /" + std::string(100'000, 'x') + " HTTP/1.1\r\n\r\n"), Not(HasSubstr("200 OK")));
  EXPECT_THAT(Ask(where, "POST /metrics HTTP/1.1\r\nHost: x\r\nContent-Length: 99999999999\r\n\r\n"), HasSubstr("405"));
  EXPECT_THAT(Ask(where, std::string("\0\xFF\x16\x03\x01\r\n\r\n", 9)), Not(HasSubstr("200 OK")));
  // Clients that ask for the page again and again and read nothing of it.
  for (int i = 0; i < 50; ++i)
    clients.push_back(Connect(where, std::string(kGet) + kGet + kGet));
  EXPECT_THAT(Ask(where, kGet), HasSubstr("ravd_build_info"));
  // More than there is room for: the good one gets its turn when the first of them are given up.
  for (int i = 0; i < 100; ++i)
    clients.push_back(Connect(where, "GET"));
  EXPECT_THAT(Ask(where, kGet), HasSubstr("ravd_build_info"));
  // And the end comes while all are there.
}

TEST_F(MetricsModule, EndComesWhileAProgramHangs) {
  settings.program = Program("exec sleep 1000");
  Metrics metrics(settings);
  ASSERT_TRUE(metrics.Start());
  EXPECT_THAT(Ask(metrics.Where(), kGet), HasSubstr("200 OK"));
}

TEST_F(MetricsModule, AddressesThatAreNotTaken) {
  std::string error;
  for (const char* where : {"0.0.0.0:0", "[::]:0", "192.0.2.1:0", "localhost:80", "127.0.0.1", "127.0.0.1:x",
                            "unix:", "unix:socket", "unix:/nowhere/socket", ""})
    EXPECT_FALSE(HttpServer().Start(where, false, error)) << where;
  EXPECT_TRUE(HttpServer().Start("0.0.0.0:0", true, error)) << error;
  HttpServer first, second;
  ASSERT_TRUE(first.Start("127.0.0.1:0", false, error));
  EXPECT_FALSE(second.Start(first.Where(), false, error));
  EXPECT_THAT(error, HasSubstr("Address already in use"));

  const std::string path = root.HostPath("/socket").string();
  {
    UniqueFd dead(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_un address{AF_UNIX, ""};
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    ASSERT_EQ(::bind(dead.Get(), reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
  }
  HttpServer local, other;
  ASSERT_TRUE(local.Start("unix:" + path, false, error)) << error;  // in the place of the dead one
  EXPECT_EQ(root.Mode("/socket") & 0777, 0660U);
  local.Publish("words\n");
  EXPECT_THAT(Ask("unix:" + path, kGet), EndsWith("\r\n\r\nwords\n"));
  EXPECT_FALSE(other.Start("unix:" + path, false, error));  // this one lives
  root.WriteFile("/file", "kept");
  EXPECT_FALSE(other.Start("unix:" + root.HostPath("/file").string(), false, error));
  EXPECT_EQ(root.ReadFile("/file"), "kept");
}

TEST_F(MetricsModule, TextFileComesWholeAndGoes) {
  settings.listen = "none";
  settings.textFile = root.HostPath("/ravd.prom").string();
  {
    Metrics metrics(settings);
    ASSERT_TRUE(metrics.Start());
    ASSERT_TRUE(WaitUntil(
        [&] { return root.Exists("/ravd.prom") && root.ReadFile("/ravd.prom").find("sda") != std::string::npos; }));
    const std::string text = root.ReadFile("/ravd.prom");
    EXPECT_THAT(text, Not(HasSubstr("process_")));
    EXPECT_EQ(root.Mode("/ravd.prom") & 0777, 0644U);
    EXPECT_FALSE(root.Exists("/ravd.prom.new"));
  }
  EXPECT_FALSE(root.Exists("/ravd.prom"));
  settings.textFile = "none";
  EXPECT_FALSE(Metrics(settings).Start());
}
