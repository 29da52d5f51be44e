// net host-ip: the address that stands for this machine, and why it was chosen.

#include "netif/host_ip_address.h"
#include "netif/network_interface_manager.h"
#include "ravctl/answer/json.h"
#include "ravctl/commands/net/group.h"
#include "ravctl/line/command.h"
#include "ravctl/network/links.h"

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

// The interfaces in the order of the choice, each with what the choice makes of it. answer is what the library chose.
void AddRows(CHostIPAddress::ip_version version, int index, const std::string& answer, Table& table) {
  int usable = 0;
  for (const network_interface& interface : libnetif::network_interface_manager().get_network_interfaces()) {
    const interface_hardware_type type = interface.get_hardware_type();
    const bool isEthernet = type == interface_hardware_type::ethernet;
    const std::string address = AddressOf(interface, version);
    const bool isUsable = isEthernet && !address.empty();
    const bool isChosen = isUsable && usable == index && address == answer;
    std::string why = "no IPv" + std::to_string(version) + " address";
    if (!isEthernet) why = std::string("no Ethernet hardware (") + HardwareName(type) + ")";
    if (isUsable) why = "usable address number " + std::to_string(usable);
    if (isUsable && !isChosen) why += ", wanted is " + std::to_string(index);
    table.Add({{"version", static_cast<int>(version)},
               {"interface", interface.get_name()},
               {"address", address.empty() ? Json() : Json(address)},
               {"number", isUsable ? Json(usable) : Json()},
               {"chosen", isChosen},
               {"why", why}});
    usable += isUsable ? 1 : 0;
  }
}

ExitCode RunHostIp(const HostIpOptions& options, Output& out) {
  Table table(kNetHostIp);
  Json data = {{"index", options.index}, {"ipv4", nullptr}, {"ipv6", nullptr}};
  std::string addresses;
  for (const auto version : {CHostIPAddress::ipv4, CHostIPAddress::ipv6}) {
    if (version == CHostIPAddress::ipv4 ? options.onlyIPv6 : options.onlyIPv4) continue;
    const std::string answer = CHostIPAddress::GetHostIPAddress(options.index, version);
    if (!answer.empty()) data[version == CHostIPAddress::ipv4 ? "ipv4" : "ipv6"] = answer;
    if (!answer.empty()) addresses += answer + '\n';
    try {
      AddRows(version, options.index, answer, table);
    } catch (const libnetif_exception& failure) {
      throw NetworkFailure(failure);
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

void AddNetHostIp(Command& net) {
  auto options = std::make_shared<HostIpOptions>();
  Command& hostIp =
      net.Add({"host-ip",
               "Show which addresses stand for this machine, and why these",
               {{"ravctl net host-ip", "the interfaces in the order of the choice, and what became of each"},
                {"ravctl net host-ip -4 --short", "the IPv4 address alone, for a script; status 1 without one"}},
               Effect::kChanges},
              [options](Output& out) { return RunHostIp(*options, out); });
  hostIp.Answers({&kNetHostIp});
  hostIp.AddOption("--index", &options->index, "N", "Which of the usable addresses, from 0 (usually 0)", NotNegative());
  hostIp.AddFlag("-4,--ipv4", &options->onlyIPv4, "Only IPv4");
  hostIp.AddFlag("-6,--ipv6", &options->onlyIPv6, "Only IPv6").excludes = "--ipv4";
  hostIp.AddFlag("-s,--short", &options->isShort, "Only the chosen addresses, one a line");
}

}  // namespace ravctl
