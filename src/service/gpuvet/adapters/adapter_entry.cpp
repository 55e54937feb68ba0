#include "adapters/adapter_entry.h"

#include "print.h"

namespace gpuvet {

bool AdapterEntryEqual(const AdapterEntry& a, const AdapterEntry& b) {
  return a.devID == b.devID && a.venID == b.venID && a.devName == b.devName && a.strDrvVer == b.strDrvVer &&
         a.strDrvDate == b.strDrvDate;
}

void PrintAdapterLine(const AdapterEntry& entry) {
  Print("   %s, device_id :0x%X, vendor_id:0x%X  ver:%s  date:%s\n", entry.devName.c_str(), entry.devID, entry.venID,
        entry.strDrvVer.c_str(), entry.strDrvDate.c_str());
}

}  // namespace gpuvet
