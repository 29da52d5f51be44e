#include <sys/socket.h>
#include <sys/un.h>
#include <syslog.h>

#include <cstdarg>

#include "platform/shell_command_interface.h"
#include "platform/sys_log_traces.h"
#include "platform/unique_fd.h"
#include "support/fixture_root.h"

using ShellCommand = RootedTest;

TEST_F(ShellCommand, OutputComesLineByLineWithinTheRoom) {
  root.Run(FixtureRoot::kUsr, [] {
    CShellCommandInterface shell;
    EXPECT_FALSE(shell.GetResponse(0));
    EXPECT_EQ(shell.GetLastErrorStr(), "NoInputStream");
    EXPECT_TRUE(shell.CreateCommandStr("printf"));
    EXPECT_FALSE(shell.CreateCommandStr("") || shell.ExpandCommandStr("", true));
    EXPECT_EQ(shell.GetLastErrorStr(), "CreateCommandFailed");
    EXPECT_TRUE(shell.ExpandCommandStr("'abcdef\\n\\na\\0b\\n%0300d", true));
    EXPECT_TRUE(shell.ExpandCommandStr("' 7; exit 3", false));
    EXPECT_TRUE(shell.SendCommand());
    EXPECT_TRUE(shell.SendCommand());  // replaces a pipe that is still open
    const std::pair<unsigned int, std::string> rows[] = {{5, "abcd"},
                                                         {5, "ef\n"},
                                                         {1, ""},
                                                         {0, "\n"},
                                                         {0, std::string("a\0b\n", 4)},
                                                         {0, std::string(255, '0')},
                                                         {~0U, std::string(44, '0') + "7"},
                                                         {0, ""}};
    for (const auto& [length, expected] : rows) {
      EXPECT_EQ(shell.GetResponse(length), !expected.empty());
      EXPECT_EQ(shell.response, expected);
    }
    EXPECT_TRUE(shell.CloseStream() && shell.CloseStream());
    ::signal(SIGCHLD, SIG_IGN);  // nobody can wait for a command now
    EXPECT_TRUE(shell.SendCommand());
    EXPECT_FALSE(shell.CloseStream());
    EXPECT_EQ(shell.GetLastErrorStr(), "CloseStreamFailed");
    ::signal(SIGCHLD, SIG_DFL);
  });
}

namespace {

void LogFormatted(const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  SysLogTraces::getConnection().logMessageVaList(format, arguments);
  va_end(arguments);
}

}  // namespace

using SysLog = RootedTest;

TEST_F(SysLog, MessagesAreLoggedLiterally) {
  root.MakeDirectory("/dev");
  root.Run([] {
    const UniqueFd log(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    const sockaddr_un address{AF_UNIX, "/dev/log"};
    ASSERT_EQ(::bind(log.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
    SysLogTraces& connection = SysLogTraces::getConnection();
    const std::string head = std::string(connection.getProcName()) + "[" + std::to_string(::getpid()) + "]: ";
    const auto expectLogged = [&](const std::string& priority, const std::string& message) {
      char text[4096];
      const ssize_t length = ::recv(log.Get(), text, sizeof text, 0);
      const std::string line(text, length < 0 ? 0 : static_cast<size_t>(length));
      EXPECT_EQ(line.substr(0, 5), priority);
      EXPECT_EQ(line.substr(std::min<size_t>(line.size(), 5 + 16)), head + message);  // behind the time
    };
    connection.logMessage(nullptr, LOG_ERR);
    LogFormatted(nullptr);
    connection.logMessage("100 %s\t%n", LOG_ERR);
    expectLogged("<139>", "100 %s\t%n");
    LogFormatted("\n\n%s-%d", "%s\n", 7);
    expectLogged("<142>", "%s\n-7");
    LogFormatted("\n\n");
    expectLogged("<142>", "\n\n");
    LogFormatted("%s", std::string(3000, 'x').c_str());
    expectLogged("<142>", std::string(1023, 'x'));
    LogFormatted("%ls", L"\x20ac");  // no such character in the C locale
    expectLogged("<142>", "ERROR: cann't format message");
  });
}
