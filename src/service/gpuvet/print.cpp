#include "print.h"

#include <atomic>
#include <cstdarg>
#include <cstdio>

namespace gpuvet {
namespace {

std::atomic<bool> g_printSilenced{false};

}  // namespace

void SilencePrint(bool silenced) { g_printSilenced.store(silenced); }

bool PrintSilenced() { return g_printSilenced.load(); }

int Print(const char* format, ...) {
  if (g_printSilenced.load()) {
    return 0;
  }
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
