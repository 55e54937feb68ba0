#include "verdict/run_verdict.h"

#include <string>

#include "opencl/cl_device_key.h"
#include "opencl/device_census.h"
#include "opencl/match_cl_device.h"
#include "print.h"
#include "run_options.h"
#include "verdict/black_list.h"
#include "exit_codes.h"
#include "verdict/white_list.h"

namespace gpuvet {

// A plain byte comparison with the year's text, not a date calculation: a date
// of the year itself is longer and so not older, "2012" (the date of a failed
// lookup) and an empty date are older.
bool IsOldDriver(const std::string& driverDate) {
  return StringLess(driverDate, std::to_string(MinDriverYear));
}

int32_t RunVerdict(const AdapterEntry& selected) {
  return RunVerdict(selected, g_runOptions, ThisMachine(), ReadListFile);
}

int32_t RunVerdict(const AdapterEntry& selected, const RunOptions& options, const MachineSource& machine,
                   const ListReader& readList) {
  Print("gpuvet begin\n");
  // A failing count leaves it at 0.
  const uint32_t platformCount = machine.countPlatforms();
  Print("num_platforms: %d\n", static_cast<int>(platformCount));
  if (platformCount == 0) {
    Print("no platform!\n");
    return GPUVET_NO_PLATFORM;
  }

  AddCensusToTable(machine.takeCensus());

  Print("check platforms begin\n");
  const int32_t gpuIndex = options.gpuIndex;
  const int32_t matchCode = MatchClDevice(gpuIndex, selected, SelectedClDevice);
  Print("    check---dx[%s][%u], cl[%s] \n", selected.devName.c_str(), selected.devID,
        SelectedClDevice.DeviceName.c_str());
  Print("check platforms end\n\n");
  if (matchCode != 0) {
    Print("\n no platform!\n");
    return matchCode;
  }

  if (!options.blackListPath.empty() && IsInBlackList(options.blackListPath.c_str(), gpuIndex, readList)) {
    Print("in blacklist!\n");
    return GPUVET_IN_BLACKLIST;
  }

  // Worked out ahead of the white list, told only after it has answered.
  const bool oldDriver = IsOldDriver(selected.strDrvDate);
  if (!options.whiteListPath.empty() && !IsInWhiteList(options.whiteListPath.c_str(), gpuIndex, readList)) {
    Print("not in whitelist!\n");
    if (!oldDriver) {
      return GPUVET_NOT_IN_WHITELIST;
    }
    Print("& driver is before %d!\n", MinDriverYear);
    return GPUVET_NOT_IN_WHITELIST_OLD_DRIVER;
  }
  if (oldDriver) {
    Print("driver is before %d!\n", MinDriverYear);
    return GPUVET_OLD_DRIVER;
  }
  Print("gpuvet end(ok)\n");
  return GPUVET_OK;
}

}  // namespace gpuvet
