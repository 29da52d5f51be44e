#pragma once

#include <memory>
#include <mutex>
#include <string>

#include "platform/unique_fd.h"

struct MHD_Daemon;
struct MHD_Response;
struct MHD_Connection;

// Serves one page over HTTP: GET and HEAD of /metrics, anything else is refused. One thread of its own. Whoever scrapes
// costs a copy to a socket: the page is made by who publishes it.
//
// At most kMaxConnections clients at once, and half of the descriptors that the process may open, each with
// kConnectionMemory bytes for what it sends and kTimeoutSeconds of silence. The number is high on purpose: with a low
// one a few clients that never finish shut out the good one.
class HttpServer {
 public:
  static constexpr unsigned int kMaxConnections = 1100;
  static constexpr size_t kConnectionMemory = 4096;
  static constexpr unsigned int kTimeoutSeconds = 5;

  HttpServer();
  // Ends the thread and all connections, within a few milliseconds.
  ~HttpServer();
  HttpServer(const HttpServer&) = delete;
  HttpServer& operator=(const HttpServer&) = delete;

  // where: "127.0.0.1:9469", "[::1]:9469" (port 0: the system chooses) or "unix:/run/ravd-metrics.sock", whose mode is
  // 0660 and which replaces a socket of that name that nobody serves. Only with isRemoteAllowed an address that is not
  // of this machine alone. False with the reason in error.
  bool Start(const std::string& where, bool isRemoteAllowed, std::string& error);
  // As Start was told, with the port that it became.
  const std::string& Where() const { return m_Where; }

  // Any thread. What is being sent goes on with the page that it began.
  void Publish(const std::string& page);

  // The library's callback for a request.
  int Answer(MHD_Connection* connection, const char* url, const char* method);

 private:
  UniqueFd Listen(const std::string& where, bool isRemoteAllowed, std::string& error);
  UniqueFd ListenUnix(const std::string& path, std::string& error);

  std::string m_Where;
  std::string m_SocketFile;  // to be removed; "" without one
  MHD_Daemon* m_Daemon = nullptr;
  std::mutex m_Mutex;
  MHD_Response* m_Page = nullptr;  // guarded by m_Mutex; a request takes a reference
};
