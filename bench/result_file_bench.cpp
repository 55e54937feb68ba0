// Times reading the result file beside the JSON library's parse of the same
// text alone: a 10 MB file of host data and records, and one of many small
// objects, which a reader that rescans its parent would take quadratic time on.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <stdlib.h>
#include <unistd.h>

#include <ext/stdio_filebuf.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <string>

#include "result_serialize.h"

namespace {

constexpr std::size_t kTenMegabytes = 10u << 20;

std::string LargeFile() {
  std::string text = "{\"Host\": [";
  for (int i = 0; text.size() < kTenMegabytes; ++i) {
    text += "{\"setting\": " + std::to_string(i) + ", \"value\": \"host value number " + std::to_string(i) + "\"},";
  }
  return text + "{}], \"GpuVet\": {\"Adapters\": []}}";
}

std::string ManyEmptyObjects() {
  std::string text = "{\"Host\": [";
  for (int i = 0; i < 200000; ++i) {
    text += "{},";
  }
  return text + "{}]}";
}

// The file and its path, removed when the run ends.
struct ResultFile {
  explicit ResultFile(const std::string& content) : text(content) {
    std::string pattern = (std::filesystem::temp_directory_path() / "gpuvet_bench_XXXXXX").string();
    dir = mkdtemp(pattern.data());
    path = gpuvet::ResultSerialize::BuildPath(dir);
    std::ofstream(path) << text;
  }
  ~ResultFile() { std::filesystem::remove_all(dir); }
  std::string text, dir, path;
};

void BM_ReadConfig(benchmark::State& state, const std::string& content) {
  const ResultFile file(content);
  gpuvet::ResultSerialize store;
  store.Open(file.dir);
  std::vector<gpuvet::AdapterResult> records;
  for (auto _ : state) {
    store.ReadConfig(file.path, records);  // its dump goes to standard output, led to /dev/null
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * file.text.size()));
}

void BM_ParseAlone(benchmark::State& state, const std::string& content) {
  for (auto _ : state) {
    benchmark::DoNotOptimize(nlohmann::ordered_json::parse(content));
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * content.size()));
}

}  // namespace

int main(int argc, char** argv) {
  const std::string large = LargeFile();
  const std::string many = ManyEmptyObjects();
  benchmark::RegisterBenchmark("ReadConfig/10MB", BM_ReadConfig, large)->Unit(benchmark::kMillisecond);
  benchmark::RegisterBenchmark("ParseAlone/10MB", BM_ParseAlone, large)->Unit(benchmark::kMillisecond);
  benchmark::RegisterBenchmark("ReadConfig/200000_objects", BM_ReadConfig, many)->Unit(benchmark::kMillisecond);
  benchmark::RegisterBenchmark("ParseAlone/200000_objects", BM_ParseAlone, many)->Unit(benchmark::kMillisecond);
  benchmark::Initialize(&argc, argv);
  // The reader prints the file it read: standard output goes to /dev/null, the
  // figures to a copy of the descriptor that was standard output, so that they
  // follow what the caller wrote there before (a report file stays whole).
  __gnu_cxx::stdio_filebuf<char> figuresBuffer(dup(STDOUT_FILENO), std::ios::out);
  std::ostream figures(&figuresBuffer);
  std::fflush(stdout);
  const int null = open("/dev/null", O_WRONLY);
  if (null < 0 || dup2(null, STDOUT_FILENO) < 0) {
    return 1;
  }
  close(null);
  // Plain text: the figures go to a report, never to a terminal.
  benchmark::ConsoleReporter reporter(benchmark::ConsoleReporter::OO_Tabular);
  reporter.SetOutputStream(&figures);
  reporter.SetErrorStream(&figures);
  benchmark::RunSpecifiedBenchmarks(&reporter);
  return 0;
}
