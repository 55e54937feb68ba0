// Feeds arbitrary bytes to both list tests as the contents of a list file.
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>

#include "opencl/cl_device_key.h"
#include "verdict/black_list.h"
#include "verdict/list_file.h"
#include "verdict/white_list.h"

namespace {

using gpuvet::ClDeviceKey;

constexpr int32_t kNoGpuIndex = -1;
constexpr int32_t kFirstGpu = 0;

// The file the inputs are written to, one per fuzzing process, removed at exit.
class InputFile {
 public:
  InputFile() : path_("/tmp/gpuvet_fuzz_list_" + std::to_string(getpid()) + ".xml") {}
  ~InputFile() { std::remove(path_.c_str()); }
  InputFile(const InputFile&) = delete;
  InputFile& operator=(const InputFile&) = delete;

  bool Write(const uint8_t* data, size_t size) const {
    std::ofstream file(path_, std::ios::binary | std::ios::trunc);
    file.write(reinterpret_cast<const char*>(data), static_cast<std::streamsize>(size));
    return static_cast<bool>(file.flush());
  }
  const char* Path() const { return path_.c_str(); }

 private:
  std::string path_;
};

InputFile& Input() {
  static InputFile input;
  return input;
}

// The devices of the seed files, an Intel device among them.
void SetUpDevices() {
  gpuvet::ClDeviceTable = {
      {32902, "Intel(R) UHD Graphics 630", "OpenCL C 3.0", "OpenCL 3.0 NEO", "22.43.24595"},
      {4318, "NVIDIA GeForce GTX 1080", "OpenCL C 1.2", "OpenCL 3.0 CUDA", "391.35"},
      {4098, "gfx1030", "OpenCL C 2.0", "OpenCL 2.0 AMD-APP (3513.0)", "3513.0"},
  };
  gpuvet::SortUnique(gpuvet::ClDeviceTable);
  gpuvet::SelectedClDevice = gpuvet::ClDeviceTable.back();
}

// The items the list tests rely on: strictly ascending, so the merge walk is sound.
void CheckItemsAreOrdered(const char* path) {
  const gpuvet::ListFile list = gpuvet::ReadListFile(path, gpuvet::kBlackListRoot);
  const auto notAscending = std::adjacent_find(list.items.begin(), list.items.end(),
                                               [](const ClDeviceKey& a, const ClDeviceKey& b) {
                                                 return !gpuvet::ClDeviceKeyLess(a, b);
                                               });
  if (notAscending != list.items.end()) {
    std::abort();
  }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
  // The list tests say a lot on standard output; none of it matters here.
  if (std::freopen("/dev/null", "w", stdout) == nullptr) {
    std::abort();
  }
  SetUpDevices();
  Input();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (!Input().Write(data, size)) {
    std::abort();
  }
  const char* path = Input().Path();
  CheckItemsAreOrdered(path);
  for (const int32_t gpuIndex : {kNoGpuIndex, kFirstGpu}) {
    gpuvet::IsInBlackList(path, gpuIndex);
    gpuvet::IsInWhiteList(path, gpuIndex);
  }
  return 0;
}
