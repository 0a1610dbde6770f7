#include <cstdio>
#include <map>
#include <memory>
#include <string>

#include "cli/cli.h"
#include "vel/instance.h"
#include "vel/paths.h"
#include "vel/query.h"

namespace VEL {

const std::string kPathSeparator = "/";
const std::string kRootPath = "/";
const std::string kLineBreak = "\n";
const std::string kUnknownCommand = "unknow";

int32_t checkPath(const std::string& path) {
  return exists(path.c_str(), "UTF-8") == 1 ? 0 : kStatusMissingPath;
}

CommandLineArguments::CommandLineArguments()
    : commandWords{"help", "ls", "rm", "update", "commit"} {}

int32_t CommandLineArguments::parseCommand(const std::string& word) {
  for (size_t i = 0; i < commandWords.size(); ++i) {
    if (word == commandWords[i]) {
      command = static_cast<int32_t>(i + 1);
      return 0;
    }
  }
  command = kCmdUnknown;
  return kStatusBadCommand;
}

int32_t CommandLineArguments::addPath(const std::string& text) {
  std::string checked = text;
  bool inRoot = true;
  if (isAbsolutePath(checked)) {
    std::string relative;
    // An absolute path outside the mirror root names nothing the service
    // has: it must not pass as the root itself.
    inRoot = toRelativePath(text, relative) != nullptr;
    if (inRoot) {
      checked = relative;
    }
  }
  if (inRoot && checkPath(checked) == 0) {
    std::printf("check Exit successed : %s\n", checked.c_str());
    std::fflush(stdout);
    paths.push_back(text);
    return 0;
  }
  std::printf("File check exist faild;%s\n", checked.c_str());
  std::fflush(stdout);
  return kStatusMissingPath;
}

namespace {

std::unique_ptr<VELCommandFactory> makeCommand(int32_t id, CommandLineArguments* args) {
  switch (id) {
    case kCmdHelp:
      return std::make_unique<VELCommandFactory_Help>(args);
    case kCmdLs:
      return std::make_unique<VELCommandFactory_Ls>(args);
    case kCmdRm:
      return std::make_unique<VELCommandFactory_Rm>(args);
    case kCmdUpdate:
      return std::make_unique<VELCommandFactory_Update>(args);
    case kCmdCommit:
      return std::make_unique<VELCommandFactory_Commit>(args);
    default:
      return nullptr;
  }
}

}  // namespace

int runTool(int argc, const char* const* argv) {
  CommandLineArguments args;
  if (argc >= 3) {
    // A command word and at least one path: the client is needed. Its
    // result is not checked here; the API calls report their own failures.
    init(ConfigParams{{"clientType", "Tavora"}});
  }
  if (argc >= 2) {
    int32_t ret = args.parseCommand(argv[1]);
    if (ret != 0) {
      return ret;
    }
    for (int i = 2; i < argc; ++i) {
      ret = args.addPath(argv[i]);
      if (ret != 0) {
        return ret;
      }
    }
  }
  std::unique_ptr<VELCommandFactory> command = makeCommand(args.command, &args);
  if (!command) {
    return kStatusBadCommand;
  }
  command->execute();  // The tool's status does not depend on the command's.
  return 0;
}

}  // namespace VEL
