#include "ravctl/commands/net/group.h"

#include "ravctl/line/command.h"

namespace ravctl {

void RegisterNet(CLI::App& root) {
  CLI::App& net = AddGroup(root, "net", "Network interfaces, their traffic, changes and routes");
  AddNetList(net);
  AddNetShow(net);
  AddNetRoutes(net);
  AddNetWatch(net);
  AddNetHostIp(net);
}

}  // namespace ravctl
