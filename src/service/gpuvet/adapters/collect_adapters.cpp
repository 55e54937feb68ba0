#include "adapters/collect_adapters.h"

#include <cstring>

#include "adapters/driver_lookup.h"
#include "platform/qdx.h"

namespace gpuvet {

void CollectAdapters(AdapterList& adapters) { CollectAdapters(adapters, ThisMachine()); }

void CollectAdapters(AdapterList& adapters, const MachineSource& machine) {
  adapters.clear();
  const std::vector<qdx::platform::AdapterInfo_> records = machine.adapterRecords();
  for (const qdx::platform::AdapterInfo_& record : records) {
    AdapterEntry entry;
    entry.devID = record.deviceId;
    entry.venID = record.vendorId;
    entry.devName.assign(record.name, strnlen(record.name, sizeof record.name));

    std::string version;
    std::string date;
    if (QueryDriverInfo(record, version, date, machine.driverRows)) {
      entry.strDrvDate = date;
      entry.strDrvVer = version;
    } else {
      entry.strDrvDate = kFallbackDriverDate;
    }
    adapters.push_back(entry);
  }
  // The lookups print as they go; the adapter lines come as one block after them.
  for (const AdapterEntry& entry : adapters) {
    PrintAdapterLine(entry);
  }
}

}  // namespace gpuvet
