#pragma once

struct CSwitchApi;

// Warns, one line for each, of the directories whose content the daemon runs or believes, and of the module switch
// itself, where others than root could write to them. The start goes on.
void WarnOfWritablePaths(const CSwitchApi& switchApi);
