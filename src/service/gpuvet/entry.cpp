#include "entry.h"

#include <CL/opencl.hpp>

#include <exception>
#include <functional>

#include "adapters/collect_adapters.h"
#include "adapters/select_adapter.h"
#include "command_line.h"
#include "exit_watchdog.h"
#include "platform/process.h"
#include "print.h"
#include "result_serialize.h"
#include "run_options.h"
#include "exit_codes.h"
#include "verdict/run_verdict.h"

namespace gpuvet {
namespace {

// No critical-error box and no fault box: nothing ever waits for a user.
constexpr uint32_t kNoErrorDialogs = 3;

}  // namespace

// Everything of a run that the watchdog guards, up to its stop. The adapter
// list, the selection and the store live on this frame and are gone before the
// watchdog is stopped.
int32_t CheckAdapters(const RunOptions& options, const MachineSource& machine, const ListReader& readList) {
  QDXLogSetLogLevelThreshold(qdx::kRunLogThreshold);
  QDXSetLogCallback(nullptr, OnQdxLog);
  QDXSetExceptionCallback(nullptr, OnQdxException);

  AdapterList adapters;
  CollectAdapters(adapters, machine);
  Print("\n");

  AdapterEntry selected;
  if (SelectAdapter(options.gpuIndex, adapters, selected) != 0) {
    return GPUVET_NO_PLATFORM;
  }
  Print("\n");

  ResultSerialize store;
  if (!options.resultDir.empty()) {
    store.Load(options.resultDir, adapters);
  }
  Print("\n");

  AdapterResult found;
  if (FindStoredVerdict(options, selected, store, found)) {
    Print("Find result in config. %d\n", found.checkResult);
    return found.checkResult;
  }

  const int32_t runCode = RunVerdict(selected, options, machine, readList);
  if (options.gpuIndex >= 0 && !options.resultDir.empty()) {
    SaveAdapterResults(store, adapters, options.gpuIndex, runCode);
  }
  return runCode;
}

namespace {

int32_t RunSequence(int argc, char** argv, const MachineSource& machine) {
  platform::SetErrorMode(kNoErrorDialogs);
  platform::SetInvalidParameterHandler(OnInvalidParameter);
  platform::SetPureCallHandler(OnPureCall);

  ParseCommandLine(argc, argv, machine);
  const RunOptions& options = g_runOptions;
  if (options.noTest) {
    Print("no test!\n");
    return GPUVET_NO_TEST;
  }

  ExitWatchdog watchdog(GPUVET_NOT_IN_WHITELIST, kWatchdogTickCount);
  watchdog.Start();
  const int32_t runCode = CheckAdapters(options, machine, ReadListFile);
  watchdog.Stop();
  return runCode;
}

}  // namespace

// The stored verdict of the selected adapter answers the run when the host did
// not ask for a new test, named the adapter, its driver is known and a tested
// record exists.
StoredVerdict TestStoredVerdict(const RunOptions& options, const AdapterEntry& selected, const ResultSerialize& store,
                                AdapterResult& found) {
  if (options.recheck) {
    return StoredVerdict::kRecheckAsked;
  }
  if (options.gpuIndex < 0) {
    return StoredVerdict::kNoAdapterNamed;
  }
  if (selected.strDrvVer.empty()) {
    return StoredVerdict::kDriverUnknown;
  }
  if (!store.Find(selected, found)) {
    return StoredVerdict::kNoRecord;
  }
  return found.checked != 0 ? StoredVerdict::kAnswers : StoredVerdict::kRecordUnchecked;
}

bool FindStoredVerdict(const RunOptions& options, const AdapterEntry& selected, const ResultSerialize& store,
                       AdapterResult& found) {
  return TestStoredVerdict(options, selected, store, found) == StoredVerdict::kAnswers;
}

// An exception that nothing below caught ends the run, after the watchdog has
// been stopped by the unwinding: an OpenCL error can only be the platform list
// failing, anything else is a refusal like a timed-out run.
int32_t CodeOfRunException() {
  try {
    throw;
  } catch (const cl::Error&) {
    Print("no platform!\n");
    return GPUVET_NO_PLATFORM;
  } catch (const std::exception& error) {
    Print("exception: %s\n", error.what());
    return GPUVET_NOT_IN_WHITELIST;
  } catch (...) {
    Print("exception: %s\n", "unknown exception");
    return GPUVET_NOT_IN_WHITELIST;
  }
}

int32_t EndRunOnEscape(const std::function<int32_t()>& run) {
  try {
    return run();
  } catch (...) {
    return CodeOfRunException();
  }
}

// Vendor libraries run inside the process: whatever way of ending it they take
// gives the refusal of a timed-out run, never a pass.
int32_t GpuvetMain(int argc, char** argv) {
  platform::GuardProcessEnd(GPUVET_NOT_IN_WHITELIST);
  const int32_t runCode = EndRunOnEscape([argc, argv] { return RunSequence(argc, argv, ThisMachine()); });
  platform::AllowProcessEnd();
  return runCode;
}

int32_t RunOnMachine(int argc, char** argv, const MachineSource& machine) {
  return EndRunOnEscape([argc, argv, &machine] { return RunSequence(argc, argv, machine); });
}

void OnInvalidParameter() {
  Print("_invalid_parameter\n");
  platform::AllowProcessEnd();
  std::exit(GPUVET_INVALID_PARAMETER);
}

void OnPureCall() {
  Print("In _purecall_handler.\n");
  platform::AllowProcessEnd();
  std::exit(GPUVET_PURE_CALL);
}

void OnQdxLog(void* /*context*/, const char* message) {
  if (message == nullptr) {
    return;
  }
  Print("%s -- %s\n", "qdx_log_callback", message);
}

void OnQdxException(void* /*context*/, qdx::ExceptionLevel level, qdx::ExceptionType type) {
  Print("%s -- level:%d,  type:%d\n", "qdx_exception_callback", static_cast<int>(level), static_cast<int>(type));
}

}  // namespace gpuvet
