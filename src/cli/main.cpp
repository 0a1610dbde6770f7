// Entry point of the maintenance tool; see vel/cli.h.
#include "vel/cli.h"

int main(int argc, char** argv) { return VEL::runTool(argc, argv); }
