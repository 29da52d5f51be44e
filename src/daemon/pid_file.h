#pragma once

// The file that tells administrators the PID of the running daemon. A failure is traced and told to syslog; the daemon
// goes on without the file.
void WritePidFile();
void RemovePidFile();
