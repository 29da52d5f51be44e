#include "netif/libnetif_socket.h"
#include "netif/private_network.h"

using namespace libnetif;

namespace {

const sockaddr_nl kAddress{AF_NETLINK, 0, 4711, 0};

template <typename T>
std::string Bytes(const T& value) {
  return {reinterpret_cast<const char*>(&value), sizeof value};
}

// With the length of the message in its header, or the given one.
std::string Message(uint16_t type, const std::string& payload = "", uint32_t length = 0) {
  const auto own = static_cast<uint32_t>(sizeof(nlmsghdr) + payload.size());
  const nlmsghdr header{length != 0 ? length : own, type, 0, 0, 0};
  return (Bytes(header) + payload).append((4 - own % 4) % 4, '\0');
}

void CollectType(const netlink_message& message, void* context) {
  static_cast<std::vector<int>*>(context)->push_back(message.type);
}

void Send(const std::string& datagram) {
  libnetif_socket sender;
  sender.create_netlink_socket();
  const auto* to = reinterpret_cast<const sockaddr*>(&kAddress);
  EXPECT_GT(::sendto(sender.descriptor(), datagram.data(), datagram.size(), 0, to, sizeof kAddress), 0);
}

}  // namespace

using Netlink = PrivateNetwork;

TEST_F(Netlink, DatagramsAreReceivedUntilDone) {
  const std::string link = Message(16, "link"), route = Message(24, "odd"), done = Message(NLMSG_DONE, Bytes(0));
  // Datagrams, the types of the messages that reach the handler, and the error.
  const std::vector<std::tuple<std::vector<std::string>, std::vector<int>, std::string>> receptions = {
      {{route + link, done}, {24, 16}, ""},
      {{link + Message(NLMSG_NOOP) + done + route}, {16, 24}, ""},
      {{"x", "shorter", Message(16, "", 15), Message(16, "1234", 21), link + done}, {16}, ""},
      {{Message(24, std::string(9000, 'x')) + link, done}, {24, 16}, ""},  // larger than the first buffer
      {{route + Message(16, "", 8) + link, done}, {24}, ""},
      {{route + Message(16, "1234", UINT32_MAX), done}, {24}, ""},
      {{Message(NLMSG_ERROR, Bytes(-EPERM)), done}, {}, "Operation not permitted"},
      {{link + done + Message(NLMSG_ERROR, Bytes(-ENOBUFS)) + link}, {16}, "No buffer space available"},
      {{Message(NLMSG_ERROR, "ab")}, {}, "Bad message"},
  };
  Run([&] {
    for (const auto& [datagrams, types, text] : receptions) {
      libnetif_socket socket;
      socket.create_netlink_socket();
      socket.bind_netlink_socket(kAddress, "test");
      for (const std::string& datagram : datagrams)
        Send(datagram);
      std::vector<int> found;
      EXPECT_EQ(FailureOf([&] { socket.receive_netlink_message(CollectType, &found, "test"); }),
                text.empty() ? "" : "Received test reports error.\nError message: " + text);
      EXPECT_EQ(found, types);
      EXPECT_EQ(socket.descriptor() == 0, !text.empty());
    }
  });
}

TEST_F(Netlink, FailedCallsCloseTheSocketAndInterruptedOnesGoOn) {
  Run([] {
    libnetif_socket owner, socket;
    owner.create_netlink_socket();
    owner.bind_netlink_socket(kAddress, "test");
    socket.create_netlink_socket();
    EXPECT_EQ(FailureOf([&] { socket.bind_netlink_socket(kAddress, "test"); }),
              "Binding for test failed.\nError message: Address already in use");
    EXPECT_EQ(socket.descriptor(), 0);
    EXPECT_EQ(FailureOf([&] { socket.receive_netlink_message(CollectType, nullptr, "test"); }),
              "Receiving test failed.\nError message: Bad file descriptor");

    struct sigaction action {};  // without SA_RESTART
    action.sa_handler = [](int) {};
    ::sigaction(SIGUSR1, &action, nullptr);
    const std::jthread interrupter([receiver = ::pthread_self()] {
      for (int i = 0; i < 5; ++i, ::usleep(20000))
        ::pthread_kill(receiver, SIGUSR1);
      Send(Message(NLMSG_DONE));
    });
    EXPECT_EQ(FailureOf([&] { owner.receive_netlink_message(CollectType, nullptr, "test"); }), "");
  });
}
