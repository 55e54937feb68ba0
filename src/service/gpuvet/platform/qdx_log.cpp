#include "platform/qdx_log.h"

#include <algorithm>
#include <atomic>
#include <cstring>

namespace {

std::atomic<int32_t> g_logThreshold{gpuvet::platform::kSkipMessageLevel + 1};
std::atomic<qdx::LogCallback> g_logCallback{nullptr};
std::atomic<void*> g_logContext{nullptr};

}  // namespace

namespace gpuvet::platform {

void QdxLog(int32_t level, const std::string& message) {
  const qdx::LogCallback callback = g_logCallback.load();
  if (callback != nullptr && level >= g_logThreshold.load()) {
    callback(g_logContext.load(), message.c_str());
  }
}

qdx::platform::AdapterInfo_ MakeAdapterRecord(const std::string& name, uint32_t vendorId, uint32_t deviceId) {
  qdx::platform::AdapterInfo_ record{};
  const std::size_t length = std::min(name.size(), qdx::platform::kAdapterNameBytes - 1);
  std::memcpy(record.name, name.data(), length);
  record.deviceId = deviceId;
  record.vendorId = vendorId;
  return record;
}

}  // namespace gpuvet::platform

int32_t QDXLogSetLogLevelThreshold(int32_t threshold) {
  g_logThreshold.store(threshold);
  return 0;
}

qdx::ResultCode QDXSetLogCallback(void* context, qdx::LogCallback callback) {
  g_logContext.store(context);
  g_logCallback.store(callback);
  return qdx::ResultCode::kOk;
}

// No platform reports through the exception callback; it is accepted and kept
// for the interface's sake.
qdx::ResultCode QDXSetExceptionCallback(void* /*context*/, qdx::ExceptionCallback /*callback*/) {
  return qdx::ResultCode::kOk;
}
