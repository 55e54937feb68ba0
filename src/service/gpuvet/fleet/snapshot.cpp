#include "fleet/snapshot.h"

#include <simdjson.h>

#include <ctime>
#include <fstream>
#include <limits>
#include <nlohmann/json.hpp>
#include <sstream>
#include <stdexcept>
#include <string_view>

#include "fleet/json_bytes.h"
#include "verdict/list_file.h"
#include "fleet/quiet_print.h"

namespace gpuvet::fleet {

const std::size_t kReadPadding = simdjson::SIMDJSON_PADDING;

namespace {

using Json = nlohmann::ordered_json;
using Value = simdjson::dom::element;

// A snapshot that is well-formed JSON but not what the format says.
struct BadSnapshot : std::runtime_error {
  using std::runtime_error::runtime_error;
};

std::string ReadBytes(Value value) {
  if (value.type() != simdjson::dom::element_type::OBJECT) {
    return std::string(std::string_view(value.get_string()));
  }
  const simdjson::dom::object object = value.get_object();
  if (object.size() != 1) {
    throw BadSnapshot("a byte string object holds other members than \"hex\"");
  }
  return BytesFromHex(object[kHexMember].get_string().value());
}

std::optional<std::string> ReadOptionalBytes(Value value) {
  if (value.is_null()) {
    return std::nullopt;
  }
  return ReadBytes(value);
}

uint32_t ReadUint32(Value value, const char* what) {
  const uint64_t number = value.get_uint64();
  if (number > std::numeric_limits<uint32_t>::max()) {
    throw BadSnapshot(std::string(what) + " is beyond 32 bits");
  }
  return static_cast<uint32_t>(number);
}

// --- writing ---

void PutText(Json& object, const char* name, const std::optional<std::string>& value) {
  if (value) {
    object[name] = BytesJson(*value);
  }
}


Json DeviceJson(const CensusDevice& device) {
  Json json = Json::object();
  if (device.type) json["type"] = *device.type;
  PutText(json, "name", device.name);
  PutText(json, "version", device.version);
  PutText(json, "driverVersion", device.driverVersion);
  if (device.vendorId) json["vendorId"] = *device.vendorId;
  PutText(json, "openClCVersion", device.openClCVersion);
  PutText(json, "extensions", device.extensions);
  if (device.key) json["key"] = KeyJson(*device.key);
  return json;
}

Json PlatformJson(const CensusPlatform& platform) {
  Json json = Json::object();
  if (platform.gpuCount) {
    json["gpuCount"] = *platform.gpuCount;
    json["handle"] = BytesJson(platform.handle);
  }
  PutText(json, "profile", platform.profile);
  PutText(json, "version", platform.version);
  PutText(json, "name", platform.name);
  PutText(json, "vendor", platform.vendor);
  PutText(json, "icdSuffix", platform.icdSuffix);
  PutText(json, "extensions", platform.extensions);
  Json devices = Json::array();
  for (const CensusDevice& device : platform.devices) {
    devices.push_back(DeviceJson(device));
  }
  json["devices"] = devices;
  json["failed"] = platform.failed;
  return json;
}

Json AdapterJson(const AdapterEntry& adapter) {
  return Json{{"venID", adapter.venID},
              {"devID", adapter.devID},
              {"devName", BytesJson(adapter.devName)},
              {"strDrvVer", BytesJson(adapter.strDrvVer)},
              {"strDrvDate", BytesJson(adapter.strDrvDate)}};
}

Json RowJson(const platform::DriverRow& row) {
  Json json = Json::object();
  PutText(json, "Caption", row.caption);
  PutText(json, "PNPDeviceID", row.pnpDeviceId);
  PutText(json, "DriverVersion", row.driverVersion);
  PutText(json, "DriverDate", row.driverDate);
  return json;
}

// --- reading ---

// The field names are the list file's, from its one table.
ClDeviceKey ReadKey(Value value) {
  ClDeviceKey key;
  for (const auto& member : value.get_object()) {
    for (const KeyField& field : kKeyFields) {
      if (member.key != field.name) {
        continue;
      }
      if (field.text == nullptr) {
        key.VID = ReadUint32(member.value, "a VID");
      } else {
        key.*field.text = ReadBytes(member.value);
      }
    }
  }
  return key;
}

CensusDevice ReadDevice(Value value) {
  CensusDevice device;
  for (const auto& field : value.get_object()) {
    const std::string_view name = field.key;
    if (name == "type") device.type = field.value.get_uint64();
    else if (name == "name") device.name = ReadBytes(field.value);
    else if (name == "version") device.version = ReadBytes(field.value);
    else if (name == "driverVersion") device.driverVersion = ReadBytes(field.value);
    else if (name == "vendorId") device.vendorId = ReadUint32(field.value, "a vendorId");
    else if (name == "openClCVersion") device.openClCVersion = ReadBytes(field.value);
    else if (name == "extensions") device.extensions = ReadBytes(field.value);
    else if (name == "key") device.key = ReadKey(field.value);
  }
  return device;
}

CensusPlatform ReadPlatform(Value value) {
  CensusPlatform platform;
  for (const auto& field : value.get_object()) {
    const std::string_view name = field.key;
    if (name == "gpuCount") platform.gpuCount = field.value.get_uint64();
    else if (name == "handle") platform.handle = ReadBytes(field.value);
    else if (name == "profile") platform.profile = ReadBytes(field.value);
    else if (name == "version") platform.version = ReadBytes(field.value);
    else if (name == "name") platform.name = ReadBytes(field.value);
    else if (name == "vendor") platform.vendor = ReadBytes(field.value);
    else if (name == "icdSuffix") platform.icdSuffix = ReadBytes(field.value);
    else if (name == "extensions") platform.extensions = ReadBytes(field.value);
    else if (name == "failed") platform.failed = field.value.get_bool();
    else if (name == "devices") {
      for (Value device : field.value.get_array()) {
        platform.devices.push_back(ReadDevice(device));
      }
    }
  }
  return platform;
}

DeviceCensus ReadCensus(Value value) {
  DeviceCensus census;
  for (const auto& field : value.get_object()) {
    const std::string_view name = field.key;
    if (name == "platformCount") census.platformCount = ReadUint32(field.value, "platformCount");
    else if (name == "platformListFailed") census.platformListFailed = field.value.get_bool();
    else if (name == "platforms") {
      for (Value platform : field.value.get_array()) {
        census.platforms.push_back(ReadPlatform(platform));
      }
    }
  }
  return census;
}

AdapterEntry ReadAdapter(Value value) {
  AdapterEntry adapter;
  for (const auto& field : value.get_object()) {
    const std::string_view name = field.key;
    if (name == "venID") adapter.venID = ReadUint32(field.value, "a venID");
    else if (name == "devID") adapter.devID = ReadUint32(field.value, "a devID");
    else if (name == "devName") adapter.devName = ReadBytes(field.value);
    else if (name == "strDrvVer") adapter.strDrvVer = ReadBytes(field.value);
    else if (name == "strDrvDate") adapter.strDrvDate = ReadBytes(field.value);
  }
  return adapter;
}

platform::DriverRow ReadRow(Value value) {
  platform::DriverRow row;
  for (const auto& field : value.get_object()) {
    const std::string_view name = field.key;
    if (name == "Caption") row.caption = ReadOptionalBytes(field.value);
    else if (name == "PNPDeviceID") row.pnpDeviceId = ReadOptionalBytes(field.value);
    else if (name == "DriverVersion") row.driverVersion = ReadOptionalBytes(field.value);
    else if (name == "DriverDate") row.driverDate = ReadOptionalBytes(field.value);
  }
  return row;
}

// How many of the values are present before the first missing one, and
// whether all the present ones stand in that prefix.
template <typename... Optionals>
bool AnsweredInOrder(std::size_t& answered, const Optionals&... values) {
  answered = 0;
  bool gap = false;
  bool inOrder = true;
  for (const bool present : {values.has_value()...}) {
    inOrder = inOrder && !(gap && present);
    gap = gap || !present;
    answered += present && !gap ? 1 : 0;
  }
  return inOrder;
}

constexpr std::size_t kPlatformTexts = 6;
constexpr std::size_t kDeviceValues = 7;

// A census holds together when it reads as the census walk leaves one: values
// answered in order, a turn that stopped early marked as failed, and nothing
// after the point where it stopped.
void CheckCensus(const DeviceCensus& census) {
  if (census.platformListFailed && !census.platforms.empty()) {
    throw BadSnapshot("the census has platforms although its platform list failed");
  }
  for (const CensusPlatform& platform : census.platforms) {
    std::size_t texts = 0;
    if (!AnsweredInOrder(texts, platform.profile, platform.version, platform.name, platform.vendor,
                         platform.icdSuffix, platform.extensions)) {
      throw BadSnapshot("a platform's texts are not answered in order");
    }
    bool complete = platform.gpuCount.has_value() && texts == kPlatformTexts;
    if (!platform.gpuCount && (texts > 0 || !platform.devices.empty())) {
      throw BadSnapshot("a platform without a GPU count has texts or devices");
    }
    if (!platform.devices.empty() && texts != kPlatformTexts) {
      throw BadSnapshot("a platform has devices but not all its texts");
    }
    if (platform.gpuCount && platform.devices.size() > *platform.gpuCount) {
      throw BadSnapshot("a platform has more devices than its GPU count");
    }
    for (std::size_t j = 0; j < platform.devices.size(); ++j) {
      const CensusDevice& device = platform.devices[j];
      std::size_t values = 0;
      if (!AnsweredInOrder(values, device.type, device.name, device.version, device.driverVersion, device.vendorId,
                           device.openClCVersion, device.extensions)) {
        throw BadSnapshot("a device's values are not answered in order");
      }
      const bool whole = values == kDeviceValues && device.key.has_value();
      if (device.key && values != kDeviceValues) {
        throw BadSnapshot("a device has a key but not all its values");
      }
      if (!whole && j + 1 != platform.devices.size()) {
        throw BadSnapshot("a device that stopped its platform's turn has devices after it");
      }
      complete = complete && whole;
    }
    complete = complete && platform.devices.size() == *platform.gpuCount;
    if (!complete && !platform.failed) {
      throw BadSnapshot("a platform's turn stopped early but is not marked as failed");
    }
  }
}

}  // namespace

std::string SnapshotJson(const MachineRecord& record, const std::string& tool, const std::string& takenAt) {
  Json adapters = Json::array();
  for (const AdapterEntry& adapter : record.adapters) {
    adapters.push_back(AdapterJson(adapter));
  }
  Json log = Json::array();
  for (const std::string& message : record.adapterLog) {
    log.push_back(BytesJson(message));
  }
  Json rows = nullptr;
  if (record.driverRows) {
    rows = Json::array();
    for (const platform::DriverRow& row : *record.driverRows) {
      rows.push_back(RowJson(row));
    }
  }
  Json platforms = Json::array();
  for (const CensusPlatform& platform : record.census.platforms) {
    platforms.push_back(PlatformJson(platform));
  }
  const Json snapshot = {{"format", kSnapshotFormat},
                         {"formatVersion", kSnapshotFormatVersion},
                         {"tool", tool},
                         {"taken", takenAt},
                         {"adapters", adapters},
                         {"adapterLog", log},
                         {"driverRows", rows},
                         {"census",
                          {{"platformCount", record.census.platformCount},
                           {"platformListFailed", record.census.platformListFailed},
                           {"platforms", platforms}}}};
  return snapshot.dump();
}

std::string UtcTimeNow() {
  const std::time_t now = std::time(nullptr);
  char text[32];
  std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%SZ", std::gmtime(&now));
  return text;
}

struct SnapshotReader::Parser {
  simdjson::dom::parser parser;
};

SnapshotReader::SnapshotReader() : parser_(std::make_unique<Parser>()) {}
SnapshotReader::~SnapshotReader() = default;

bool SnapshotReader::Read(const char* text, std::size_t length, std::size_t capacity, MachineRecord& record,
                          std::string& reason) {
  record = MachineRecord{};
  try {
    if (capacity < length + kReadPadding) {
      throw BadSnapshot("the reader's buffer lacks its padding");
    }
    const Value document = parser_->parser.parse(text, length, false);
    bool formatSeen = false;
    bool adaptersSeen = false;
    bool rowsSeen = false;
    bool censusSeen = false;
    for (const auto& field : document.get_object()) {
      const std::string_view name = field.key;
      const Value value = field.value;
      if (name == "format") {
        if (std::string_view(value.get_string()) != kSnapshotFormat) {
          throw BadSnapshot("\"format\" is not \"" + std::string(kSnapshotFormat) + "\"");
        }
        formatSeen = true;
      } else if (name == "formatVersion") {
        const uint64_t version = value.get_uint64();
        if (version == 0 || version > kSnapshotFormatVersion) {
          throw BadSnapshot("format version " + std::to_string(version) + " is not one this tool reads (1 to " +
                            std::to_string(kSnapshotFormatVersion) + ")");
        }
      } else if (name == "adapters") {
        for (Value adapter : value.get_array()) {
          record.adapters.push_back(ReadAdapter(adapter));
        }
        adaptersSeen = true;
      } else if (name == "adapterLog") {
        for (Value message : value.get_array()) {
          record.adapterLog.push_back(ReadBytes(message));
        }
      } else if (name == "driverRows") {
        if (!value.is_null()) {
          record.driverRows.emplace();
          for (Value row : value.get_array()) {
            record.driverRows->push_back(ReadRow(row));
          }
        }
        rowsSeen = true;
      } else if (name == "census") {
        record.census = ReadCensus(value);
        censusSeen = true;
      }
    }
    if (!formatSeen || !adaptersSeen || !rowsSeen || !censusSeen) {
      throw BadSnapshot("\"format\", \"adapters\", \"driverRows\" and \"census\" are required");
    }
    CheckCensus(record.census);
    const QuietPrint quiet;
    const AdapterList rebuilt = RebuildAdapterList(record);
    for (std::size_t i = 0; i < rebuilt.size(); ++i) {
      if (!AdapterEntryEqual(rebuilt[i], record.adapters[i])) {
        throw BadSnapshot("adapter " + std::to_string(i) +
                          " is not what its name and ids and the driver rows give (\"" + rebuilt[i].strDrvVer +
                          "\", \"" + rebuilt[i].strDrvDate + "\")");
      }
    }
    return true;
  } catch (const simdjson::simdjson_error& error) {
    reason = std::string("not JSON of the snapshot's shape: ") + error.what();
  } catch (const std::runtime_error& error) {
    reason = error.what();
  }
  return false;
}

bool ReadSnapshotFile(const std::string& path, MachineRecord& record, std::string& reason) {
  std::ifstream file(path, std::ios::binary);
  std::ostringstream text;
  if (!file || !(text << file.rdbuf())) {
    // An empty file reads as no text at all.
    if (!file) {
      reason = "can't be read";
      return false;
    }
  }
  std::string content = text.str();
  const std::size_t length = content.size();
  content.resize(length + kReadPadding);
  SnapshotReader reader;
  return reader.Read(content.data(), length, content.size(), record, reason);
}

}  // namespace gpuvet::fleet
