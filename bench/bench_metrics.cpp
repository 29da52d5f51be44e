// The page of the module metrics: what taking the figures and writing the page cost, and what one scrape costs the
// process that is scraped, in processor time, beside prometheus-node-exporter with the same subjects where that is
// installed. Each server is a process of its own; the scraper does not count.

#include <arpa/inet.h>
#include <benchmark/benchmark.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "metrics/http_server.h"
#include "metrics/page.h"
#include "metrics/system_figures.h"
#include "platform/unique_fd.h"

namespace {

constexpr const char* kNodeExporter = "/usr/bin/prometheus-node-exporter";
constexpr uint16_t kOwnPort = 19469;
constexpr uint16_t kPeerPort = 19100;

// A page of about 250 series.
Figures Machine() {
  Figures figures;
  figures.version = "3.12.5";
  for (int i = 0; i < 30; ++i) {
    const std::string number = std::to_string(i);
    const std::string address = "0000:" + number + ":00.0";
    figures.machine.push_back(
        {"adapter", address, {{"address", address}, {"kind", "net"}, {"driver", "d"}, {"lanes", "8"}}});
    figures.machine.push_back(
        {"dimm", number, {{"locator", "DIMM " + number}, {"part", "P"}, {"size", "17179869184"}}});
    figures.machine.push_back(
        {"drive", number, {{"device", "sd" + number}, {"model", "X"}, {"size", "4000787030016"}}});
  }
  SampleSystem(figures);
  return figures;
}

void BM_SampleAndWrite(benchmark::State& state) {
  Figures figures = Machine();
  for (auto _ : state) {
    SampleSystem(figures);
    figures.modules = ReadModules();
    benchmark::DoNotOptimize(WritePage(figures, PageFor::kScrape));
  }
}
BENCHMARK(BM_SampleAndWrite)->Unit(benchmark::kMicrosecond);

void BM_WritePage(benchmark::State& state) {
  const Figures figures = Machine();
  for (auto _ : state)
    benchmark::DoNotOptimize(WritePage(figures, PageFor::kScrape));
}
BENCHMARK(BM_WritePage)->Unit(benchmark::kMicrosecond);

// Nanoseconds that the threads of the process have run.
uint64_t RunTimeOf(pid_t process) {
  uint64_t sum = 0;
  std::error_code error;
  for (const auto& task : std::filesystem::directory_iterator("/proc/" + std::to_string(process) + "/task", error)) {
    uint64_t ran = 0;
    std::ifstream(task.path() / "schedstat") >> ran;
    sum += ran;
  }
  return sum;
}

// The length of what came; 0 when nobody answers.
size_t Scrape(uint16_t port) {
  const UniqueFd client(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(port);
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  if (::connect(client.Get(), reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) return 0;
  const std::string request = "GET /metrics HTTP/1.1\r\nHost: x\r\nConnection: close\r\n\r\n";
  if (::send(client.Get(), request.data(), request.size(), MSG_NOSIGNAL) < 0) return 0;
  size_t size = 0;
  char piece[65536];
  for (ssize_t length; (length = ::recv(client.Get(), piece, sizeof piece, 0)) > 0;)
    size += static_cast<size_t>(length);
  return size;
}

void MeasureScrapes(benchmark::State& state, pid_t server, uint16_t port) {
  size_t size = 0;
  for (int tries = 0; tries < 500 && size == 0; ++tries) {
    size = Scrape(port);
    if (size == 0) ::usleep(10'000);
  }
  if (size == 0) state.SkipWithError("the server does not answer");
  for (auto _ : state) {
    const uint64_t before = RunTimeOf(server);
    size = Scrape(port);
    state.SetIterationTime(static_cast<double>(RunTimeOf(server) - before) / 1e9);
  }
  state.counters["bytes"] = static_cast<double>(size);
  ::kill(server, SIGKILL);
  ::waitpid(server, nullptr, 0);
}

void BM_Scrape(benchmark::State& state) {
  const pid_t server = ::fork();
  if (server == 0) {
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    HttpServer http;
    std::string error;
    if (!http.Start("127.0.0.1:" + std::to_string(kOwnPort), false, error)) ::_exit(1);
    http.Publish(WritePage(Machine(), PageFor::kScrape));
    for (;;)
      ::pause();
  }
  MeasureScrapes(state, server, kOwnPort);
}
BENCHMARK(BM_Scrape)->UseManualTime()->Unit(benchmark::kMicrosecond)->Iterations(500);

void BM_ScrapeNodeExporter(benchmark::State& state) {
  if (::access(kNodeExporter, X_OK) != 0) {
    state.SkipWithError("prometheus-node-exporter is not installed");
    return;
  }
  const pid_t server = ::fork();
  if (server == 0) {
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    std::vector<std::string> words = {kNodeExporter, "--collector.disable-defaults", "--log.level=error",
                                      "--web.listen-address=127.0.0.1:" + std::to_string(kPeerPort)};
    for (const char* collector :
         {"cpu", "meminfo", "netdev", "netclass", "filesystem", "loadavg", "diskstats", "dmi", "uname"})
      words.push_back(std::string("--collector.") + collector);
    std::vector<char*> argv;
    for (std::string& word : words)
      argv.push_back(word.data());
    argv.push_back(nullptr);
    ::execv(argv[0], argv.data());
    ::_exit(127);
  }
  MeasureScrapes(state, server, kPeerPort);
}
BENCHMARK(BM_ScrapeNodeExporter)->UseManualTime()->Unit(benchmark::kMicrosecond)->Iterations(500);

}  // namespace

BENCHMARK_MAIN();
