#include <algorithm>
#include <atomic>
#include <cstring>

#include "platform/linux/pci_devices.h"
#include "platform/qdx.h"

namespace {

// The level of the layer's own messages, the entries it passes over.
constexpr int32_t kSkipMessageLevel = 3;

std::atomic<int32_t> g_logThreshold{kSkipMessageLevel + 1};
std::atomic<qdx::LogCallback> g_logCallback{nullptr};
std::atomic<void*> g_logContext{nullptr};

void Log(int32_t level, const std::string& message) {
  const qdx::LogCallback callback = g_logCallback.load();
  if (callback != nullptr && level >= g_logThreshold.load()) {
    callback(g_logContext.load(), message.c_str());
  }
}

qdx::platform::AdapterInfo_ MakeRecord(const gpuvet::platform::sysfs::PciDisplayDevice& device) {
  qdx::platform::AdapterInfo_ record{};
  // Names longer than the record holds are cut, leaving room for the closing NUL.
  const std::size_t length = std::min(device.name.size(), qdx::platform::kAdapterNameBytes - 1);
  std::memcpy(record.name, device.name.data(), length);
  record.deviceId = device.deviceId;
  record.vendorId = device.vendorId;
  return record;
}

}  // namespace

std::vector<qdx::platform::AdapterInfo_> QDXGetAdapterInfos() {
  const auto devices = gpuvet::platform::sysfs::ListDisplayDevices(
      gpuvet::platform::sysfs::kPciDevicesDir, [](const std::string& message) { Log(kSkipMessageLevel, message); });
  std::vector<qdx::platform::AdapterInfo_> records;
  if (devices) {
    std::transform(devices->begin(), devices->end(), std::back_inserter(records), MakeRecord);
  }
  return records;
}

int32_t QDXLogSetLogLevelThreshold(int32_t threshold) {
  g_logThreshold.store(threshold);
  return 0;
}

qdx::ResultCode QDXSetLogCallback(void* context, qdx::LogCallback callback) {
  g_logContext.store(context);
  g_logCallback.store(callback);
  return qdx::ResultCode::kOk;
}

// Linux reports nothing through the exception callback; it is accepted and kept
// for the interface's sake.
qdx::ResultCode QDXSetExceptionCallback(void* /*context*/, qdx::ExceptionCallback /*callback*/) {
  return qdx::ResultCode::kOk;
}
