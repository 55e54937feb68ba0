// Arbitrary bytes as "gpuvet.json": the store loads them against a small
// adapter list, stores a verdict and writes the file. What was written must
// read back as exactly the records the store held, the same bytes also as one
// of the record's strings: any bytes written are read back as the same bytes.
#include <fcntl.h>
#include <stdlib.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <string>
#include <vector>

#include "result_serialize.h"

namespace {

using gpuvet::AdapterEntry;
using gpuvet::AdapterResult;
using gpuvet::ResultSerialize;

const gpuvet::AdapterList kAdapters = {
    AdapterEntry{0x10DE, 0x2206, "NVIDIA GeForce RTX 3080", "31.0.15.3623", "20230607000000.000000-000"},
    AdapterEntry{0x8086, 0x3E92, "Intel(R) UHD Graphics 630", "", "2012"},
};

// A directory of its own for the process, in memory where possible, gone at exit.
std::string ScratchDir() {
  static std::string dir = access("/dev/shm", W_OK) == 0 ? "/dev/shm/gpuvet_fuzz_XXXXXX" : "/tmp/gpuvet_fuzz_XXXXXX";
  if (mkdtemp(dir.data()) == nullptr) {
    std::abort();
  }
  std::atexit([] { std::filesystem::remove_all(dir); });
  return dir;
}

bool SameRecord(const AdapterResult& a, const AdapterResult& b) {
  return a.checked == b.checked && a.checkResult == b.checkResult && gpuvet::AdapterEntryEqual(a.adapter, b.adapter) &&
         a.clCVersion == b.clCVersion && a.clDevVersion == b.clDevVersion && a.clDrvVersion == b.clDrvVersion;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  // The store's log would drown libFuzzer's own lines, which go to stderr.
  std::fflush(stdout);
  const int devNull = open("/dev/null", O_WRONLY);
  dup2(devNull, STDOUT_FILENO);
  close(devNull);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const std::string dir = ScratchDir();
  const std::string path = ResultSerialize::BuildPath(dir);
  if (FILE* file = std::fopen(path.c_str(), "wb")) {
    std::fwrite(data, 1, size, file);
    std::fclose(file);
  }

  ResultSerialize store;
  store.Load(dir, kAdapters);
  AdapterResult tested = store.results.at(0);
  tested.checked = 1;
  tested.checkResult = -11;
  tested.clDrvVersion.assign(reinterpret_cast<const char*>(data), size);
  store.Update(tested);
  if (store.AddResult() != 0) {
    return 0;  // a file refused for a limit is left as it is
  }

  std::vector<AdapterResult> readBack;
  if (store.ReadConfig(store.path, readBack) != 0 || readBack.size() != store.results.size()) {
    __builtin_trap();
  }
  for (std::size_t i = 0; i < readBack.size(); ++i) {
    if (!SameRecord(readBack[i], store.results[i])) {
      __builtin_trap();
    }
  }
  std::fflush(stdout);
  return 0;
}
