#include "fleet/fleet_commands.h"

#include <cstdio>

#include "entry.h"
#include "fleet/machine_record.h"
#include "fleet/snapshot.h"
#include "platform/atomic_file.h"
#include "platform/process.h"
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
  if (platform::ReplaceFileAtomically(outputPath, text) != 0) {
    std::fprintf(stderr, "gpuvet-lists: %s: can't be written\n", outputPath.c_str());
    return kStatusFailed;
  }
  return 0;
}

// The rest of the command line is gpuvet's, read by gpuvet's own pass. A
// recorded machine has no result folder of its own: --result is refused.
int VerdictCommand(const std::vector<std::string>& args) {
  if (args.size() < 2 || args[0] != "--snapshot") {
    return Usage("verdict: usage: verdict --snapshot FILE [gpuvet's options]");
  }
  for (std::size_t at = 2; at < args.size(); ++at) {
    if (platform::CompareIgnoreCase(args[at].c_str(), "--result") == 0) {
      return Usage("verdict: a recorded machine's verdict reads and writes no result file: leave out --result");
    }
  }

  MachineRecord record;
  std::string reason;
  const bool wasSilenced = PrintSilenced();
  SilencePrint(true);
  const bool read = ReadSnapshotFile(args[1], record, reason);
  SilencePrint(wasSilenced);
  if (!read) {
    std::fprintf(stderr, "gpuvet-lists: %s: %s\n", args[1].c_str(), reason.c_str());
    return kStatusUnreadableSnapshot;
  }

  std::vector<std::string> gpuvetArgs = {"gpuvet"};
  gpuvetArgs.insert(gpuvetArgs.end(), args.begin() + 2, args.end());
  std::vector<char*> argv;
  for (std::string& arg : gpuvetArgs) {
    argv.push_back(arg.data());
  }
  argv.push_back(nullptr);
  return RunOnMachine(static_cast<int>(gpuvetArgs.size()), argv.data(), RecordedMachine(record));
}

}  // namespace gpuvet::fleet
