#pragma once

#include <cstdint>

namespace gpuvet {

// Every code a run can end with. A Linux parent sees the low eight bits
// (-10 arrives as 246); the codes stay distinct there.
constexpr int32_t GPUVET_OK = 0;
constexpr int32_t GPUVET_NOT_IN_WHITELIST = 11;
constexpr int32_t GPUVET_NOT_IN_WHITELIST_OLD_DRIVER = 12;
constexpr int32_t GPUVET_OLD_DRIVER = 13;
constexpr int32_t GPUVET_NO_TEST = -1;
constexpr int32_t GPUVET_NO_PLATFORM = -10;
constexpr int32_t GPUVET_IN_BLACKLIST = -11;
constexpr int32_t GPUVET_INVALID_PARAMETER = -1000;
constexpr int32_t GPUVET_PURE_CALL = -1001;

}  // namespace gpuvet
