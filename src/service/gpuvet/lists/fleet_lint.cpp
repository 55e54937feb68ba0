#include "lists/fleet_lint.h"

#include <tinyxml2.h>

#include <algorithm>
#include <cstddef>
#include <cstdio>
#include <memory>

#include "fleet/impact.h"
#include "fleet/quiet_print.h"
#include "verdict/list_file.h"

namespace gpuvet::lists {
namespace {

// Which list the file is read as: the kind asked for, else the root it has.
const char* RootOf(const std::string& path, ListKind kind) {
  if (kind != ListKind::kEither) {
    return kind == ListKind::kBlack ? kBlackListRoot : kWhiteListRoot;
  }
  const fleet::QuietPrint quiet;
  std::unique_ptr<tinyxml2::XMLDocument> document = NewListDocument();
  if (document->LoadFile(path.c_str()) != tinyxml2::XML_SUCCESS || document->FirstChildElement() == nullptr) {
    return nullptr;
  }
  const std::string root = document->FirstChildElement()->Value();
  return root == kBlackListRoot ? kBlackListRoot : root == kWhiteListRoot ? kWhiteListRoot : nullptr;
}

// The line of the first item of the file that stands for the key.
int LineOf(const std::string& path, const ClDeviceKey& key) {
  std::unique_ptr<tinyxml2::XMLDocument> document = NewListDocument();
  if (document->LoadFile(path.c_str()) != tinyxml2::XML_SUCCESS || document->FirstChildElement() == nullptr) {
    return 1;
  }
  for (const tinyxml2::XMLElement* item = FirstItem(*document->FirstChildElement()); item != nullptr;
       item = NextItem(*item)) {
    if (ClDeviceKeyEqual(ReadItem(*item), key)) {
      return item->GetLineNum();
    }
  }
  return 1;
}

}  // namespace

std::vector<Finding> FleetFindings(const std::vector<std::string>& listFiles, ListKind kind,
                                   const std::vector<std::string>& fleet, int32_t gpuIndex, uint64_t& unreadable) {
  struct Judged {
    std::string path;
    bool black;
    std::unique_ptr<fleet::ImpactRun> run;
  };
  std::vector<Judged> lists;
  for (const std::string& path : listFiles) {
    const char* root = RootOf(path, kind);
    if (root == nullptr) {
      continue;  // no list: the lint says why
    }
    fleet::ImpactLists judged;
    const bool black = root == kBlackListRoot;
    (black ? judged.newBlack : judged.newWhite) = path;
    judged.gpuIndex = gpuIndex;
    lists.push_back({path, black, std::make_unique<fleet::ImpactRun>(judged)});
  }

  unreadable = 0;
  fleet::ReadSnapshots(
      fleet,
      [&lists](const fleet::MachineRecord& record, const fleet::SnapshotPlace& place) {
        for (Judged& list : lists) list.run->AddMachine(record, place);
      },
      [&unreadable](const fleet::SnapshotPlace& place, const std::string& reason) {
        std::fprintf(stderr, "gpuvet-lists: %s: %s\n", fleet::PlaceText(place).c_str(), reason.c_str());
        ++unreadable;
      });

  std::vector<Finding> findings;
  for (const Judged& list : lists) {
    const auto first = static_cast<std::ptrdiff_t>(findings.size());
    const fleet::ImpactSummary& summary = list.run->Summary();
    const auto& items = list.black ? summary.newBlackItems : summary.newWhiteItems;
    const auto& decides = list.black ? summary.blackItemDecides : summary.whiteItemDecides;
    for (std::size_t i = 0; i < items.size(); ++i) {
      if (decides[i] == 0) {
        findings.push_back({list.path, LineOf(list.path, items[i]), 1, Severity::kWarning, "fleet-undecided",
                            std::string("no machine of the fleet (") + std::to_string(summary.machines) +
                                ") is decided by this item: " +
                                (list.black ? "no device under test equals it" : "it admits no device under test")});
      }
    }
    std::stable_sort(findings.begin() + first, findings.end(),
                     [](const Finding& a, const Finding& b) { return a.line < b.line; });
  }
  return findings;
}

}  // namespace gpuvet::lists
