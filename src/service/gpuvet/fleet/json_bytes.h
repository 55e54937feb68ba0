#pragma once

#include <nlohmann/json.hpp>
#include <string>
#include <string_view>

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

}  // namespace gpuvet::fleet
