// net host-ip: the address that stands for this machine, and why it was chosen.

#include <tuple>

#include "netif/host_ip_address.h"
#include "netif/network_interface_manager.h"
#include "ravctl/answer/json.h"
#include "ravctl/commands/net/group.h"
#include "ravctl/line/command.h"
#include "ravctl/network/links.h"
#include "ravctl/tree/enter.h"
#include "ravctl/tree/live_answers.h"

namespace ravctl {

namespace {

using libnetif::interface_hardware_type;
using libnetif::libnetif_exception;
using libnetif::network_interface;

struct HostIpOptions {
  int index = 0;
  bool onlyIPv4 = false;
  bool onlyIPv6 = false;
  bool isShort = false;
};

// The address of that version that the choice looks at, "" when there is none.
std::string AddressOf(const network_interface& interface, CHostIPAddress::ip_version version) {
  if (version == CHostIPAddress::ipv6) {
    const libnetif::ipv6_address address = interface.get_ipv6_address();
    return address == libnetif::ipv6_address{} ? "" : IPv6Text(address);
  }
  try {
    return IPv4Text(interface.get_ipv4_address());
  } catch (const libnetif_exception&) {
    return "";
  }
}

// The interfaces in the order of the choice, each with what can become of it.
void AddRows(CHostIPAddress::ip_version version, Json& rows) {
  int usable = 0;
  for (const network_interface& interface : libnetif::network_interface_manager().get_network_interfaces()) {
    const interface_hardware_type type = interface.get_hardware_type();
    const bool isEthernet = type == interface_hardware_type::ethernet;
    const std::string address = AddressOf(interface, version);
    const bool isUsable = isEthernet && !address.empty();
    std::string why = "no IPv" + std::to_string(version) + " address";
    if (!isEthernet) why = std::string("no Ethernet hardware (") + HardwareName(type) + ")";
    rows.push_back({{"version", static_cast<int>(version)},
                    {"interface", interface.get_name()},
                    {"address", address.empty() ? Json() : Json(address)},
                    {"number", isUsable ? Json(usable) : Json()},
                    {"chosen", false},
                    {"why", why}});
    usable += isUsable ? 1 : 0;
  }
}

Json ReadRows() try {
  Json rows = Json::array();
  for (const auto version : {CHostIPAddress::ipv4, CHostIPAddress::ipv6})
    AddRows(version, rows);
  return rows;
} catch (const libnetif_exception& failure) {
  throw NetworkFailure(failure);
}

// answer: what the library chose of that version; null in a captured tree, where the number tells.
void Choose(CHostIPAddress::ip_version version, int index, const std::string* answer, Json& data) {
  const char* const key = version == CHostIPAddress::ipv4 ? "ipv4" : "ipv6";
  data[key] = answer == nullptr || answer->empty() ? Json() : Json(*answer);
  for (Json& row : data["interfaces"]) {
    if (row["version"] != static_cast<int>(version) || row["number"].is_null()) continue;
    row["chosen"] = row["number"] == index && (answer == nullptr || row["address"] == *answer);
    row["why"] = "usable address number " + row["number"].dump();
    if (row["chosen"] == false) row["why"] = row["why"].get<std::string>() + ", wanted is " + std::to_string(index);
    if (row["chosen"] == true) data[key] = row["address"];
  }
}

Json Answer(int index, bool isCaptured, Json rows) {
  Json data = {{"index", index}, {"ipv4", nullptr}, {"ipv6", nullptr}, {"interfaces", std::move(rows)}};
  for (const auto version : {CHostIPAddress::ipv4, CHostIPAddress::ipv6}) {
    const std::string answer = isCaptured ? "" : CHostIPAddress::GetHostIPAddress(index, version);
    Choose(version, index, isCaptured ? nullptr : &answer, data);
  }
  return data;
}

ExitCode RunHostIp(const HostIpOptions& options, Output& out) {
  const bool isCaptured = IsInSysroot();
  Json data = Answer(options.index, isCaptured,
                     isCaptured ? std::move(CapturedAnswer(kNetHostIp, out)["interfaces"]) : ReadRows());
  std::string addresses;
  Table table(kNetHostIp);
  for (const auto& [key, version, isLeftOut] :
       {std::tuple{"ipv4", 4, options.onlyIPv6}, {"ipv6", 6, options.onlyIPv4}}) {
    if (isLeftOut) data[key] = nullptr;
    if (!data[key].is_null()) addresses += data[key].get<std::string>() + '\n';
    for (const Json& row : data["interfaces"]) {
      if (!isLeftOut && row["version"] == version) table.Add(row);
    }
  }
  data["interfaces"] = table.ToJson();
  if (options.isShort) {
    out.Print(kNetHostIp, addresses, data);
  } else {
    out.Print(kNetHostIp, table, data);
  }
  return addresses.empty() ? ExitCode::kNothingOrDifferent : ExitCode::kDone;
}

}  // namespace

Json ReadNetHostIp() {
  return Answer(0, false, ReadRows());
}

void AddNetHostIp(Command& net) {
  auto options = std::make_shared<HostIpOptions>();
  Command& hostIp =
      net.Add({"host-ip",
               "Show which addresses stand for this machine, and why these",
               {{"ravctl net host-ip", "the interfaces in the order of the choice, and what became of each"},
                {"ravctl net host-ip -4 --short", "the IPv4 address alone, for a script; status 1 without one"}}},
              [options](Output& out) { return RunHostIp(*options, out); });
  hostIp.Answers({&kNetHostIp});
  hostIp.AddOption("--index", &options->index, "N", "Which of the usable addresses, from 0 (usually 0)", NotNegative());
  hostIp.AddFlag("-4,--ipv4", &options->onlyIPv4, "Only IPv4");
  hostIp.AddFlag("-6,--ipv6", &options->onlyIPv6, "Only IPv6").excludes = "--ipv4";
  hostIp.AddFlag("-s,--short", &options->isShort, "Only the chosen addresses, one a line");
}

}  // namespace ravctl
