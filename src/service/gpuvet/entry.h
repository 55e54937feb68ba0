#pragma once

#include <cstdint>
#include <functional>

#include "adapters/adapter_entry.h"
#include "machine_source.h"
#include "platform/qdx.h"
#include "result_serialize.h"
#include "run_options.h"
#include "verdict/list_file.h"

namespace gpuvet {

// Whether the stored verdict of the selected adapter answers a run, and if not,
// the first of its conditions that fails, in the order they are tested.
enum class StoredVerdict {
  kAnswers,
  kRecheckAsked,     // --recheck asked for a new test
  kNoAdapterNamed,   // no --gpu
  kDriverUnknown,    // the adapter's driver version is empty
  kNoRecord,         // the store holds no record of the adapter
  kRecordUnchecked,  // its record holds no verdict
};

// Tests the conditions; on kAnswers `found` holds the adapter's record.
StoredVerdict TestStoredVerdict(const RunOptions& options, const AdapterEntry& selected, const ResultSerialize& store,
                                AdapterResult& found);
bool FindStoredVerdict(const RunOptions& options, const AdapterEntry& selected, const ResultSerialize& store,
                       AdapterResult& found);

// The run code of a run that an exception ended, with its line; called from
// inside a catch block, it looks at the exception being handled.
int32_t CodeOfRunException();

// The whole run; the value becomes the process exit code.
int32_t GpuvetMain(int argc, char** argv);
// The whole run over the machine given, up to its code: gpuvet's command line,
// the watchdog, the adapters, the stored verdict and the test. The process
// guard is the caller's.
int32_t RunOnMachine(int argc, char** argv, const MachineSource& machine);
// The run's work under the watchdog, from the adapter library's set-up to the
// verdict and its save; the lists come through readList.
int32_t CheckAdapters(const RunOptions& options, const MachineSource& machine, const ListReader& readList);
// Runs `run` and turns an exception that escapes it into the end of the run:
// an OpenCL error gives "no platform!" and -10, any other "exception: %s" and 11.
int32_t EndRunOnEscape(const std::function<int32_t()>& run);

void OnInvalidParameter();
void OnPureCall();
void OnQdxLog(void* context, const char* message);
void OnQdxException(void* context, qdx::ExceptionLevel level, qdx::ExceptionType type);

}  // namespace gpuvet
