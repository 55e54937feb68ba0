#pragma once

namespace gpuvet::lists {

// The command line of gpuvet-lists: lint, items or explain. Returns the exit status.
int ListsMain(int argc, char** argv);

}  // namespace gpuvet::lists
