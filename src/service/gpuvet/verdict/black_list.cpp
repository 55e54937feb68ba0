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
  const ListFile list = readList(path, kBlackListRoot);
  if (list.outcome != ListFileOutcome::kRead) {
    return false;  // an unreadable list holds no device
  }

  if (gpuIndex >= 0) {
    Print("    check : [%s]\n", SelectedClDevice.DeviceName.c_str());
  }
  const std::vector<ClDeviceKey> checkList = BlackListDevicesUnderTest(gpuIndex);

  // Both lists are ascending and free of duplicates: one merge walk finds the devices that are listed.
  std::vector<ClDeviceKey> intersection;
  std::set_intersection(checkList.begin(), checkList.end(), list.items.begin(), list.items.end(),
                        std::back_inserter(intersection), ClDeviceKeyLess);

  Print("check_list: %llu, black_list: %llu. intersection: %llu\n", static_cast<unsigned long long>(checkList.size()),
        static_cast<unsigned long long>(list.items.size()), static_cast<unsigned long long>(intersection.size()));
  Print("check before in black list end\n\n");
  return !intersection.empty();
}

}  // namespace gpuvet
