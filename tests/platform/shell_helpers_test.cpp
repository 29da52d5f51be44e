#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <syslog.h>
#include <unistd.h>

#include <csignal>
#include <cstdarg>
#include <thread>

#include "platform/shell_command_interface.h"
#include "platform/sys_log_traces.h"
#include "platform/unique_fd.h"
#include "support/fixture_root.h"

TEST(ShellCommand, OutputComesLineByLineWithinTheRoom) {
  const FixtureRoot root;
  root.Run(
      [] {
        CShellCommandInterface shell;
        EXPECT_FALSE(shell.GetResponse(0));
        EXPECT_EQ(shell.GetLastErrorStr(), "NoInputStream");
        EXPECT_TRUE(shell.CreateCommandStr("printf"));
        EXPECT_FALSE(shell.CreateCommandStr(""));
        EXPECT_FALSE(shell.ExpandCommandStr("", true));
        EXPECT_EQ(shell.lastError, 2);
        EXPECT_TRUE(shell.ExpandCommandStr("'abcdef\\n\\na\\0b\\n%0300d", true));
        EXPECT_TRUE(shell.ExpandCommandStr("' 7", false));
        EXPECT_EQ(shell.command, "printf 'abcdef\\n\\na\\0b\\n%0300d' 7");
        for (int run = 0; run < 2; ++run) {
          EXPECT_TRUE(shell.SendCommand());  // the second run replaces a pipe that is still open
          EXPECT_TRUE(shell.GetResponse(5));
          EXPECT_EQ(shell.response, "abcd");
          EXPECT_TRUE(shell.GetResponse(5));
          EXPECT_EQ(shell.response, "ef\n");
        }
        EXPECT_FALSE(shell.GetResponse(1));
        EXPECT_TRUE(shell.GetResponse(0));
        EXPECT_EQ(shell.response, "\n");
        EXPECT_TRUE(shell.GetResponse(0));
        EXPECT_EQ(shell.response, std::string("a\0b\n", 4));
        EXPECT_TRUE(shell.GetResponse(0));
        EXPECT_EQ(shell.response, std::string(255, '0'));
        EXPECT_TRUE(shell.GetResponse(0xFFFFFFFF));
        EXPECT_EQ(shell.response, std::string(44, '0') + "7");
        EXPECT_FALSE(shell.GetResponse(0));
        EXPECT_EQ(shell.response, "");
        EXPECT_TRUE(shell.CloseStream());
        EXPECT_TRUE(shell.CloseStream());
      },
      FixtureRoot::kUsr);
}

TEST(ShellCommand, FailuresSetTheirCodes) {
  CShellCommandInterface shell;
  const char* const texts[] = {
      "NoError",       "NoResponse",          "CreateCommandFailed", "SendCommandFailed",    "NoInputStream",
      "ResponseEmpty", "ResponseNotParsable", "ResponseNotMatching", "CommandParamsInvalid", "CloseStreamFailed",
      "UnknownError"};
  for (uint16_t code = 0; code < std::size(texts); ++code) {
    shell.lastError = code;
    EXPECT_EQ(shell.GetLastErrorStr(), texts[code]);
  }
  const FixtureRoot root;
  root.Run(
      [&] {
        shell.CreateCommandStr("exit 3");
        EXPECT_TRUE(shell.SendCommand());
        EXPECT_TRUE(shell.CloseStream());
        ::signal(SIGCHLD, SIG_IGN);  // nobody can wait for the command now
        EXPECT_TRUE(shell.SendCommand());
        EXPECT_FALSE(shell.CloseStream());
        EXPECT_EQ(shell.lastError, 9);
        const rlimit none{0, 0};
        ::setrlimit(RLIMIT_NOFILE, &none);
        EXPECT_FALSE(shell.SendCommand());
        EXPECT_EQ(shell.GetLastErrorStr(), "SendCommandFailed");
      },
      FixtureRoot::kUsr);
}

namespace {

void LogFormatted(const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  SysLogTraces::getConnection().logMessageVaList(format, arguments);
  va_end(arguments);
}

// The system log's end of the socket.
class LogSocket {
 public:
  LogSocket() : m_Socket(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0)) {
    const sockaddr_un address{AF_UNIX, "/dev/log"};
    EXPECT_EQ(::bind(m_Socket.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
  }

  // "<priority>" and what follows the time; "" when nothing came.
  std::string Receive() const {
    char text[4096];
    const ssize_t length = ::recv(m_Socket.Get(), text, sizeof text, 0);
    const std::string line(text, length < 0 ? 0 : static_cast<size_t>(length));
    return line.empty() ? line : line.substr(0, line.find('>') + 1) + line.substr(line.find('>') + 17);
  }

 private:
  UniqueFd m_Socket;
};

}  // namespace

TEST(SysLog, MessagesAreLoggedLiterally) {
  const FixtureRoot root;
  root.MakeDirectory("/dev");
  root.Run([] {
    const LogSocket log;
    SysLogTraces* seen[4] = {};
    {
      std::vector<std::jthread> threads;
      for (SysLogTraces*& instance : seen) {
        threads.emplace_back([&instance] { instance = &SysLogTraces::getConnection(); });
      }
    }
    SysLogTraces& connection = SysLogTraces::getConnection();
    for (const SysLogTraces* instance : seen) {
      EXPECT_EQ(instance, &connection);
    }
    const std::string head = std::string(connection.getProcName()) + "[" + std::to_string(::getpid()) + "]: ";
    connection.logMessage("100 %s\t%n", LOG_ERR);
    EXPECT_EQ(log.Receive(), "<139>" + head + "100 %s\t%n");
    connection.logMessage(nullptr, LOG_ERR);
    LogFormatted(nullptr);
    EXPECT_EQ(log.Receive(), "");
    LogFormatted("\n\n%s-%d", "%s\n", 7);
    EXPECT_EQ(log.Receive(), "<142>" + head + "%s\n-7");
    LogFormatted("\n\n");
    EXPECT_EQ(log.Receive(), "<142>" + head + "\n\n");
    LogFormatted("%s", std::string(3000, 'x').c_str());
    EXPECT_EQ(log.Receive(), "<142>" + head + std::string(1023, 'x'));
    LogFormatted("%ls", L"\x20ac");  // no such character in the C locale
    EXPECT_EQ(log.Receive(), "<142>" + head + "ERROR: cann't format message");
  });
}
