#include "run_options.h"

namespace gpuvet {

RunOptions g_runOptions;

}  // namespace gpuvet
