#include "lists/lists_main.h"

#include <algorithm>
#include <cstdio>
#include <string>
#include <vector>

#include "fleet/fleet_commands.h"
#include "lists/explain.h"
#include "lists/items.h"
#include "lists/lint.h"
#include "platform/runtime_text.h"
#include "version.h"

namespace gpuvet::lists {
namespace {

constexpr int kUsageStatus = 3;

constexpr const char* kUsage =
    "usage: gpuvet-lists lint [--black | --white] [--format text|json] FILE...\n"
    "       gpuvet-lists items [--gpu N] [--white | --black]\n"
    "       gpuvet-lists explain [--gpu N] [--blacklist FILE] [--whitelist FILE] [--result DIR] [--recheck N]\n"
    "                            [--format text|json]\n"
    "       gpuvet-lists snapshot [-o FILE]\n"
    "       gpuvet-lists verdict --snapshot FILE [gpuvet's options]\n"
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
  while (!args.Done()) {
    const std::string arg = args.Next();
    if (arg == "--black" || arg == "--white") {
      kind = arg == "--black" ? ListKind::kBlack : ListKind::kWhite;
    } else if (arg == "--format") {
      if (!ReadFormat(args, json)) return Usage("--format takes text or json");
    } else if (arg.size() > 1 && arg[0] == '-') {
      return Usage("unknown option " + arg);
    } else {
      files.push_back(arg);
    }
  }
  if (files.empty()) return Usage("lint needs a file");

  std::vector<Finding> findings;
  bool unopened = false;
  for (const std::string& file : files) {
    LintResult result = LintListFile(file, kind);
    if (!result.opened) {
      std::fprintf(stderr, "%s: can't be read: %s\n", file.c_str(), result.openError.c_str());
      unopened = true;
    }
    findings.insert(findings.end(), result.findings.begin(), result.findings.end());
  }
  if (json) {
    std::printf("%s\n", FindingsJson(findings).c_str());
  } else {
    for (const Finding& finding : findings) {
      std::printf("%s\n", FormatFinding(finding).c_str());
    }
  }
  return unopened ? kUsageStatus : FindingsStatus(findings);
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

// The options keep gpuvet's meaning: numbers read as gpuvet reads them.
int ExplainCommand(Arguments args) {
  RunOptions options;
  bool json = false;
  while (!args.Done()) {
    const std::string arg = args.Next();
    std::string value;
    if (arg == "--format") {
      if (!ReadFormat(args, json)) return Usage("--format takes text or json");
    } else if (arg != "--gpu" && arg != "--blacklist" && arg != "--whitelist" && arg != "--result" &&
               arg != "--recheck") {
      return Usage("explain: unexpected " + arg);
    } else if (!args.Value(value)) {
      return Usage(arg + " needs a value");
    } else if (arg == "--gpu") {
      options.gpuIndex = platform::TextToInt(value.c_str());
    } else if (arg == "--recheck") {
      options.recheck = platform::TextToInt(value.c_str()) != 0;
    } else {
      (arg == "--blacklist" ? options.blackListPath : arg == "--whitelist" ? options.whiteListPath : options.resultDir) =
          value;
    }
  }
  return Explain(options, json);
}

}  // namespace

int ListsMain(int argc, char** argv) {
  const std::string command = argc > 1 ? argv[1] : "";
  if (command == "lint") return Lint(Arguments(argc, argv));
  if (command == "items") return Items(Arguments(argc, argv));
  if (command == "explain") return ExplainCommand(Arguments(argc, argv));
  const std::vector<std::string> rest(argv + std::min(argc, 2), argv + argc);
  if (command == "snapshot") return fleet::SnapshotCommand(rest);
  if (command == "verdict") return fleet::VerdictCommand(rest);
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
