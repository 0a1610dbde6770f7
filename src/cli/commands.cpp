#include <cstdio>
#include <list>
#include <string>

#include "vel/cli.h"

namespace VEL {

namespace {

void printLine(const std::string& text) {
  std::printf("%s\n", text.c_str());
  std::fflush(stdout);
}

}  // namespace

int32_t VELCommandFactory_Help::execute() {
  if (args_->command != kCmdHelp) {
    return kStatusBadCommand;
  }
  printLine("-help\t-ls\t-rm\t-update\t-commit");
  return 0;
}

// The remaining commands come with the remote file API.
int32_t VELCommandFactory_Ls::execute() { return args_->paths.empty() ? kStatusBadCommand : 0; }
int32_t VELCommandFactory_Rm::execute() { return args_->paths.empty() ? kStatusBadCommand : 0; }
int32_t VELCommandFactory_Update::execute() { return args_->paths.empty() ? kStatusBadCommand : 0; }
int32_t VELCommandFactory_Commit::execute() { return args_->paths.empty() ? kStatusBadCommand : 0; }

}  // namespace VEL
