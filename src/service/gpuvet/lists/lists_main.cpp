#include "lists/lists_main.h"

#include <algorithm>
#include <cstdio>
#include <iterator>
#include <string>
#include <vector>

#include "fleet/fleet_commands.h"
#include "command_line.h"
#include "lists/explain.h"
#include "lists/fleet_lint.h"
#include "lists/items.h"
#include "lists/lint.h"
#include "lists/text_compare.h"
#include "platform/runtime_text.h"
#include "version.h"

namespace gpuvet::lists {
namespace {

constexpr int kUsageStatus = 3;

constexpr const char* kUsage =
    "usage: gpuvet-lists lint [--black | --white] [--format text|json] [--fleet SNAPSHOTS [--gpu N]]...\n"
    "                         FILE... (- for standard input)\n"
    "       gpuvet-lists items [--gpu N] [--white | --black]\n"
    "       gpuvet-lists explain [--format text|json] [GPUVET-ARGUMENTS...]\n"
    "       gpuvet-lists snapshot [-o FILE]\n"
    "       gpuvet-lists verdict --snapshot FILE [GPUVET-ARGUMENTS...]\n"
    "       gpuvet-lists impact --blacklist F --whitelist F --new-blacklist F --new-whitelist F [--gpu N]\n"
    "                           [--format text|json|csv] [--partial] [--input-name NAME] [SNAPSHOT... | -]\n"
    "       gpuvet-lists impact --merge PARTIAL... [--format text|json|csv]\n"
    "       gpuvet-lists --help | --version\n";

int Usage(const std::string& why) {
  std::fprintf(stderr, "gpuvet-lists: %s\n%s", why.c_str(), kUsage);
  return kUsageStatus;
}

// The arguments after the command, taken one at a time.
class Arguments {
 public:
  Arguments(int argc, char** argv) : args_(argv + 2, argv + argc) {}
  bool Done() const { return at_ >= args_.size(); }
  std::string Next() { return args_[at_++]; }
  // The value of the option just taken; false when it stands last.
  bool Value(std::string& value) {
    if (Done()) return false;
    value = Next();
    return true;
  }

 private:
  std::vector<std::string> args_;
  std::size_t at_ = 0;
};

bool ReadFormat(Arguments& args, bool& json) {
  std::string format;
  if (!args.Value(format) || (format != "text" && format != "json")) return false;
  json = format == "json";
  return true;
}

int Lint(Arguments args) {
  ListKind kind = ListKind::kEither;
  bool json = false;
  std::vector<std::string> files;
  std::vector<std::string> fleet;
  int32_t gpuIndex = -1;
  while (!args.Done()) {
    const std::string arg = args.Next();
    if (arg == "--fleet" || arg == "--gpu") {
      std::string value;
      if (!args.Value(value)) return Usage(arg + " needs a value");
      if (arg == "--fleet") {
        fleet.push_back(value);
      } else {
        gpuIndex = platform::TextToInt(value.c_str());
      }
    } else if (arg == "--black" || arg == "--white") {
      kind = arg == "--black" ? ListKind::kBlack : ListKind::kWhite;
    } else if (arg == "--format") {
      if (!ReadFormat(args, json)) return Usage("--format takes text or json");
    } else if (arg.size() > 1 && arg[0] == '-') {  // "-" alone is standard input
      return Usage("unknown option " + arg);
    } else {
      files.push_back(arg);
    }
  }
  if (files.empty()) return Usage("lint needs a file");

  // Each file's findings go out as soon as it is linted; JSON needs them all.
  std::vector<Finding> all;
  int status = 0;
  bool unopened = false;
  for (const std::string& file : files) {
    LintResult result = LintListFile(file, kind);
    if (!result.opened) {
      std::fprintf(stderr, "%s: can't be read: %s\n", Quoted(file).c_str(), result.openError.c_str());
      unopened = true;
      continue;
    }
    status = std::max(status, FindingsStatus(result.findings));
    if (json) {
      all.insert(all.end(), std::make_move_iterator(result.findings.begin()),
                 std::make_move_iterator(result.findings.end()));
      continue;
    }
    for (const Finding& finding : result.findings) {
      std::printf("%s\n", FormatFinding(finding).c_str());
    }
  }
  // The fleet's findings come after every file's own.
  uint64_t unreadable = 0;
  if (!fleet.empty()) {
    const std::vector<Finding> undecided = FleetFindings(files, kind, fleet, gpuIndex, unreadable);
    status = std::max(status, FindingsStatus(undecided));
    for (const Finding& finding : undecided) {
      if (json) {
        all.push_back(finding);
      } else {
        std::printf("%s\n", FormatFinding(finding).c_str());
      }
    }
  }
  if (json) {
    std::printf("%s\n", FindingsJson(all).c_str());
  }
  return unopened || unreadable > 0 ? kUsageStatus : status;
}

int Items(Arguments args) {
  int32_t gpuIndex = -1;
  ListKind wrapIn = ListKind::kEither;
  while (!args.Done()) {
    const std::string arg = args.Next();
    std::string value;
    if (arg == "--gpu" && args.Value(value)) {
      gpuIndex = platform::TextToInt(value.c_str());
    } else if (arg == "--black" || arg == "--white") {
      wrapIn = arg == "--black" ? ListKind::kBlack : ListKind::kWhite;
    } else {
      return Usage("items: unexpected " + arg);
    }
  }
  return PrintItems(gpuIndex, wrapIn);
}

// explain's own option stands first; every element behind it is gpuvet's
// command line, read by gpuvet's own pass, so it means what it means to gpuvet.
int ExplainCommand(int argc, char** argv) {
  bool json = false;
  int at = 2;
  if (at < argc && std::string(argv[at]) == "--format") {
    const std::string format = at + 1 < argc ? argv[at + 1] : "";
    if (format != "text" && format != "json") return Usage("--format takes text or json");
    json = format == "json";
    at += 2;
  }
  std::vector<const char*> gpuvetArgs = {"gpuvet"};
  gpuvetArgs.insert(gpuvetArgs.end(), argv + at, argv + argc);
  gpuvetArgs.push_back(nullptr);
  return Explain(ReadCommandLine(static_cast<int>(gpuvetArgs.size()) - 1, gpuvetArgs.data()), json);
}

}  // namespace

int ListsMain(int argc, char** argv) {
  const std::string command = argc > 1 ? argv[1] : "";
  if (command == "lint") return Lint(Arguments(argc, argv));
  if (command == "items") return Items(Arguments(argc, argv));
  if (command == "explain") return ExplainCommand(argc, argv);
  const std::vector<std::string> rest(argv + std::min(argc, 2), argv + argc);
  if (command == "snapshot") return fleet::SnapshotCommand(rest);
  if (command == "verdict") return fleet::VerdictCommand(rest);
  if (command == "impact") return fleet::ImpactCommand(rest);
  if (command == "--help" || command == "-h") {
    std::fputs(kUsage, stdout);
    return 0;
  }
  if (command == "--version") {
    std::printf("gpuvet-lists %s\n", kVersion);
    return 0;
  }
  return Usage(command.empty() ? "no command" : "unknown command " + command);
}

}  // namespace gpuvet::lists
