// Times the black list and white list tests, and gpuvet-lists lint, each beside
// the tinyxml2 parse of the same file, on generated lists of growing size.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <tinyxml2.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <random>
#include <string>
#include <vector>

#include "lists/lint.h"
#include "opencl/cl_device_key.h"
#include "verdict/black_list.h"
#include "verdict/white_list.h"

namespace {

using gpuvet::ClDeviceKey;

constexpr int kDuplicateEvery = 10;  // one item in ten repeats an earlier one
constexpr unsigned kSeed = 20180101;
constexpr int32_t kNoGpuIndex = -1;
const uint32_t kVendorIds[] = {4098, 4318, 32902, 5045};

ClDeviceKey GeneratedItem(int number, std::mt19937& random) {
  ClDeviceKey key;
  key.VID = kVendorIds[random() % std::size(kVendorIds)];
  key.DeviceName = "Generated Graphics Device " + std::to_string(number % 997);
  key.OpenCLCVersion = "OpenCL C 1." + std::to_string(random() % 3);
  key.DeviceVersion = "OpenCL 3.0 Build " + std::to_string(number);
  key.DriverVersion = std::to_string(300 + random() % 200) + "." + std::to_string(random() % 100);
  return key;
}

std::string ItemXml(const ClDeviceKey& key) {
  return "  <Item>\n    <VID>" + std::to_string(key.VID) + "</VID>\n    <DeviceName>" + key.DeviceName +
         "</DeviceName>\n    <OpenCLCVersion>" + key.OpenCLCVersion + "</OpenCLCVersion>\n    <DeviceVersion>" +
         key.DeviceVersion + "</DeviceVersion>\n    <DriverVersion>" + key.DriverVersion +
         "</DriverVersion>\n  </Item>\n";
}

// The generated list files, removed when the run ends.
class GeneratedFiles {
 public:
  ~GeneratedFiles() {
    for (const auto& [name, path] : paths_) {
      std::filesystem::remove(path);
    }
  }
  // Writes, once per size, root and kind, a list of itemCount items in random
  // order; with repeats, one item in ten repeats an earlier one.
  const std::string& Get(const char* root, int itemCount, bool repeats = true) {
    const std::string name =
        std::string(root) + "_" + std::to_string(itemCount) + (repeats ? "" : "_distinct") + ".xml";
    auto found = paths_.find(name);
    if (found == paths_.end()) {
      found = paths_.emplace(name, Write(root, itemCount, repeats, name)).first;
    }
    return found->second;
  }

 private:
  static std::string Write(const char* root, int itemCount, bool repeats, const std::string& name) {
    std::mt19937 random(kSeed);
    std::vector<ClDeviceKey> items;
    items.reserve(itemCount);
    for (int number = 0; number < itemCount; ++number) {
      const bool repeat = repeats && number % kDuplicateEvery == kDuplicateEvery - 1;
      items.push_back(repeat ? items[random() % items.size()] : GeneratedItem(number, random));
    }
    std::shuffle(items.begin(), items.end(), random);

    const std::string path = (std::filesystem::temp_directory_path() / ("gpuvet_bench_" + name)).string();
    std::ofstream file(path, std::ios::binary);
    file << "<?xml version=\"1.0\" encoding=\"utf-8\"?>\n<" << root << ">\n";
    for (const ClDeviceKey& item : items) {
      file << ItemXml(item);
    }
    file << "</" << root << ">\n";
    return path;
  }

  std::map<std::string, std::string> paths_;
};

GeneratedFiles& Files() {
  static GeneratedFiles files;
  return files;
}

// Devices none of which is listed, so the white list scans every item.
void PopulateDeviceTable() {
  gpuvet::ClDeviceTable = {
      {32902, "Intel(R) UHD Graphics 630", "OpenCL C 3.0", "OpenCL 3.0 NEO", "22.43.24595"},
      {4318, "NVIDIA GeForce GTX 1080", "OpenCL C 1.2", "OpenCL 3.0 CUDA", "391.35"},
      {4098, "gfx1030", "OpenCL C 2.0", "OpenCL 2.0 AMD-APP (3513.0)", "3513.0"},
  };
  gpuvet::SortUnique(gpuvet::ClDeviceTable);
}

// Sends standard output to /dev/null for its lifetime, so the lines of the list
// tests cost what they cost on a quiet terminal.
class SilencedStdout {
 public:
  SilencedStdout() : saved_(dup(STDOUT_FILENO)) {
    std::fflush(stdout);
    const int null = open("/dev/null", O_WRONLY);
    dup2(null, STDOUT_FILENO);
    close(null);
  }
  ~SilencedStdout() {
    std::fflush(stdout);
    dup2(saved_, STDOUT_FILENO);
    close(saved_);
  }
  SilencedStdout(const SilencedStdout&) = delete;
  SilencedStdout& operator=(const SilencedStdout&) = delete;

 private:
  int saved_;
};

void BM_ParseOnly(benchmark::State& state, const char* root, bool repeats) {
  const std::string path = Files().Get(root, static_cast<int>(state.range(0)), repeats);
  for (auto _ : state) {
    tinyxml2::XMLDocument document(true, tinyxml2::PRESERVE_WHITESPACE);
    benchmark::DoNotOptimize(document.LoadFile(path.c_str()));
  }
  state.SetComplexityN(state.range(0));
}

// gpuvet-lists lint of a white list of distinct items: the white list's checks
// are the most work.
void BM_Lint(benchmark::State& state) {
  const std::string path = Files().Get("WhiteList", static_cast<int>(state.range(0)), false);
  for (auto _ : state) {
    benchmark::DoNotOptimize(gpuvet::lists::LintListFile(path, gpuvet::lists::ListKind::kWhite));
  }
  state.SetComplexityN(state.range(0));
}

// One list test on a generated list file of state.range(0) items.
void BM_ListTest(benchmark::State& state, bool (*listTest)(const char*, int32_t), const char* root) {
  const std::string path = Files().Get(root, static_cast<int>(state.range(0)));
  PopulateDeviceTable();
  SilencedStdout silenced;
  for (auto _ : state) {
    benchmark::DoNotOptimize(listTest(path.c_str(), kNoGpuIndex));
  }
  state.SetComplexityN(state.range(0));
}

constexpr int64_t kFewestItems = 1000;
constexpr int64_t kMostItems = 100000;
constexpr int kSizeStep = 10;

void Sizes(benchmark::internal::Benchmark* family) {
  family->RangeMultiplier(kSizeStep)->Range(kFewestItems, kMostItems);
  family->Unit(benchmark::kMillisecond)->Complexity(benchmark::oNLogN);
}

BENCHMARK_CAPTURE(BM_ParseOnly, BlackList, "BlackList", true)->Apply(Sizes);
BENCHMARK_CAPTURE(BM_ParseOnly, DistinctWhiteList, "WhiteList", false)->Apply(Sizes);
BENCHMARK(BM_Lint)->Apply(Sizes);
BENCHMARK_CAPTURE(BM_ListTest, IsInBlackList, gpuvet::IsInBlackList, "BlackList")->Apply(Sizes);
BENCHMARK_CAPTURE(BM_ListTest, IsInWhiteList, gpuvet::IsInWhiteList, "WhiteList")->Apply(Sizes);

// One load of the largest file before any timing: the allocator then serves the
// big file buffer the same way for every benchmark, whichever runs first.
void WarmUp() {
  tinyxml2::XMLDocument document(true, tinyxml2::PRESERVE_WHITESPACE);
  document.LoadFile(Files().Get("BlackList", static_cast<int>(kMostItems)).c_str());
  Files().Get("WhiteList", static_cast<int>(kMostItems));
  Files().Get("WhiteList", static_cast<int>(kMostItems), false);
}

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) {
    return 1;
  }
  WarmUp();
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}
