#include "lists/describe.h"

#include <cstdio>

#include "lists/text_compare.h"

namespace gpuvet::lists {

std::string KeyText(const ClDeviceKey& key) {
  return Quoted(key.DeviceName) + " VID " + std::to_string(key.VID) + ", " + Quoted(key.OpenCLCVersion) + ", " +
         Quoted(key.DeviceVersion) + ", " + Quoted(key.DriverVersion);
}

std::string AdapterText(std::size_t position, const AdapterEntry& adapter) {
  char ids[32];
  std::snprintf(ids, sizeof ids, "[%04x:%04x]", adapter.venID, adapter.devID);
  return "adapter " + std::to_string(position) + " " + Quoted(adapter.devName) + " " + ids + ", driver " +
         Quoted(adapter.strDrvVer) + " dated " + Quoted(adapter.strDrvDate);
}

}  // namespace gpuvet::lists
