#pragma once

#include "ravctl/line/command.h"

namespace ravctl {

// ravctl ini ...
void AddIniGet(Command& ini);
void AddIniSet(Command& ini);
void AddIniDel(Command& ini);
void AddIniSections(Command& ini);
void AddIniCheck(Command& ini);

// What they answer.
extern const Schema kIniGet, kIniChange, kIniSections, kIniKeys, kIniCheck;

}  // namespace ravctl
