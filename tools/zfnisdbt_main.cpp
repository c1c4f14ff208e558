// zfnisdbt: the command-line host of the receiver.
#include <cstdio>
#include <cstring>
#include <vector>

#include "tools/command_registry.h"

namespace zfn::tools {

static std::vector<ToolCommand>& Commands() {
  static std::vector<ToolCommand> commands;
  return commands;
}

bool RegisterCommand(const ToolCommand& command) {
  Commands().push_back(command);
  return true;
}

}  // namespace zfn::tools

static int Usage(FILE* out) {
  std::fprintf(out, "usage: zfnisdbt COMMAND [OPTIONS]    (zfnisdbt COMMAND --help for each)\ncommands:\n");
  for (const auto& c : zfn::tools::Commands()) std::fprintf(out, "  %s\n", c.synopsis);
  std::fprintf(out,
               "  --version, -V\n"
               "exit status: 0 done, 1 a file, the device or the stream failed, 2 usage\n");
  return out == stdout ? 0 : 2;
}

int main(int argc, char** argv) {
  if (argc < 2) return Usage(stderr);
  if (std::strcmp(argv[1], "--version") == 0 || std::strcmp(argv[1], "-V") == 0) {
    std::printf("zfnisdbt %s\n", ZFN_VERSION);
    return 0;
  }
  if (std::strcmp(argv[1], "--help") == 0 || std::strcmp(argv[1], "-h") == 0 ||
      std::strcmp(argv[1], "help") == 0)
    return Usage(stdout);
  for (const auto& c : zfn::tools::Commands()) {
    if (std::strcmp(argv[1], c.name) == 0) return c.run(argc - 1, argv + 1);
  }
  std::fprintf(stderr, "zfnisdbt: unknown command '%s'\n", argv[1]);
  return Usage(stderr);
}
