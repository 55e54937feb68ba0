#pragma once

#include <cstdint>
#include <functional>

#include "platform/qdx.h"

namespace gpuvet {

// The whole run; the value becomes the process exit code.
int32_t GpuvetMain(int argc, char** argv);
// Runs `run` and turns an exception that escapes it into the end of the run:
// an OpenCL error gives "no platform!" and -10, any other "exception: %s" and 11.
int32_t EndRunOnEscape(const std::function<int32_t()>& run);

void OnInvalidParameter();
void OnPureCall();
void OnQdxLog(void* context, const char* message);
void OnQdxException(void* context, qdx::ExceptionLevel level, qdx::ExceptionType type);

}  // namespace gpuvet
