#include "adapters/adapter_entry.h"

#include "print.h"

namespace gpuvet {

void PrintAdapterLine(const AdapterEntry& entry) {
  Print("   %s, device_id :0x%X, vendor_id:0x%X  ver:%s  date:%s\n", entry.devName.c_str(), entry.devID, entry.venID,
        entry.strDrvVer.c_str(), entry.strDrvDate.c_str());
}

}  // namespace gpuvet
