// Times gpuvet-lists impact's work on a generated fleet (bench/make_fleet.py)
// beside the JSON parse alone of the same file: machines per second for the
// parse, for reading the snapshots into records, and for judging each machine
// under the old and the new lists. Prints CPU and wall time, since the machine
// may be shared, and the peak memory.
#include <simdjson.h>
#include <sys/resource.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "fleet/impact.h"
#include "fleet/snapshot_stream.h"

namespace {

constexpr std::size_t kBlockBytes = std::size_t{4} << 20;

struct Timing {
  double wall = 0;
  double cpu = 0;
};

double CpuSeconds() {
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  return usage.ru_utime.tv_sec + usage.ru_stime.tv_sec + (usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
}

long PeakKilobytes() {
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  return usage.ru_maxrss;
}

Timing Time(const std::function<void()>& work) {
  const auto start = std::chrono::steady_clock::now();
  const double cpuStart = CpuSeconds();
  work();
  return {std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count(), CpuSeconds() - cpuStart};
}

// The parse alone: every line of the file through simdjson's parser, the same
// block reading as the snapshot stream.
uint64_t ParseLines(const std::string& path, uint64_t& bytes) {
  std::unique_ptr<std::FILE, int (*)(std::FILE*)> file(std::fopen(path.c_str(), "rb"), std::fclose);
  if (!file) {
    std::perror(path.c_str());
    std::exit(1);
  }
  simdjson::dom::parser parser;
  std::vector<char> buffer(kBlockBytes + simdjson::SIMDJSON_PADDING);
  std::size_t held = 0;
  uint64_t documents = 0;
  for (;;) {
    const std::size_t got = std::fread(buffer.data() + held, 1, kBlockBytes - held, file.get());
    bytes += got;
    held += got;
    char* begin = buffer.data();
    char* const end = buffer.data() + held;
    while (char* lineEnd = static_cast<char*>(std::memchr(begin, '\n', end - begin))) {
      simdjson::dom::element document;
      if (parser.parse(begin, lineEnd - begin, false).get(document) == simdjson::SUCCESS) {
        ++documents;
      }
      begin = lineEnd + 1;
    }
    held = end - begin;
    std::memmove(buffer.data(), begin, held);
    if (got == 0) break;
  }
  return documents;
}

void Report(const char* what, uint64_t machines, uint64_t bytes, const Timing& timing) {
  std::printf("%-44s %9.0f machines/s  %7.1f MB/s  wall %6.2f s  cpu %6.2f s\n", what, machines / timing.wall,
              bytes / 1e6 / timing.wall, timing.wall, timing.cpu);
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) {
    std::fprintf(stderr, "usage: %s DIR (made by bench/make_fleet.py)\n", argv[0]);
    return 2;
  }
  const std::string dir = argv[1];
  const std::string fleet = dir + "/fleet.jsonl";
  double load[3] = {0, 0, 0};
  if (FILE* loadavg = std::fopen("/proc/loadavg", "r")) {
    if (std::fscanf(loadavg, "%lf %lf %lf", &load[0], &load[1], &load[2]) != 3) load[0] = -1;
    std::fclose(loadavg);
  }
  std::printf("load average before: %.2f %.2f %.2f\n", load[0], load[1], load[2]);

  uint64_t bytes = 0;
  uint64_t parsed = 0;
  const Timing parse = Time([&] { parsed = ParseLines(fleet, bytes); });
  Report("JSON parse alone (simdjson, line by line)", parsed, bytes, parse);

  uint64_t read = 0;
  uint64_t unreadable = 0;
  const Timing records = Time([&] {
    gpuvet::fleet::ReadSnapshots(
        {fleet}, [&](const gpuvet::fleet::MachineRecord&, const gpuvet::fleet::SnapshotPlace&) { ++read; },
        [&](const gpuvet::fleet::SnapshotPlace&, const std::string&) { ++unreadable; });
  });
  Report("snapshots read and checked", read, bytes, records);

  gpuvet::fleet::ImpactLists lists;
  lists.oldBlack = dir + "/old-black.xml";
  lists.oldWhite = dir + "/old-white.xml";
  lists.newBlack = dir + "/new-black.xml";
  lists.newWhite = dir + "/new-white.xml";
  lists.gpuIndex = 0;
  gpuvet::fleet::ImpactRun impact(lists);
  const Timing judged = Time([&] {
    gpuvet::fleet::ReadSnapshots(
        {fleet},
        [&](const gpuvet::fleet::MachineRecord& record, const gpuvet::fleet::SnapshotPlace& place) {
          impact.AddMachine(record, place);
        },
        [&](const gpuvet::fleet::SnapshotPlace& place, const std::string& reason) { impact.AddUnreadable(place, reason); });
  });
  Report("impact: read, judged under old and new lists", impact.Summary().machines, bytes, judged);
  std::printf("machines %llu, unreadable %llu, verdict changes in %zu pairs of codes; peak memory %ld KB\n",
              static_cast<unsigned long long>(impact.Summary().machines), static_cast<unsigned long long>(unreadable),
              impact.Summary().changes.size(), PeakKilobytes());
  return 0;
}
