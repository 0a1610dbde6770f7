#include <gtest/gtest.h>

#include <string>

#include "cli/cli.h"
#include "support/process.h"
#include "support/temp_dir.h"

namespace {

using veltest::kUnset;
using veltest::pathExists;
using veltest::runProcess;
using veltest::TempDir;

TEST(CommandLineTest, HelpRefusesAnotherCommandId) {
  VEL::CommandLineArguments args;
  args.command = VEL::kCmdLs;
  VEL::VELCommandFactory_Help help(&args);
  EXPECT_EQ(-4, help.execute());
  VEL::VELCommandFactory base(&args);
  EXPECT_EQ(0, base.execute());
}

// The tool as a user runs it, in an empty working directory with no log
// directory configured, so that any log file it creates would show up there.
class ToolTest : public ::testing::Test {
 protected:
  veltest::ProcessResult run(std::vector<std::string> args) {
    args.insert(args.begin(), VEL_TOOL_BIN);
    return runProcess(args, {{"_APP_LOG_DIR", kUnset}}, cwd_.path());
  }
  TempDir cwd_;
};

// Command words are matched exactly.
TEST_F(ToolTest, MissingOrUnknownCommandWordExits252Silently) {
  for (const std::vector<std::string>& args : std::vector<std::vector<std::string>>{
           {}, {"-help"}, {"HELP"}, {"help "}, {""}, {"list"}, {"lsx"}, {"-ls", "a"}}) {
    veltest::ProcessResult result = run(args);
    EXPECT_EQ(252, result.status) << (args.empty() ? "(none)" : args[0]);
    EXPECT_EQ("", result.out) << (args.empty() ? "(none)" : args[0]);
  }
}

// Help prints its one line; the other commands without paths print nothing.
// None of them leaves a log file behind.
TEST_F(ToolTest, HelpAndCommandsWithoutPathsExitZeroAndTouchNothing) {
  for (const char* word : {"help", "ls", "rm", "update", "commit"}) {
    veltest::ProcessResult result = run({word});
    EXPECT_EQ(0, result.status) << word;
    EXPECT_EQ(word == std::string("help") ? "-help\t-ls\t-rm\t-update\t-commit\n" : "", result.out)
        << word;
  }
  EXPECT_FALSE(pathExists(cwd_.sub("velsdk.log")));
}

}  // namespace
