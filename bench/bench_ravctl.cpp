// What the client costs as a whole process: its help (goal: 30 ms), an inventory beside a process that does the
// library's own scan alone (goal: twice that), and what it tells of this machine beside the tools that tell the same,
// where they are installed.
//
// The machine is a generated tree with this system's /usr in it; the tool and, for the scan, this program itself (as
// "bench_ravctl --scan") are started inside it. Built with the tool alone.

#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include "fixture_trees.h"
#include "inventory/system_device_scan.h"

namespace {

namespace fs = std::filesystem;
using Command = std::vector<std::string>;

constexpr int kFunctionsPerBus = 16;
constexpr int kServer = 64;  // the functions of a machine with two sockets
constexpr unsigned int kTimeoutMs = 60'000;

constexpr const char* kTool = "/ravctl";  // inside the tree
constexpr const char* kScanner = "/scanner";

const FixtureTrees* s_Trees = nullptr;

template <typename... Values>
std::string Format(const char* format, Values... values) {
  char text[256];
  std::snprintf(text, sizeof text, format, values...);
  return text;
}

// Network controllers, NVMe drives and RAID controllers, half as many mounts as functions, and the names of devices.
void MakeServer() {
  std::string devices;
  std::string mounts;
  for (const char* directory : {"/sys/bus/pci/devices", "/sys/block", "/dev"})
    fs::create_directories(s_Trees->Path(kServer) + directory);
  for (int index = 0; index < kServer; ++index) {
    const int bus = index / kFunctionsPerBus;
    const int device = index % kFunctionsPerBus / 2;
    const int function = index % 2;
    const bool isNetwork = index % 16 == 0;
    const bool isNvme = index % 8 == 1;
    std::string header(256, '\0');
    header.replace(0, 4, "\x86\x80\x21\x15");
    header[11] = isNetwork ? '\x02' : '\x01';
    header[10] = isNetwork ? '\x00' : isNvme ? '\x08' : '\x04';
    s_Trees->Write(kServer, Format("/proc/bus/pci/%02x/%02x.%x", bus, device, function), header);
    devices += Format("%02x%02x\t80861521\tb", bus, device * 8 + function);
    for (int field = 0; field < 14; ++field)
      devices += "\t               0";
    devices += "\tdriver\n";
    const std::string address = Format("0000:%02x:%02x.%x", bus, device, function);
    if (isNetwork) {
      const std::string interface = "/sys/class/net/eth" + std::to_string(index);
      s_Trees->Write(kServer, interface + "/address", Format("02:00:00:00:00:%02x\n", index));
      fs::create_symlink("../../../" + address, s_Trees->Path(kServer) + interface + "/device");
    } else if (isNvme) {
      fs::create_symlink("../devices/pci0000:00/" + address + "/nvme/nvme0/x",
                         s_Trees->Path(kServer) + Format("/sys/block/nvme%dn1", index));
    }
    if (index % 2 == 0) mounts += Format("/dev/nvme%dn1p1 /mnt/%d ext4 rw 0 0\n", index + 1, index);
  }
  s_Trees->Write(kServer, "/proc/bus/pci/devices", devices);
  s_Trees->Write(kServer, "/etc/mtab", mounts);
  s_Trees->Write(kServer, "/etc/pelrix/Adapter.ini", "[8086]\nVendor=Maker\n1521=Model\n");
}

// Lets programs run inside the tree.
void AddPrograms() {
  const std::string tree = s_Trees->Path(kServer);
  fs::create_directory(tree + "/usr");
  if (::mount("/usr", (tree + "/usr").c_str(), nullptr, MS_BIND | MS_REC, nullptr) != 0) {
    std::perror("/usr");
    std::exit(1);
  }
  for (const char* name : {"bin", "sbin", "lib", "lib64"})
    fs::create_symlink(std::string("usr/") + name, tree + "/" + name);
  std::ofstream(tree + "/dev/null");
  fs::copy_file(RAVCTL_BINARY, tree + kTool);
  fs::copy_file("/proc/self/exe", tree + kScanner);
}

int RunScan() {
  CSystemDeviceScan scan;
  return scan.ScanHardware(-1, false, kTimeoutMs, nullptr) == 0 && scan.GetAdapterCount() > 0 ? 0 : 1;
}

// A regular file stands for /dev/null inside the tree.
[[noreturn]] void Execute(const std::string& root, Command command, int output) {
  if (!root.empty() && (::chroot(root.c_str()) != 0 || ::chdir("/") != 0)) ::_exit(126);
  std::vector<char*> argv;
  for (std::string& argument : command)
    argv.push_back(argument.data());
  argv.push_back(nullptr);
  ::dup2(output, STDOUT_FILENO);
  ::dup2(output, STDERR_FILENO);
  ::execvp(argv[0], argv.data());
  ::_exit(errno == ENOENT ? 127 : 126);
}

// Exit status of the program, -1 when it did not end by itself; its CPU time is added.
int Run(const std::string& root, const Command& command, double& cpuMs) {
  static const int output = ::open("/dev/null", O_WRONLY | O_CLOEXEC);
  const pid_t child = ::fork();
  if (child == 0) Execute(root, command, output);
  int status = 0;
  rusage usage{};
  if (child < 0 || ::wait4(child, &status, 0, &usage) != child) return -1;
  const auto milliseconds = [](const timeval& time) {
    return static_cast<double>(time.tv_sec) * 1e3 + static_cast<double>(time.tv_usec) / 1e3;
  };
  cpuMs += milliseconds(usage.ru_utime) + milliseconds(usage.ru_stime);
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

void Measure(benchmark::State& state, const std::string& root, const Command& command) {
  if (!s_Trees->Leave()) state.SkipWithError("the tree cannot be left");
  double cpu = 0;
  for (auto _ : state) {
    const int status = Run(root, command, cpu);
    if (status == 0) continue;
    const std::string reason = status == 127 ? " is not installed"
                               : status == 4 ? " has nothing to read on this machine"
                                             : " failed with status " + std::to_string(status);
    state.SkipWithError((command[0] + reason).c_str());
    break;
  }
  state.counters["cpu_ms"] = benchmark::Counter(cpu, benchmark::Counter::kAvgIterations);
}

void Help(benchmark::State& state) {
  Measure(state, "", {RAVCTL_BINARY, "--help"});
}

void ServerScan(benchmark::State& state) {
  Measure(state, s_Trees->Path(kServer), {kScanner, "--scan"});
}

void Server(benchmark::State& state, const Command& command) {
  Measure(state, s_Trees->Path(kServer), command);
}

void ThisMachine(benchmark::State& state, const Command& command) {
  Measure(state, "", command);
}

void Add(const char* name, void (*run)(benchmark::State&, const Command&), const Command& command) {
  benchmark::RegisterBenchmark(name, [run, command](benchmark::State& state) { run(state, command); })
      ->UseRealTime()
      ->Unit(benchmark::kMillisecond);
}

// Each command beside what an administrator would use instead.
void AddComparisons() {
  Add("Server/inventory", Server, {kTool, "inventory"});
  Add("Server/inventory_json", Server, {kTool, "inventory", "--json"});
  Add("Server/pci", Server, {kTool, "pci"});
  Add("ThisMachine/pci", ThisMachine, {RAVCTL_BINARY, "pci"});
  Add("ThisMachine/lspci", ThisMachine, {"lspci", "-nn"});
  Add("ThisMachine/smbios_list", ThisMachine, {RAVCTL_BINARY, "smbios", "list"});
  Add("ThisMachine/dmidecode", ThisMachine, {"dmidecode"});
  Add("ThisMachine/inventory", ThisMachine, {RAVCTL_BINARY, "inventory"});
  Add("ThisMachine/lshw", ThisMachine, {"lshw", "-short"});
  Add("ThisMachine/net_list_json", ThisMachine, {RAVCTL_BINARY, "net", "list", "--json"});
  Add("ThisMachine/ip_json", ThisMachine, {"ip", "-j", "addr"});
}

BENCHMARK(Help)->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK(ServerScan)->UseRealTime()->Unit(benchmark::kMillisecond);

}  // namespace

int main(int argc, char** argv) {
  if (argc == 2 && std::strcmp(argv[1], "--scan") == 0) return RunScan();
  benchmark::Initialize(&argc, argv);
  const FixtureTrees trees;
  s_Trees = &trees;
  MakeServer();
  AddPrograms();
  AddComparisons();
  benchmark::RunSpecifiedBenchmarks();
  return 0;
}
