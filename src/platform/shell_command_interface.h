#pragma once

#include <cstdint>
#include <cstdio>
#include <string>

// Runs a shell command and hands out its output line by line.
//
//   CShellCommandInterface shell;
//   if (!shell.CreateCommandStr("uname -r") || !shell.SendCommand()) return shell.GetLastErrorStr();
//   while (shell.GetResponse(0)) Use(shell.response);
//
// An object belongs to one thread. It owns the pipe of the running command; closing the pipe waits for the command to
// end. A failure gives false and sets lastError; a success leaves the error of an earlier call in place.
class CShellCommandInterface {
 public:
  // The class itself sets those marked with *; the others are the vocabulary of its users, who set and interpret them.
  enum Error : uint16_t {
    kNoError = 0,  // *
    kNoResponse = 1,
    kCreateCommandFailed = 2,  // *
    kSendCommandFailed = 3,    // *
    kNoInputStream = 4,        // *
    kResponseEmpty = 5,
    kResponseNotParsable = 6,
    kResponseNotMatching = 7,
    kCommandParamsInvalid = 8,
    kCloseStreamFailed = 9,  // *
  };

  CShellCommandInterface() = default;
  // Closes an open pipe.
  ~CShellCommandInterface();
  CShellCommandInterface(const CShellCommandInterface&) = delete;
  CShellCommandInterface& operator=(const CShellCommandInterface&) = delete;

  // Sets the command; an empty one is refused and the old one stays.
  bool CreateCommandStr(const std::string& text);
  // Appends to the command, behind a blank when withBlank is set; an empty part is refused.
  bool ExpandCommandStr(const std::string& part, bool withBlank);
  // Starts the command through the shell. A pipe that is still open is closed first. True when the shell was started,
  // whatever it makes of the command.
  bool SendCommand();
  // Reads the next line into response: at most maxLength - 1 characters (0 stands for 256), its newline included; what
  // is longer comes with the following calls. False at the end of the output and for a length of 1, in which nothing
  // fits; response is then empty.
  bool GetResponse(unsigned int maxLength);
  // True when no pipe is open or it could be closed, whatever the command's exit status.
  bool CloseStream();
  std::string GetLastErrorStr() const;

  FILE* stream = nullptr;  // the pipe of the running command, null when none
  std::string command;
  std::string response;
  uint16_t lastError = kNoError;
};
