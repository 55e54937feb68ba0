#pragma once

#include <cstdint>
#include <vector>

// The hardware library: one record per display adapter, and its logging set-up.
namespace qdx {

enum class ResultCode : int32_t { kOk = 0 };
enum class ExceptionLevel : int32_t {};
enum class ExceptionType : int32_t {};

using LogCallback = void (*)(void* context, const char* message);
using ExceptionCallback = void (*)(void* context, ExceptionLevel level, ExceptionType type);

// Messages at or above this level reach the log callback.
constexpr int32_t kRunLogThreshold = 3;

namespace platform {

constexpr std::size_t kAdapterNameBytes = 128;

// One display adapter as the library reports it: 168 bytes, little-endian.
struct AdapterInfo_ {
  char name[kAdapterNameBytes];  // ended by its first NUL
  uint32_t deviceId;
  uint32_t vendorId;
  uint8_t reserved[32];
};
static_assert(sizeof(AdapterInfo_) == 0xA8, "adapter record layout");

}  // namespace platform
}  // namespace qdx

// One record per display adapter, in the order that --gpu numbers follow.
std::vector<qdx::platform::AdapterInfo_> QDXGetAdapterInfos();
int32_t QDXLogSetLogLevelThreshold(int32_t threshold);
qdx::ResultCode QDXSetLogCallback(void* context, qdx::LogCallback callback);
qdx::ResultCode QDXSetExceptionCallback(void* context, qdx::ExceptionCallback callback);
