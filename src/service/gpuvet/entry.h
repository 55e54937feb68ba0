#pragma once

#include <cstdint>

#include "platform/qdx.h"

namespace gpuvet {

// The whole run; the value becomes the process exit code.
int32_t GpuvetMain(int argc, char** argv);

void OnInvalidParameter();
void OnPureCall();
void OnQdxLog(void* context, const char* message);
void OnQdxException(void* context, qdx::ExceptionLevel level, qdx::ExceptionType type);

}  // namespace gpuvet
