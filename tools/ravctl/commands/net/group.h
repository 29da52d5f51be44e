#pragma once

#include "ravctl/line/command.h"

namespace ravctl {

// ravctl net ...
void AddNetList(Command& net);
void AddNetRoutes(Command& net);
void AddNetHostIp(Command& net);

// What they answer.
extern const Schema kNetList, kNetRoutes, kNetHostIp;

}  // namespace ravctl
