#include "machine_source.h"

namespace gpuvet {

MachineSource ThisMachine() {
  return MachineSource{QDXGetAdapterInfos, platform::QueryDriverRows, CountClPlatforms, TakeClCensus};
}

}  // namespace gpuvet
