#pragma once

namespace ravctl {

// The whole program: understands the command line, runs the command, reports failures. Returns the exit status.
int RunTool(int argc, char** argv);

}  // namespace ravctl
