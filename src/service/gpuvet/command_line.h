#pragma once

#include <vector>

#include "machine_source.h"
#include "run_options.h"

namespace gpuvet {

// What the command line asks to be done on the spot, beside the settings.
enum class CommandLineAction {
  kDetails,           // list the OpenCL devices now
  kHelp,              // print the usage lines and go on
  kBlankRun,          // count seconds for ever; nothing behind it was looked at
  kInvalidParameter,  // a value option stood last, or a path value was too long: the run ends here
};

// A command line as gpuvet understands it: the settings and, in the order the
// pass met them, the actions. kBlankRun and kInvalidParameter end the pass, so
// either can only be the last action.
struct CommandLine {
  RunOptions options;
  std::vector<CommandLineAction> actions;
};

// The one reading of gpuvet's arguments (argv[0] is the program), without any
// side effect: gpuvet carries out what it finds, gpuvet-lists explains it.
CommandLine ReadCommandLine(int argc, const char* const* argv);

// Reads the arguments, fills g_runOptions and carries out the actions in
// their order; --details takes the census of the machine. Returns 1 when it
// returns.
int ParseCommandLine(int argc, char** argv, const MachineSource& machine);
int ParseCommandLine(int argc, char** argv);

// The two usage lines of --help.
void PrintUsage();

// Counts seconds for as long as the process lives.
[[noreturn]] void BlankRun();

}  // namespace gpuvet
