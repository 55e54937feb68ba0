#pragma once

#include <cstdint>
#include <string>

#include "platform/qdx.h"

// What every platform's adapter source shares: the log that the run sets up
// through the library's calls, and the making of a record.
namespace gpuvet::platform {

// The level of the adapter source's own messages, the entries it passes over.
constexpr int32_t kSkipMessageLevel = 3;

// Hands the message to the log callback when its level reaches the threshold.
void QdxLog(int32_t level, const std::string& message);

// A record of the adapter; a name longer than the record holds is cut, leaving
// room for its closing NUL.
qdx::platform::AdapterInfo_ MakeAdapterRecord(const std::string& name, uint32_t vendorId, uint32_t deviceId);

}  // namespace gpuvet::platform
