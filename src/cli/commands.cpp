#include <cstdio>
#include <list>
#include <string>

#include "cli/cli.h"
#include "vel/hooks.h"
#include "vel/listing.h"
#include "vel/mutations.h"
#include "vel/query.h"

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

int32_t VELCommandFactory_Ls::execute() {
  if (args_->paths.empty()) {
    return kStatusBadCommand;
  }
  std::list<std::string> entries;
  if (readDir(args_->paths.front(), entries, false, false, "UTF-8") != 1) {
    printLine("File Open Failed;");
    return -1;
  }
  for (const std::string& entry : entries) {
    printLine(entry);
  }
  return 0;
}

int32_t VELCommandFactory_Rm::execute() {
  if (args_->paths.empty()) {
    return kStatusBadCommand;
  }
  for (const std::string& path : args_->paths) {
    if (isFile(path.c_str(), "UTF-8") == 1) {
      printLine("delete file : " + path);
      if (unlink(path.c_str(), "UTF-8") != 0) {
        printLine("delete file failed : " + path);
      }
    } else if (isDirectory(path.c_str(), "UTF-8") == 1) {
      printLine("delete director : " + path);
      if (rmdir(path.c_str(), "UTF-8") != 0) {
        printLine("delete director failed : " + path);
      }
    } else {
      return kStatusBadCommand;
    }
  }
  return 0;
}

int32_t VELCommandFactory_Update::execute() {
  if (args_->paths.empty()) {
    return kStatusBadCommand;
  }
  for (const std::string& path : args_->paths) {
    if (syncFromServer(path, true) != 0) {
      printLine("update director failed : " + path);
    }
  }
  return 0;
}

int32_t VELCommandFactory_Commit::execute() {
  if (args_->paths.empty()) {
    return kStatusBadCommand;
  }
  for (const std::string& path : args_->paths) {
    printLine("commit : " + path);
    int32_t ret = syncToServer(path, true);
    if (ret != 0) {
      printLine("commit fialed : " + path);
      return ret;
    }
  }
  return 0;
}

}  // namespace VEL
