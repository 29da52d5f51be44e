#pragma once

#include <sys/types.h>

#include <functional>

#include "netif/interface_change.h"
#include "netif/network_interface.h"
#include "platform/export.h"

namespace libnetif {

// What a listener calls: with the interface that changed, which is the callback's own.
using network_interface_change_callback = std::function<void(network_interface)>;

// Starts a process that calls the callback with the interface for each change of the wanted types, and returns its
// process ID at once. No change after the return is missed. Failures here: libnetif_exception from the socket, with the
// name "interface change entry", or "Can't fork listining process.".
//
// The callback runs in the listener process. That is a copy of the caller with its open descriptors and memory, but
// with the calling thread alone: what other threads were doing stays half done there, and the locks that they held stay
// held. So the callback keeps to system calls, allocation and descriptors, neither traces nor takes locks of the
// caller, and tells its news through a pipe, a socket or a file. An exception that it throws is dropped.
//
// The listener ends
// - with status 0 on SIGHUP, which the kernel sends when the parent dies: strictly, when the thread that made this call
//   ends. The signal is unblocked in the listener whatever the caller's mask; every other signal is as the caller has
//   it.
// - with status 1, after a line on the standard error, when it cannot go on: "Can't catch parent signals.",
//   "Can't add signal handler.", a failure of its socket.
// It ends without flushing streams or destroying objects, because these are the caller's. The caller stops it with
// SIGHUP and waits for it.
//
// An interface that is gone when its change is read has the name that the message gives; with no name there either, the
// change is passed over. When changes come faster than the callback returns and the kernel has dropped some, the
// callback is called once for every interface that there is.
RAVD_EXPORT pid_t start_interface_change_listener(interface_change_event_type type,
                                                  const network_interface_change_callback& callback);

}  // namespace libnetif
