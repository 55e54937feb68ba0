#include "fleet/json_bytes.h"

#include "verdict/list_file.h"

#include <simdjson.h>

#include <stdexcept>

namespace gpuvet::fleet {
namespace {

constexpr const char* kHexDigits = "0123456789abcdef";
constexpr int kHexBase = 16;

int HexValue(char digit) {
  if (digit >= '0' && digit <= '9') return digit - '0';
  if (digit >= 'a' && digit <= 'f') return digit - 'a' + 10;
  if (digit >= 'A' && digit <= 'F') return digit - 'A' + 10;
  throw std::runtime_error("a \"hex\" string holds a character that is no hexadecimal digit");
}

}  // namespace

nlohmann::ordered_json BytesJson(const std::string& bytes) {
  if (simdjson::validate_utf8(bytes.data(), bytes.size())) {
    return bytes;
  }
  std::string hex;
  hex.reserve(bytes.size() * 2);
  for (const unsigned char byte : bytes) {
    hex += kHexDigits[byte / kHexBase];
    hex += kHexDigits[byte % kHexBase];
  }
  return nlohmann::ordered_json{{kHexMember, hex}};
}

std::string BytesFromHex(std::string_view hex) {
  if (hex.size() % 2 != 0) {
    throw std::runtime_error("a \"hex\" string has an odd number of digits");
  }
  std::string bytes;
  bytes.reserve(hex.size() / 2);
  for (std::size_t at = 0; at < hex.size(); at += 2) {
    bytes += static_cast<char>(HexValue(hex[at]) * kHexBase + HexValue(hex[at + 1]));
  }
  return bytes;
}

std::string BytesFromJson(const nlohmann::json& value) {
  if (value.is_string()) {
    return value.get<std::string>();
  }
  if (value.is_object() && value.size() == 1 && value.contains(kHexMember) && value[kHexMember].is_string()) {
    return BytesFromHex(value[kHexMember].get<std::string>());
  }
  throw std::runtime_error("a string is neither text nor {\"hex\": ...}");
}

nlohmann::ordered_json KeyJson(const ClDeviceKey& key) {
  nlohmann::ordered_json object = nlohmann::ordered_json::object();
  for (const KeyField& field : kKeyFields) {
    if (field.text == nullptr) {
      object[field.name] = key.VID;
    } else {
      object[field.name] = BytesJson(key.*field.text);
    }
  }
  return object;
}

ClDeviceKey KeyFromJson(const nlohmann::json& json) {
  ClDeviceKey key;
  for (const KeyField& field : kKeyFields) {
    if (field.text == nullptr) {
      key.VID = json.at(field.name).get<uint32_t>();
    } else {
      key.*field.text = BytesFromJson(json.at(field.name));
    }
  }
  return key;
}

}  // namespace gpuvet::fleet
