#pragma once

inline constexpr int kRunLevelHalt = 0;
inline constexpr int kRunLevelReboot = 6;

// Finds out whether the operating system is going down: 0 when it halts, 6 when it reboots, any other value (5 for a
// plain stop of the daemon, -1 for unknown) when it keeps running.
//
// With systemd, and on the releases that the remembered QN_NICKNAME names, the service scripts leave the run level in a
// file; a missing file is waited for, three tries a second apart. Older systems are asked through the login records and
// /sbin/runlevel. Main thread only.
int DetermineRunLevel();

// Remembers QN_NICKNAME: to be called before a module can change the environment.
void RememberRelease();
