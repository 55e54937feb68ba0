#include "fleet/fleet_commands.h"

#include <cstdio>
#include <fstream>
#include <iostream>
#include <optional>
#include <sstream>

#include "command_line.h"
#include "entry.h"
#include "fleet/impact.h"
#include "fleet/machine_record.h"
#include "fleet/snapshot.h"
#include "platform/file_path.h"
#include "platform/process.h"
#include "platform/result_folder.h"
#include "platform/runtime_text.h"
#include "print.h"

namespace gpuvet::fleet {
namespace {

constexpr int kStatusFailed = 1;
// The guard's code when a vendor library ends the process while it is asked.
constexpr int32_t kStatusVendorEnded = 1;

int Usage(const std::string& why) {
  std::fprintf(stderr, "gpuvet-lists: %s\n", why.c_str());
  return kStatusUsage;
}

// Replaces the file atomically, by the same means as the result file.
bool WriteWhole(const std::string& path, const std::string& text) {
  std::string directory;
  std::string name;
  platform::SplitPath(path, directory, name);
  platform::ResultFolder folder;
  const platform::FolderFileStatus opened = folder.Open(directory);
  return (opened == platform::FolderFileStatus::kUsable) &&
         folder.Replace(name, text) == platform::FolderFileStatus::kUsable;
}

}  // namespace

int SnapshotCommand(const std::vector<std::string>& args) {
  std::string outputPath;
  for (std::size_t at = 0; at < args.size(); ++at) {
    if (args[at] == "-o" && at + 1 < args.size()) {
      outputPath = args[++at];
    } else {
      return Usage("snapshot: unexpected " + args[at] + " (usage: snapshot [-o FILE])");
    }
  }

  // A vendor library runs inside the process while the census asks it.
  platform::GuardProcessEnd(kStatusVendorEnded);
  const MachineRecord record = RecordThisMachine();
  platform::AllowProcessEnd();

  const std::string text = SnapshotJson(record, std::string("gpuvet-lists ") + GPUVET_VERSION, UtcTimeNow()) + "\n";
  if (outputPath.empty()) {
    return std::fwrite(text.data(), 1, text.size(), stdout) == text.size() && std::fflush(stdout) == 0
               ? 0
               : kStatusFailed;
  }
  if (!WriteWhole(outputPath, text)) {
    std::fprintf(stderr, "gpuvet-lists: %s: can't be written\n", outputPath.c_str());
    return kStatusFailed;
  }
  return 0;
}

// The rest of the command line is gpuvet's, read by gpuvet's own pass. A
// recorded machine has no result folder of its own: a command line that names
// one is refused.
int VerdictCommand(const std::vector<std::string>& args) {
  if (args.size() < 2 || args[0] != "--snapshot") {
    return Usage("verdict: usage: verdict --snapshot FILE [gpuvet's options]");
  }
  std::vector<std::string> gpuvetArgs = {"gpuvet"};
  gpuvetArgs.insert(gpuvetArgs.end(), args.begin() + 2, args.end());
  std::vector<char*> argv;
  argv.reserve(gpuvetArgs.size() + 1);
  for (std::string& arg : gpuvetArgs) {
    argv.push_back(arg.data());
  }
  argv.push_back(nullptr);
  if (!ReadCommandLine(static_cast<int>(gpuvetArgs.size()), argv.data()).options.resultDir.empty()) {
    return Usage("verdict: a recorded machine's verdict reads and writes no result file: leave out --result");
  }

  MachineRecord record;
  std::string reason;
  if (!ReadSnapshotFile(args[1], record, reason)) {
    std::fprintf(stderr, "gpuvet-lists: %s: %s\n", args[1].c_str(), reason.c_str());
    return kStatusUnreadableSnapshot;
  }

  return RunOnMachine(static_cast<int>(gpuvetArgs.size()), argv.data(), RecordedMachine(record));
}

namespace {

enum class ReportFormat { kText, kJson, kCsv };

void PrintReport(const ImpactSummary& summary, ReportFormat format) {
  const std::string report = format == ReportFormat::kJson  ? ImpactJson(summary) + "\n"
                             : format == ReportFormat::kCsv ? ImpactCsv(summary)
                                                            : ImpactText(summary);
  std::fwrite(report.data(), 1, report.size(), stdout);
}

// Every partial summary of the inputs, one a line, merged.
int Merge(const std::vector<std::string>& inputs, ReportFormat format) {
  std::optional<ImpactSummary> whole;
  for (const std::string& input : inputs) {
    std::ifstream file;
    if (input != "-") {
      file.open(input, std::ios::binary);
      if (!file) {
        std::fprintf(stderr, "gpuvet-lists: %s: can't be read\n", input.c_str());
        return kStatusUnreadableSnapshot;
      }
    }
    std::istream& stream = input == "-" ? std::cin : file;
    uint64_t lineNumber = 0;
    for (std::string line; std::getline(stream, line);) {
      ++lineNumber;
      if (line.find_first_not_of(" \t\r") == std::string::npos) continue;
      ImpactSummary part;
      std::string reason;
      if (!ReadPartial(line, part, reason) || (whole && !MergeSummary(*whole, part, reason))) {
        std::fprintf(stderr, "gpuvet-lists: %s:%llu: %s\n", input.c_str(),
                     static_cast<unsigned long long>(lineNumber), reason.c_str());
        return kStatusUnreadableSnapshot;
      }
      if (!whole) whole = std::move(part);
    }
  }
  if (!whole) return Usage("impact --merge: no partial summary in the input");
  PrintReport(*whole, format);
  return ImpactStatus(*whole);
}

}  // namespace

int ImpactCommand(const std::vector<std::string>& args) {
  ImpactLists lists;
  ReportFormat format = ReportFormat::kText;
  bool partial = false;
  bool merge = false;
  std::string inputName = "-";
  std::vector<std::string> inputs;
  for (std::size_t at = 0; at < args.size(); ++at) {
    const std::string& arg = args[at];
    const bool takesValue = arg == "--blacklist" || arg == "--whitelist" || arg == "--new-blacklist" ||
                            arg == "--new-whitelist" || arg == "--gpu" || arg == "--format" ||
                            arg == "--input-name";
    if (takesValue && at + 1 >= args.size()) return Usage("impact: " + arg + " needs a value");
    if (arg == "--blacklist") lists.oldBlack = args[++at];
    else if (arg == "--whitelist") lists.oldWhite = args[++at];
    else if (arg == "--new-blacklist") lists.newBlack = args[++at];
    else if (arg == "--new-whitelist") lists.newWhite = args[++at];
    else if (arg == "--gpu") lists.gpuIndex = platform::TextToInt(args[++at].c_str());
    else if (arg == "--format") {
      const std::string& value = args[++at];
      if (value != "text" && value != "json" && value != "csv") return Usage("impact: --format takes text, json or csv");
      format = value == "json" ? ReportFormat::kJson : value == "csv" ? ReportFormat::kCsv : ReportFormat::kText;
    } else if (arg == "--input-name") inputName = args[++at];
    else if (arg == "--partial") partial = true;
    else if (arg == "--merge") merge = true;
    else if (arg.size() > 1 && arg[0] == '-') return Usage("impact: unknown option " + arg);
    else inputs.push_back(arg);
  }
  if (inputs.empty()) inputs.push_back("-");
  if (merge) {
    if (partial) return Usage("impact: --merge and --partial exclude each other");
    return Merge(inputs, format);
  }
  if (lists.oldBlack.empty() && lists.oldWhite.empty() && lists.newBlack.empty() && lists.newWhite.empty()) {
    return Usage("impact: name the old lists (--blacklist, --whitelist) and the new ones (--new-blacklist, "
                 "--new-whitelist)");
  }

  ImpactRun run(lists);
  ReadSnapshots(
      inputs, [&run](const MachineRecord& record, const SnapshotPlace& place) { run.AddMachine(record, place); },
      [&run](const SnapshotPlace& place, const std::string& reason) { run.AddUnreadable(place, reason); }, inputName);
  if (partial) {
    const std::string text = PartialJson(run.Summary());
    std::fwrite(text.data(), 1, text.size(), stdout);
  } else {
    PrintReport(run.Summary(), format);
  }
  return ImpactStatus(run.Summary());
}

}  // namespace gpuvet::fleet
