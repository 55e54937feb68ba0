#include "machine_source.h"

namespace gpuvet {

MachineSource ThisMachine() {
  return MachineSource{QDXGetAdapterInfos, platform::ScanDriverRows, CountClPlatforms,
                       [] { return std::make_shared<const DeviceCensus>(TakeClCensus()); }};
}

}  // namespace gpuvet
