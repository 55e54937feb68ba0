#include "fleet/machine_record.h"

#include <algorithm>
#include <iterator>

#include "adapters/collect_adapters.h"
#include "platform/qdx_log.h"
#include "print.h"

namespace gpuvet::fleet {
namespace {

void KeepLogMessage(void* context, const char* message) {
  if (message != nullptr) {
    static_cast<std::vector<std::string>*>(context)->emplace_back(message);
  }
}

std::vector<qdx::platform::AdapterInfo_> RecordsOf(const AdapterList& adapters) {
  std::vector<qdx::platform::AdapterInfo_> records;
  std::transform(adapters.begin(), adapters.end(), std::back_inserter(records), [](const AdapterEntry& adapter) {
    return platform::MakeAdapterRecord(adapter.devName, adapter.venID, adapter.devID);
  });
  return records;
}

// A source over recorded adapter records, log and rows; the census is the record's.
MachineSource SourceOf(const std::vector<qdx::platform::AdapterInfo_>& records,
                       const std::vector<std::string>& log,
                       const std::optional<std::vector<platform::DriverRow>>& rows, const DeviceCensus& census) {
  MachineSource source;
  source.adapterRecords = [records, log] {
    for (const std::string& message : log) {
      platform::QdxLog(platform::kSkipMessageLevel, message);
    }
    return records;
  };
  source.driverRows = [rows](std::vector<platform::DriverRow>& read) {
    if (!rows) {
      return false;
    }
    read = *rows;
    return true;
  };
  source.countPlatforms = [count = census.platformCount] { return count; };
  source.takeCensus = [census] {
    PrintCensus(census);
    return census;
  };
  return source;
}

}  // namespace

MachineRecord RecordThisMachine() {
  const MachineSource machine = ThisMachine();
  MachineRecord record;
  // The adapter library logs through the run's callback at the run's threshold.
  QDXLogSetLogLevelThreshold(qdx::kRunLogThreshold);
  QDXSetLogCallback(&record.adapterLog, KeepLogMessage);
  const std::vector<qdx::platform::AdapterInfo_> records = machine.adapterRecords();
  QDXSetLogCallback(nullptr, nullptr);
  std::vector<platform::DriverRow> rows;
  if (machine.driverRows(rows)) {
    record.driverRows = rows;
  }

  SilencePrint(true);
  CollectAdapters(record.adapters, SourceOf(records, {}, record.driverRows, {}));
  // In the order of a run: the count, then the census.
  const uint32_t platformCount = machine.countPlatforms();
  record.census = machine.takeCensus();
  record.census.platformCount = platformCount;
  SilencePrint(false);
  return record;
}

MachineSource RecordedMachine(const MachineRecord& record) {
  return SourceOf(RecordsOf(record.adapters), record.adapterLog, record.driverRows, record.census);
}

AdapterList RebuildAdapterList(const MachineRecord& record) {
  AdapterList rebuilt;
  CollectAdapters(rebuilt, SourceOf(RecordsOf(record.adapters), {}, record.driverRows, {}));
  return rebuilt;
}

}  // namespace gpuvet::fleet
