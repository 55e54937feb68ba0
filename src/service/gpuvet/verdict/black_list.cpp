#include "verdict/black_list.h"

#include <algorithm>
#include <iterator>
#include <vector>

#include "opencl/cl_device_key.h"
#include "print.h"
#include "verdict/list_file.h"

namespace gpuvet {

std::vector<ClDeviceKey> BlackListDevicesUnderTest(int32_t gpuIndex) {
  return gpuIndex >= 0 ? std::vector<ClDeviceKey>{SelectedClDevice} : ClDeviceTable;
}

bool IsInBlackList(const char* path, int32_t gpuIndex, const ListReader& readList) {
  Print("check before in black list start\n");
  const std::shared_ptr<const ListFile> read = readList(path, kBlackListRoot);
  const ListFile& list = *read;
  if (list.outcome != ListFileOutcome::kRead) {
    return false;  // an unreadable list holds no device
  }

  if (gpuIndex >= 0) {
    Print("    check : [%s]\n", SelectedClDevice.DeviceName.c_str());
  }
  const std::vector<ClDeviceKey> checkList = BlackListDevicesUnderTest(gpuIndex);

  // Both lists are ascending and free of duplicates, so each device under test
  // is listed at most once: a search of the items for each finds the same
  // intersection as a merge walk, in time that grows with the log of the list.
  std::vector<ClDeviceKey> intersection;
  std::copy_if(checkList.begin(), checkList.end(), std::back_inserter(intersection),
               [&list](const ClDeviceKey& device) {
                 return std::binary_search(list.items.begin(), list.items.end(), device, ClDeviceKeyLess);
               });

  Print("check_list: %llu, black_list: %llu. intersection: %llu\n", static_cast<unsigned long long>(checkList.size()),
        static_cast<unsigned long long>(list.items.size()), static_cast<unsigned long long>(intersection.size()));
  Print("check before in black list end\n\n");
  return !intersection.empty();
}

}  // namespace gpuvet
