// The maintenance tool's command line: "vel <command-word> [path ...]".
//
// The command words "help", "ls", "rm", "update", "commit" (ids 1..5) are
// matched exactly and case-sensitively. Each path must exist (checked
// through the public API) before any command runs. Output goes to standard
// output, one flushed line at a time.
#ifndef VEL_CLI_CLI_H_
#define VEL_CLI_CLI_H_

#include <cstdint>
#include <string>
#include <vector>

namespace VEL {

extern const std::string kPathSeparator;   // "/"
extern const std::string kRootPath;        // "/"
extern const std::string kLineBreak;       // "\n"
extern const std::string kUnknownCommand;  // "unknow"

enum CommandId : int32_t {
  kCmdUnknown = 0,
  kCmdHelp = 1,
  kCmdLs = 2,
  kCmdRm = 3,
  kCmdUpdate = 4,
  kCmdCommit = 5,
};

// Exit statuses of the tool.
constexpr int kStatusBadCommand = -4;
constexpr int kStatusMissingPath = -11;

// The existence check of a path argument: 0 when it exists, else -11.
int32_t checkPath(const std::string& path);

class CommandLineArguments {
 public:
  CommandLineArguments();
  // Sets `command` from a command word: 0, or -4 (command 0) when unknown.
  int32_t parseCommand(const std::string& word);
  // Checks one path argument and appends it as given: 0, or -11.
  int32_t addPath(const std::string& text);

  int32_t command = kCmdUnknown;
  std::vector<std::string> paths;
  std::vector<std::string> commandWords;
};

class VELCommandFactory {
 public:
  explicit VELCommandFactory(CommandLineArguments* args) : args_(args) {}
  VELCommandFactory(const VELCommandFactory&) = delete;
  VELCommandFactory& operator=(const VELCommandFactory&) = delete;
  virtual ~VELCommandFactory() = default;
  // Runs the command; 0 on success.
  virtual int32_t execute() { return 0; }

 protected:
  CommandLineArguments* args_;
};

// Prints "-help\t-ls\t-rm\t-update\t-commit"; -4 if the command is not help.
class VELCommandFactory_Help : public VELCommandFactory {
 public:
  using VELCommandFactory::VELCommandFactory;
  int32_t execute() override;
};

// Lists the first path: 0; -1 on listing failure; -4 with no path.
class VELCommandFactory_Ls : public VELCommandFactory {
 public:
  using VELCommandFactory::VELCommandFactory;
  int32_t execute() override;
};

// Removes files and directories; -4 with no path or at a path that is neither.
class VELCommandFactory_Rm : public VELCommandFactory {
 public:
  using VELCommandFactory::VELCommandFactory;
  int32_t execute() override;
};

// Pulls each path's tree from the service; 0, or -4 with no path.
class VELCommandFactory_Update : public VELCommandFactory {
 public:
  using VELCommandFactory::VELCommandFactory;
  int32_t execute() override;
};

// Pushes each path to the service; stops at the first failure and returns it.
class VELCommandFactory_Commit : public VELCommandFactory {
 public:
  using VELCommandFactory::VELCommandFactory;
  int32_t execute() override;
};

// The whole tool: returns the process status (0, -4 or -11).
int runTool(int argc, const char* const* argv);

}  // namespace VEL

#endif  // VEL_CLI_CLI_H_
