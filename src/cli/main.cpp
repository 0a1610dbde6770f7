// Entry point of the maintenance tool; see cli/cli.h.
#include "cli/cli.h"

int main(int argc, char** argv) { return VEL::runTool(argc, argv); }
