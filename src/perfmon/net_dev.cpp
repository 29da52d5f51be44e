#include "perfmon/net_dev.h"

#include <linux/ethtool.h>
#include <linux/sockios.h>
#include <net/if.h>
#include <sys/ioctl.h>

#include <algorithm>

namespace {

// What is sampled. Fewer names than CNetworkInterfaceTable counts.
constexpr auto kSampledPrefixes =
    std::to_array<std::string_view>({"eth", "bond", "sha", "vswif", "br", "xenbr", "en", "mic"});

constexpr size_t kReceivedBytes = 0;
constexpr size_t kSentBytes = 8;
constexpr unsigned int kSpeedShift = 17;  // Mb/s to bytes per second: times 2^20, by 8
constexpr uint64_t kMsPerSecond = 1000;

uint64_t CountedSince(uint64_t previous, uint64_t current) {
  if (current >= previous) return current - previous;
  return previous <= UINT32_MAX ? (uint64_t{1} << 32) - previous + current : 0;
}

uint64_t PerSecond(uint64_t count, uint64_t intervalMs) {
  return Saturate(uint128{count} * kMsPerSecond / intervalMs);
}

}  // namespace

bool TakeSampledInterface(std::string_view& text, NetDevLine& line) {
  while (!text.empty()) {
    const std::string_view whole = text.substr(0, text.find('\n'));
    text.remove_prefix(std::min(whole.size() + 1, text.size()));
    const size_t colon = whole.find(':');
    if (colon == std::string_view::npos) continue;
    std::string_view name = whole.substr(0, colon);
    name.remove_prefix(std::min(name.find_first_not_of(" \t"), name.size()));
    if (!StartsWithOneOf(name, kSampledPrefixes)) continue;
    line = {name, whole.substr(colon + 1)};
    return true;
  }
  return false;
}

uint64_t ReadLinkSpeed(int socket, std::string_view name) {
  ethtool_cmd command{};
  command.cmd = ETHTOOL_GSET;
  ifreq request{};
  if (name.size() >= sizeof(request.ifr_name)) return kUnknownSpeed;
  std::ranges::copy(name, request.ifr_name);
  request.ifr_data = reinterpret_cast<char*>(&command);
  if (::ioctl(socket, SIOCETHTOOL, &request) != 0) return kUnknownSpeed;
  const uint32_t megabits = ethtool_cmd_speed(&command);
  // A driver whose link is down or has no speed answers with all-ones.
  return megabits == UINT32_MAX ? kUnknownSpeed : uint64_t{megabits} << kSpeedShift;
}

bool MakeNetworkRecord(const NetInterfaceState& previous, uint64_t nowMs, const NetCounters& counters, uint64_t speed,
                       _PerfDataNetwork& record) {
  if (previous.sampleTimeMs == 0 || nowMs <= previous.sampleTimeMs) return false;
  const uint64_t intervalMs = nowMs - previous.sampleTimeMs;
  const uint64_t capacity = Saturate(uint128{intervalMs} * speed / kMsPerSecond);
  if (capacity == 0) return false;
  record = {speed, capacity,
            PerSecond(CountedSince(previous.counters[kReceivedBytes], counters[kReceivedBytes]), intervalMs),
            PerSecond(CountedSince(previous.counters[kSentBytes], counters[kSentBytes]), intervalMs)};
  return true;
}
