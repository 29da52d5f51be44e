#pragma once

#include <string>

// Tells the service manager that started the daemon that it is ready: one datagram "READY=1" to the socket that the
// environment names in NOTIFY_SOCKET, a path or, behind an "@", an abstract name. Without that variable, or when it
// names anything else, nothing happens.
//
// Failures are nobody's business but the service manager's, which then waits in vain: nothing is traced. Waits at most
// five seconds for room in a full socket. Main thread, once, when the start is complete.
void NotifyReady(const std::string& socket);

// What the environment names, "" when it names none: to be asked before a module can change the environment.
std::string NotifySocket();
