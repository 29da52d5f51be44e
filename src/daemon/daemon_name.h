#pragma once

// The name that stands before "-MAIN" in every message of the daemon host.
inline constexpr const char* kDaemonName = "RAVD";
