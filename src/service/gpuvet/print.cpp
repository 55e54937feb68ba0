#include "print.h"

#include <cstdarg>
#include <cstdio>

namespace gpuvet {

int Print(const char* format, ...) {
  va_list args;
  va_start(args, format);
  const int written = std::vprintf(format, args);
  va_end(args);
  // A host reads the log through a pipe as the run goes on, and a run that
  // ends abnormally must not take its last lines with it.
  std::fflush(stdout);
  return written;
}

}  // namespace gpuvet
