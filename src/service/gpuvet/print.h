#pragma once

#include "platform/printf_format.h"

namespace gpuvet {

// Formatted text to standard output, with the conventions of printf. Every line
// the tool says goes through here; each call is one write under the stream's lock,
// so lines of the watchdog thread never tear a line of the main thread, and each
// is flushed before the call returns.
int Print(const char* format, ...) __attribute__((format(GPUVET_PRINTF_FORMAT, 1, 2)));

// Silenced, Print writes nothing and returns 0: for a program that runs the
// tool's steps and says what they came to in words of its own.
void SilencePrint(bool silenced);
bool PrintSilenced();

}  // namespace gpuvet
