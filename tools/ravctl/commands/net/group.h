#pragma once

#include "ravctl/line/command.h"

namespace ravctl {

// ravctl net ...
void AddNetList(Command& net);
void AddNetRoutes(Command& net);
void AddNetHostIp(Command& net);

// What they answer.
extern const Schema kNetList, kNetRoutes, kNetHostIp;

// The whole answers of the running machine, for a bundle. Throw CommandError.
Json ReadNetList();
Json ReadNetRoutes();
Json ReadNetHostIp();

}  // namespace ravctl
