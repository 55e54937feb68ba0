// The display adapters from SetupAPI: the present devices of the display class,
// in SetupAPI's order.
#include <windows.h>
// clang-format off
#include <initguid.h>
#include <devguid.h>
// clang-format on
#include <setupapi.h>

#include <algorithm>
#include <cstring>
#include <cwchar>
#include <cwctype>
#include <optional>
#include <string>
#include <vector>

#include "platform/qdx.h"
#include "platform/qdx_log.h"
#include "platform/windows/wide_text.h"

namespace {

// Room for an instance id (MAX_DEVICE_ID_LEN) with its closing NUL.
constexpr DWORD kInstanceIdUnits = 201;

// Destroys the device information set it holds when it goes.
class DeviceInfoSet {
 public:
  explicit DeviceInfoSet(HDEVINFO set) : set_(set) {}
  ~DeviceInfoSet() {
    if (set_ != INVALID_HANDLE_VALUE) {
      ::SetupDiDestroyDeviceInfoList(set_);
    }
  }
  DeviceInfoSet(const DeviceInfoSet&) = delete;
  DeviceInfoSet& operator=(const DeviceInfoSet&) = delete;

  HDEVINFO Get() const { return set_; }

 private:
  HDEVINFO set_;
};

// A text property of the device (REG_SZ, or the first string of a REG_MULTI_SZ).
std::optional<std::wstring> TextProperty(HDEVINFO set, SP_DEVINFO_DATA& device, DWORD property) {
  DWORD bytes = 0;
  ::SetupDiGetDeviceRegistryPropertyW(set, &device, property, nullptr, nullptr, 0, &bytes);
  if (bytes == 0) {
    return std::nullopt;
  }
  // Zeroed and one unit longer than asked for: the text always ends in a NUL.
  std::vector<wchar_t> buffer(bytes / sizeof(wchar_t) + 2, L'\0');
  if (!::SetupDiGetDeviceRegistryPropertyW(set, &device, property, nullptr, reinterpret_cast<BYTE*>(buffer.data()),
                                           bytes, nullptr)) {
    return std::nullopt;
  }
  return std::wstring(buffer.data());
}

// The hexadecimal number after `key` in the hardware id, or nothing.
std::optional<uint32_t> IdAfter(const std::wstring& hardwareId, const wchar_t* key) {
  const std::size_t at = hardwareId.find(key);
  if (at == std::wstring::npos) {
    return std::nullopt;
  }
  const wchar_t* digits = hardwareId.c_str() + at + std::wcslen(key);
  wchar_t* end = nullptr;
  const unsigned long value = std::wcstoul(digits, &end, 16);
  if (end == digits || !std::iswxdigit(*digits)) {
    return std::nullopt;
  }
  return static_cast<uint32_t>(value);
}

std::optional<qdx::platform::AdapterInfo_> MakeRecord(HDEVINFO set, SP_DEVINFO_DATA& device) {
  wchar_t instanceId[kInstanceIdUnits] = {};
  ::SetupDiGetDeviceInstanceIdW(set, &device, instanceId, kInstanceIdUnits - 1, nullptr);
  const std::wstring hardwareId = TextProperty(set, device, SPDRP_HARDWAREID).value_or(std::wstring());
  const std::optional<uint32_t> vendorId = IdAfter(hardwareId, L"VEN_");
  const std::optional<uint32_t> deviceId = IdAfter(hardwareId, L"DEV_");
  if (!vendorId || !deviceId) {
    gpuvet::platform::QdxLog(gpuvet::platform::kSkipMessageLevel, "skipping " + gpuvet::platform::windows::ToUtf8(instanceId) +
                               ": no PCI vendor and device in its hardware id");
    return std::nullopt;
  }
  std::optional<std::wstring> name = TextProperty(set, device, SPDRP_DEVICEDESC);
  if (!name) {
    name = TextProperty(set, device, SPDRP_FRIENDLYNAME);
  }
  const std::string utf8Name = gpuvet::platform::windows::ToUtf8(name.value_or(std::wstring()).c_str());

  return gpuvet::platform::MakeAdapterRecord(utf8Name, *vendorId, *deviceId);
}

}  // namespace

std::vector<qdx::platform::AdapterInfo_> QDXGetAdapterInfos() {
  std::vector<qdx::platform::AdapterInfo_> records;
  const DeviceInfoSet set(::SetupDiGetClassDevsW(&GUID_DEVCLASS_DISPLAY, nullptr, nullptr, DIGCF_PRESENT));
  if (set.Get() == INVALID_HANDLE_VALUE) {
    return records;
  }
  SP_DEVINFO_DATA device{};
  device.cbSize = sizeof device;
  for (DWORD index = 0; ::SetupDiEnumDeviceInfo(set.Get(), index, &device); ++index) {
    if (const auto record = MakeRecord(set.Get(), device)) {
      records.push_back(*record);
    }
  }
  return records;
}
