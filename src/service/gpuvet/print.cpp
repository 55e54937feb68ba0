#include "print.h"

#include <cstdarg>
#include <cstdio>

namespace gpuvet {

int Print(const char* format, ...) {
  va_list args;
  va_start(args, format);
  const int written = std::vprintf(format, args);
  va_end(args);
  return written;
}

}  // namespace gpuvet
