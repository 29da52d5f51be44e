// The interface library with 1,000 interfaces and 10,000 routes in a network namespace of its own, each operation
// beside its floor: the bare system calls that it stands for.
//
// The interfaces are made by the ip command: dummy ones, or bridges where the kernel has no dummy interfaces.

#include <benchmark/benchmark.h>
#include <linux/rtnetlink.h>
#include <linux/sockios.h>
#include <net/if.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>

#include "netif/network_interface_manager.h"
#include "netif/routing_table_manager.h"

using namespace libnetif;

namespace {

constexpr int kInterfaces = 1000;
constexpr int kRoutes = 10000;

std::string NameOf(int number) {
  return "bench" + std::to_string(number);
}

void WriteFile(const char* path, const std::string& text) {
  std::ofstream(path) << text;
}

bool EnterNamespace() {
  const std::string uid = std::to_string(::getuid());
  const std::string gid = std::to_string(::getgid());
  if (::unshare(::geteuid() == 0 ? CLONE_NEWNET : CLONE_NEWNET | CLONE_NEWUSER) != 0) return false;
  if (::geteuid() == 0) return true;
  WriteFile("/proc/self/setgroups", "deny");
  WriteFile("/proc/self/uid_map", "0 " + uid + " 1");
  WriteFile("/proc/self/gid_map", "0 " + gid + " 1");
  return true;
}

bool RunBatch(const std::string& commands) {
  FILE* pipe = ::popen("PATH=/usr/sbin:/sbin:/usr/bin:/bin ip -batch -", "we");
  if (pipe == nullptr) return false;
  std::fputs(commands.c_str(), pipe);
  return ::pclose(pipe) == 0;
}

bool MakeInterfaces(const char* type) {
  std::string commands;
  for (int i = 0; i < kInterfaces; ++i) {
    const std::string name = NameOf(i);
    commands += "link add " + name + " type " + type + "\naddr add 10." + std::to_string(i / 250) + "." +
                std::to_string(i % 250) + ".1/24 dev " + name + "\nlink set " + name + " up\n";
  }
  return RunBatch(commands);
}

bool MakeRoutes() {
  std::string commands;
  for (int i = 0; i < kRoutes - kInterfaces; ++i) {  // each address has brought one with it
    commands += "route add 172." + std::to_string(16 + i / 1000) + "." + std::to_string(i / 4 % 250) + "." +
                std::to_string(i % 4 * 64) + "/26 dev " + NameOf(i % kInterfaces) + " metric " + std::to_string(i) +
                "\n";
  }
  return RunBatch(commands);
}

ifreq RequestFor(int number) {
  ifreq request{};
  NameOf(number).copy(request.ifr_name, sizeof request.ifr_name - 1);
  return request;
}

void BareIoctl(unsigned long code, ifreq& request) {
  const int fd = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  benchmark::DoNotOptimize(::ioctl(fd, code, &request));
  ::close(fd);
}

// One dump received and thrown away; the result is the number of datagrams.
int BareDump(unsigned short type, size_t payloadSize) {
  const int fd = ::socket(AF_NETLINK, SOCK_DGRAM | SOCK_CLOEXEC, NETLINK_ROUTE);
  std::array<char, sizeof(nlmsghdr) + sizeof(ifinfomsg)> request{};
  auto* header = reinterpret_cast<nlmsghdr*>(request.data());
  header->nlmsg_len = static_cast<uint32_t>(sizeof(nlmsghdr) + payloadSize);
  header->nlmsg_type = type;
  header->nlmsg_flags = NLM_F_REQUEST | NLM_F_ROOT;
  int datagrams = 0;
  if (::send(fd, request.data(), header->nlmsg_len, 0) > 0) {
    alignas(nlmsghdr) std::array<char, 8192> buffer;
    do {
      ++datagrams;
    } while (::recv(fd, buffer.data(), buffer.size(), 0) > 0 &&
             reinterpret_cast<const nlmsghdr*>(buffer.data())->nlmsg_type != NLMSG_DONE);
  }
  ::close(fd);
  return datagrams;
}

void ListFloor(benchmark::State& state) {
  for (auto _ : state) {
    struct if_nameindex* list = ::if_nameindex();
    benchmark::DoNotOptimize(list);
    ::if_freenameindex(list);
  }
}

void List(benchmark::State& state) {
  size_t count = 0;
  for (auto _ : state)
    count = network_interface_manager().get_network_interfaces().size();
  state.counters["interfaces"] = static_cast<double>(count);
}

// Eight ioctls of each interface: flags, MTU, index, address, netmask, broadcast, hardware address, hardware type.
void PropertiesFloor(benchmark::State& state) {
  for (auto _ : state) {
    for (int i = 0; i < kInterfaces; ++i) {
      for (const int code : {SIOCGIFFLAGS, SIOCGIFMTU, SIOCGIFINDEX, SIOCGIFADDR, SIOCGIFNETMASK, SIOCGIFBRDADDR,
                             SIOCGIFHWADDR, SIOCGIFHWADDR}) {
        ifreq request = RequestFor(i);
        BareIoctl(static_cast<unsigned long>(code), request);
      }
    }
  }
}

void Properties(benchmark::State& state) {
  const std::vector<network_interface> all = network_interface_manager().get_network_interfaces();
  uint64_t sum = 0;
  for (auto _ : state) {
    for (const network_interface& interface : all) {
      if (interface.get_name() == "lo") continue;
      sum += interface.get_flags() + static_cast<uint64_t>(interface.get_mtu() + interface.get_ipv4_index()) +
             interface.get_ipv4_address() + interface.get_ipv4_netmask() + interface.get_ipv4_broadcast() +
             interface.get_ether_address() + static_cast<uint64_t>(interface.get_hardware_type());
    }
  }
  benchmark::DoNotOptimize(sum);
}

void StatisticsFloor(benchmark::State& state) {
  int datagrams = 0;
  for (auto _ : state) {
    ifreq request = RequestFor(kInterfaces - 1);
    BareIoctl(SIOCGIFINDEX, request);
    datagrams = BareDump(RTM_GETLINK, sizeof(ifinfomsg));
  }
  state.counters["datagrams"] = datagrams;
}

void Statistics(benchmark::State& state) {
  const network_interface interface(NameOf(kInterfaces - 1));
  for (auto _ : state)
    benchmark::DoNotOptimize(interface.get_network_statistics());
}

// The dump and one name for each interface that a route can name.
void RoutesFloor(benchmark::State& state) {
  int datagrams = 0;
  for (auto _ : state) {
    datagrams = BareDump(RTM_GETROUTE, sizeof(rtmsg));
    const int fd = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    for (int i = 0; i < kInterfaces; ++i) {
      ifreq request{};
      request.ifr_ifindex = 2 + i;
      benchmark::DoNotOptimize(::ioctl(fd, SIOCGIFNAME, &request));
    }
    ::close(fd);
  }
  state.counters["datagrams"] = datagrams;
}

void RoutesDumpAlone(benchmark::State& state) {
  for (auto _ : state)
    benchmark::DoNotOptimize(BareDump(RTM_GETROUTE, sizeof(rtmsg)));
}

void Routes(benchmark::State& state) {
  size_t count = 0;
  for (auto _ : state)
    count = routing_table_manager().get_ipv4_routing_entries().size();
  state.counters["routes"] = static_cast<double>(count);
}

BENCHMARK(ListFloor)->Unit(benchmark::kMicrosecond);
BENCHMARK(List)->Unit(benchmark::kMicrosecond);
BENCHMARK(PropertiesFloor)->Unit(benchmark::kMillisecond);
BENCHMARK(Properties)->Unit(benchmark::kMillisecond);
BENCHMARK(StatisticsFloor)->Unit(benchmark::kMicrosecond);
BENCHMARK(Statistics)->Unit(benchmark::kMicrosecond);
BENCHMARK(RoutesDumpAlone)->Unit(benchmark::kMillisecond);
BENCHMARK(RoutesFloor)->Unit(benchmark::kMillisecond);
BENCHMARK(Routes)->Unit(benchmark::kMillisecond);

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  ::signal(SIGPIPE, SIG_IGN);  // ip stops reading at the first command that fails
  if (!EnterNamespace()) {
    std::perror("bench_netif: no network namespace");
    return 1;
  }
  if (!(MakeInterfaces("dummy") || MakeInterfaces("bridge")) || !MakeRoutes()) {
    std::fputs("bench_netif: the ip command could not make the interfaces and routes\n", stderr);
    return 1;
  }
  benchmark::RunSpecifiedBenchmarks();
  return 0;
}
