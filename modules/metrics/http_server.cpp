#include "metrics/http_server.h"

#include <arpa/inet.h>
#include <microhttpd.h>
#include <netdb.h>
#include <netinet/in.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

namespace {

constexpr const char* kPath = "/metrics";
constexpr const char* kContentType = "text/plain; version=0.0.4; charset=utf-8";
constexpr int kBacklog = 1024;

using AddressList = std::unique_ptr<addrinfo, void (*)(addrinfo*)>;

MHD_Response* MakeResponse(const std::string& text, const char* type) {
  MHD_Response* response =
      MHD_create_response_from_buffer(text.size(), const_cast<char*>(text.data()), MHD_RESPMEM_MUST_COPY);
  if (response != nullptr) MHD_add_response_header(response, MHD_HTTP_HEADER_CONTENT_TYPE, type);
  return response;
}

MHD_Result AnswerRequest(void* server, MHD_Connection* connection, const char* url, const char* method, const char*,
                         const char*, size_t*, void**) {
  return static_cast<MHD_Result>(static_cast<HttpServer*>(server)->Answer(connection, url, method));
}

// The library says nothing on the daemon's standard error.
void Drop(void*, const char*, va_list) {}

// "[::1]:9469" => "::1" and "9469"
bool SplitAddress(const std::string& where, std::string& host, std::string& port) {
  const size_t colon = where.rfind(':');
  if (colon == std::string::npos || colon == 0) return false;
  host = where.substr(0, colon);
  port = where.substr(colon + 1);
  if (host.front() == '[' && host.back() == ']') host = host.substr(1, host.size() - 2);
  return !host.empty() && !port.empty();
}

bool IsLoopback(const sockaddr* address) {
  if (address->sa_family == AF_INET)
    return ntohl(reinterpret_cast<const sockaddr_in*>(address)->sin_addr.s_addr) >> 24 == IN_LOOPBACKNET;
  return address->sa_family == AF_INET6 &&
         IN6_IS_ADDR_LOOPBACK(&reinterpret_cast<const sockaddr_in6*>(address)->sin6_addr);
}

std::string Reason(const char* what) {
  return std::string(what) + ": " + std::strerror(errno);
}

// Half of the descriptors that the process may open, where that is less: the daemon and the other modules need some.
unsigned int ConnectionLimit() {
  rlimit limit{};
  if (::getrlimit(RLIMIT_NOFILE, &limit) != 0) return 100;
  return static_cast<unsigned int>(std::min<rlim_t>(limit.rlim_cur / 2, HttpServer::kMaxConnections));
}

uint16_t PortOf(int socket) {
  sockaddr_in6 address{};
  socklen_t length = sizeof address;
  if (::getsockname(socket, reinterpret_cast<sockaddr*>(&address), &length) != 0) return 0;
  return ntohs(address.sin6_port);  // at the place where the other family has it
}

}  // namespace

HttpServer::HttpServer() : m_Page(MakeResponse("", kContentType)) {}

HttpServer::~HttpServer() {
  if (m_Daemon != nullptr) MHD_stop_daemon(m_Daemon);
  if (m_Page != nullptr) MHD_destroy_response(m_Page);
  if (!m_SocketFile.empty()) ::unlink(m_SocketFile.c_str());
}

bool HttpServer::Start(const std::string& where, bool isRemoteAllowed, std::string& error) {
  UniqueFd socket = Listen(where, isRemoteAllowed, error);
  if (!socket) return false;
  m_Daemon = MHD_start_daemon(MHD_USE_EPOLL_INTERNAL_THREAD | MHD_USE_ERROR_LOG, 0, nullptr, nullptr, &AnswerRequest,
                              this, MHD_OPTION_EXTERNAL_LOGGER, &Drop, nullptr, MHD_OPTION_LISTEN_SOCKET, socket.Get(),
                              MHD_OPTION_CONNECTION_LIMIT, ConnectionLimit(), MHD_OPTION_CONNECTION_TIMEOUT,
                              kTimeoutSeconds, MHD_OPTION_CONNECTION_MEMORY_LIMIT, kConnectionMemory, MHD_OPTION_END);
  if (m_Daemon == nullptr) {
    error = "the server does not start";
    return false;
  }
  socket.Release();  // the server's now
  return true;
}

UniqueFd HttpServer::Listen(const std::string& where, bool isRemoteAllowed, std::string& error) {
  if (where.starts_with("unix:")) return ListenUnix(where.substr(5), error);
  std::string host, port;
  addrinfo hints{};
  hints.ai_flags = AI_NUMERICHOST | AI_NUMERICSERV | AI_PASSIVE;
  hints.ai_socktype = SOCK_STREAM;
  addrinfo* found = nullptr;
  if (!SplitAddress(where, host, port) || ::getaddrinfo(host.c_str(), port.c_str(), &hints, &found) != 0) {
    error = "that is no address and port";
    return UniqueFd();
  }
  const AddressList list(found, ::freeaddrinfo);
  if (!isRemoteAllowed && !IsLoopback(found->ai_addr)) {
    error = "others reach that address, which has to be allowed";
    return UniqueFd();
  }
  UniqueFd socket(::socket(found->ai_family, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  const int on = 1;
  ::setsockopt(socket.Get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
  if (!socket || ::bind(socket.Get(), found->ai_addr, found->ai_addrlen) != 0 ||
      ::listen(socket.Get(), kBacklog) != 0) {
    error = Reason("the address cannot be taken");
    return UniqueFd();
  }
  m_Where = where.substr(0, where.rfind(':') + 1) + std::to_string(PortOf(socket.Get()));
  return socket;
}

UniqueFd HttpServer::ListenUnix(const std::string& path, std::string& error) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (path.empty() || path[0] != '/' || path.size() >= sizeof address.sun_path) {
    error = "that is no path for a socket";
    return UniqueFd();
  }
  path.copy(address.sun_path, path.size());
  const auto* where = reinterpret_cast<const sockaddr*>(&address);
  UniqueFd socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  struct stat file {};
  if (::lstat(path.c_str(), &file) == 0 && S_ISSOCK(file.st_mode)) {
    const UniqueFd client(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (::connect(client.Get(), where, sizeof address) != 0 && errno == ECONNREFUSED) ::unlink(path.c_str());
  }
  if (!socket || ::bind(socket.Get(), where, sizeof address) != 0) {
    error = Reason("the socket cannot be made");
    return UniqueFd();
  }
  m_SocketFile = path;
  if (::chmod(path.c_str(), 0660) != 0 || ::listen(socket.Get(), kBacklog) != 0) {
    error = Reason("the socket cannot be opened");
    return UniqueFd();
  }
  m_Where = "unix:" + path;
  return socket;
}

void HttpServer::Publish(const std::string& page) {
  MHD_Response* response = MakeResponse(page, kContentType);
  if (response == nullptr) return;  // the last page is better than none
  const std::lock_guard<std::mutex> lock(m_Mutex);
  std::swap(m_Page, response);
  if (response != nullptr) MHD_destroy_response(response);
}

// An answer at the first call, before a body could come, closes the connection afterwards. That is as wanted: it would
// not last until the next scrape.
int HttpServer::Answer(MHD_Connection* connection, const char* url, const char* method) {
  const bool isReading =
      std::strcmp(method, MHD_HTTP_METHOD_GET) == 0 || std::strcmp(method, MHD_HTTP_METHOD_HEAD) == 0;
  if (isReading && std::strcmp(url, kPath) == 0) {
    const std::lock_guard<std::mutex> lock(m_Mutex);
    return m_Page != nullptr ? MHD_queue_response(connection, MHD_HTTP_OK, m_Page) : MHD_NO;
  }
  MHD_Response* refusal = MakeResponse("The page is /metrics.\n", "text/plain");
  if (refusal == nullptr) return MHD_NO;
  if (!isReading) MHD_add_response_header(refusal, MHD_HTTP_HEADER_ALLOW, "GET, HEAD");
  MHD_add_response_header(refusal, MHD_HTTP_HEADER_CONNECTION, "close");
  const MHD_Result result =
      MHD_queue_response(connection, isReading ? MHD_HTTP_NOT_FOUND : MHD_HTTP_METHOD_NOT_ALLOWED, refusal);
  MHD_destroy_response(refusal);
  return result;
}
