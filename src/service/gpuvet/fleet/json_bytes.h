#pragma once

#include <nlohmann/json.hpp>
#include <string>
#include <string_view>

#include "opencl/cl_device_key.h"

// How the fleet's JSON files keep strings byte for byte. A JSON string carries
// text, so bytes that are valid UTF-8 are written as a JSON string and any
// other bytes as an object {"hex": "..."} with two lower-case hexadecimal
// digits per byte. Readers take both forms wherever a string stands.
namespace gpuvet::fleet {

constexpr const char* kHexMember = "hex";

nlohmann::ordered_json BytesJson(const std::string& bytes);

// The bytes of a string or of a {"hex": ...} object; throws std::runtime_error
// for anything else.
std::string BytesFromJson(const nlohmann::json& value);

// The bytes that hexadecimal text stands for; throws std::runtime_error for an
// odd count or a character that is no digit.
std::string BytesFromHex(std::string_view hex);

// A device key as an object with the list file's field names, its texts byte for byte.
nlohmann::ordered_json KeyJson(const ClDeviceKey& key);
// The key of such an object; throws for a field that is missing or of another type.
ClDeviceKey KeyFromJson(const nlohmann::json& json);

}  // namespace gpuvet::fleet
