#pragma once
// The commands of the zfnisdbt program (receive, generate, decode). Each command's source file
// registers itself, so the program's main knows none of them by name.
#include <string_view>

namespace zfn::tools {

struct ToolCommand {
  const char* name;      // first word on the command line
  const char* synopsis;  // one usage line for the help text
  int (*run)(int argc, char** argv);  // argv[0] is the command's name; returns the exit status
};

// Adds a command; called from a static initialiser in the command's own file.
bool RegisterCommand(const ToolCommand& command);

}  // namespace zfn::tools
