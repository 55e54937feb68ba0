// Whole-run figures of the real binary on fixture machines: the census of a
// large OpenCL machine beside clinfo on the same vendor, and a whole run with
// and without a stored verdict. Prints a Markdown report to standard output.
#include <algorithm>
#include <cstdio>
#include <string>
#include <type_traits>
#include <vector>

#include "fixture_machine.h"
#include "test_icd_config.h"

namespace gpuvet::e2e {
namespace {

constexpr int kRepetitions = 7;
constexpr int kPlatforms = 8;
constexpr int kDevicesPerPlatform = 16;

struct Figures {
  double wallSeconds = 0;
  double cpuSeconds = 0;
  long peakMemoryKb = 0;
  std::size_t openClCalls = 0;
  int status = 0;
};

// The median of each figure over several runs of the same command.
Figures Measure(const FixtureMachine& machine, const std::vector<std::string>& argv) {
  std::vector<Figures> runs;
  for (int i = 0; i < kRepetitions; ++i) {
    ClearIcdCallLog(machine);
    const RunResult result = machine.Run(argv);
    runs.push_back({result.wallSeconds, result.cpuSeconds, result.peakMemoryKb, ReadIcdCallLog(machine).size(),
                    result.status});
  }
  auto median = [&runs](auto field) {
    std::vector<std::remove_reference_t<decltype(runs[0].*field)>> values;
    for (const Figures& run : runs) {
      values.push_back(run.*field);
    }
    std::nth_element(values.begin(), values.begin() + values.size() / 2, values.end());
    return values[values.size() / 2];
  };
  return {median(&Figures::wallSeconds), median(&Figures::cpuSeconds), median(&Figures::peakMemoryKb),
          median(&Figures::openClCalls), runs.back().status};
}

void PrintRow(const char* what, const Figures& figures) {
  std::printf("| %s | %.3f | %.1f | %ld | %zu | %d |\n", what, figures.wallSeconds, figures.cpuSeconds * 1000,
              figures.peakMemoryKb, figures.openClCalls, figures.status);
}

void PrintHeader() {
  std::printf("| run | wall s | CPU ms | peak RSS KiB | OpenCL calls | exit status |\n|---|---|---|---|---|---|\n");
}

IcdConfig LargeMachine() {
  IcdConfig config;
  for (int p = 0; p < kPlatforms; ++p) {
    IcdPlatform& platform = config.platforms.emplace_back();
    platform.name = "bench platform " + std::to_string(p);
    for (int d = 0; d < kDevicesPerPlatform; ++d) {
      IcdDevice device;
      device.name = "Bench GPU " + std::to_string(p) + "-" + std::to_string(d);
      device.driverVersion = std::to_string(500 + d) + ".1";
      platform.devices.push_back(device);
    }
  }
  return config;
}

void CensusFigures() {
  FixtureMachine machine;
  UseTestIcd(machine, LargeMachine());
  const Figures gpuvet = Measure(machine, {GpuvetBinary(), "--notest", "--details"});
  const Figures clinfo = Measure(machine, {"/usr/bin/clinfo"});
  std::printf("### Census: %d platforms of %d GPU devices (test vendor)\n\n", kPlatforms, kDevicesPerPlatform);
  PrintHeader();
  PrintRow("gpuvet --notest --details", gpuvet);
  PrintRow("clinfo", clinfo);
  std::printf("\ngpuvet / clinfo: CPU time %.2f, peak memory %.2f, OpenCL calls %.2f\n\n",
              gpuvet.cpuSeconds / std::max(clinfo.cpuSeconds, 1e-6),
              static_cast<double>(gpuvet.peakMemoryKb) / static_cast<double>(std::max(clinfo.peakMemoryKb, 1L)),
              static_cast<double>(gpuvet.openClCalls) / static_cast<double>(std::max<std::size_t>(clinfo.openClCalls, 1)));
}

void WholeRunFigures() {
  FixtureMachine machine;
  const PciFixtureDevice adapter{"0000:65:00.0", 0x030000, 0x10de, 0x1b80};
  machine.AddPciDevice(adapter);
  machine.BindModuleDriver(adapter.address, "nvidia", "535.183.01");
  machine.SetKernelBuildDate("2024-02-01");
  IcdConfig config;
  IcdDevice device;
  device.name = "NVIDIA GeForce GTX 1080";
  config.platforms.emplace_back().devices = {device};
  UseTestIcd(machine, config);
  const std::string item = "<Item><VID>4318</VID><DeviceName>NVIDIA GeForce GTX 1080</DeviceName>"
                           "<OpenCLCVersion>OpenCL C 1.2</OpenCLCVersion><DeviceVersion>OpenCL 3.0</DeviceVersion>"
                           "<DriverVersion>100</DriverVersion></Item>";
  const std::string black = machine.WriteFile("black.xml", "<BlackList>" + item + "</BlackList>");
  const std::string white = machine.WriteFile("white.xml", "<WhiteList>" + item + "</WhiteList>");
  const std::string results = machine.MakeDir("results");
  const std::vector<std::string> run = {GpuvetBinary(), "--gpu", "0", "--blacklist", black, "--whitelist", white,
                                        "--result", results};
  std::vector<std::string> recheck = run;
  recheck.insert(recheck.end(), {"--recheck", "1"});

  const Figures tested = Measure(machine, recheck);
  const Figures stored = Measure(machine, run);
  std::printf("### Whole run: one adapter, one device, both lists, a result folder\n\n");
  PrintHeader();
  PrintRow("tested (--recheck 1)", tested);
  PrintRow("stored verdict", stored);
  std::printf("\nWall time includes the watchdog's one-second tick; CPU time is the run's own work.\n\n");
}

}  // namespace
}  // namespace gpuvet::e2e

int main() {
  if (!gpuvet::e2e::NamespaceUnavailableReason().empty()) {
    std::printf("Whole-run figures skipped: %s\n", gpuvet::e2e::NamespaceUnavailableReason().c_str());
    return 0;
  }
  std::printf("Medians of %d runs each.\n\n", gpuvet::e2e::kRepetitions);
  gpuvet::e2e::CensusFigures();
  gpuvet::e2e::WholeRunFigures();
  return 0;
}
