// The rows of Win32_VideoController through WMI. Each call is complete in
// itself: COM is initialised, WMI connected and queried, and everything ended
// again before it returns.
#include <windows.h>
#include <objbase.h>
#include <oleauto.h>
#include <wbemidl.h>

#include <new>
#include <optional>
#include <string>
#include <utility>

#include "platform/driver_rows.h"
#include "platform/windows/wide_text.h"

namespace gpuvet::platform {
namespace {

// WBEM_FLAG_FORWARD_ONLY with WBEM_FLAG_RETURN_IMMEDIATELY.
constexpr long kQueryFlags = WBEM_FLAG_FORWARD_ONLY | WBEM_FLAG_RETURN_IMMEDIATELY;

// COM on this thread for the length of one lookup; ended only when it began.
class ComApartment {
 public:
  ComApartment() : ready_(SUCCEEDED(::CoInitialize(nullptr))) {}
  ~ComApartment() {
    if (ready_) {
      ::CoUninitialize();
    }
  }
  ComApartment(const ComApartment&) = delete;
  ComApartment& operator=(const ComApartment&) = delete;

  bool Ready() const { return ready_; }

 private:
  bool ready_;
};

// Releases the COM object it holds when it goes.
template <typename Interface>
class ComOwner {
 public:
  ComOwner() = default;
  ~ComOwner() { Reset(); }
  ComOwner(const ComOwner&) = delete;
  ComOwner& operator=(const ComOwner&) = delete;

  // Where a call stores a new object; whatever was held goes first.
  Interface** Out() {
    Reset();
    return &object_;
  }
  void** OutVoid() { return reinterpret_cast<void**>(Out()); }
  Interface* Get() const { return object_; }
  Interface* operator->() const { return object_; }
  explicit operator bool() const { return object_ != nullptr; }
  void Reset() {
    if (object_ != nullptr) {
      std::exchange(object_, nullptr)->Release();
    }
  }

 private:
  Interface* object_ = nullptr;
};

// A BSTR for the length of one call. Memory running out here is no failure of
// the lookup: it ends the run as any other exhaustion does.
class Bstr {
 public:
  explicit Bstr(const wchar_t* text) : text_(::SysAllocString(text)) {
    if (text_ == nullptr) {
      throw std::bad_alloc();
    }
  }
  ~Bstr() { ::SysFreeString(text_); }
  Bstr(const Bstr&) = delete;
  Bstr& operator=(const Bstr&) = delete;

  operator BSTR() const { return text_; }

 private:
  BSTR text_;
};

// A value holder, cleared when it goes, whether the read succeeded or not.
class Variant {
 public:
  Variant() { ::VariantInit(&value_); }
  ~Variant() { ::VariantClear(&value_); }
  Variant(const Variant&) = delete;
  Variant& operator=(const Variant&) = delete;

  VARIANT* Get() { return &value_; }

 private:
  VARIANT value_;
};

// A property is present when the read succeeds and holds a string that is not
// null; anything else (a failed read, a null value) is missing.
std::optional<std::string> ReadText(IWbemClassObject* row, const wchar_t* name) {
  Variant holder;
  const HRESULT result = row->Get(name, 0, holder.Get(), nullptr, nullptr);
  if (FAILED(result) || V_VT(holder.Get()) != VT_BSTR || V_BSTR(holder.Get()) == nullptr) {
    return std::nullopt;
  }
  return windows::ToUtf8(V_BSTR(holder.Get()));
}

const wchar_t* PropertyName(DriverRowProperty property) {
  switch (property) {
    case DriverRowProperty::kCaption:
      return L"Caption";
    case DriverRowProperty::kPnpDeviceId:
      return L"PNPDeviceID";
    case DriverRowProperty::kDriverVersion:
      return L"DriverVersion";
    case DriverRowProperty::kDriverDate:
      break;
  }
  return L"DriverDate";
}

}  // namespace

bool ScanDriverRows(const VisitDriverRow& visit) {
  const ComApartment apartment;
  if (!apartment.Ready()) {
    return false;
  }
  // Process security can be set only once: from the second lookup on it is too late, which is fine.
  const HRESULT security = ::CoInitializeSecurity(nullptr, -1, nullptr, nullptr, RPC_C_AUTHN_LEVEL_DEFAULT,
                                                  RPC_C_IMP_LEVEL_IMPERSONATE, nullptr, EOAC_NONE, nullptr);
  if (FAILED(security) && security != RPC_E_TOO_LATE) {
    return false;
  }
  // Declared in this order so that they go as services, locator, enumerator,
  // all ahead of the apartment.
  ComOwner<IEnumWbemClassObject> controllers;
  ComOwner<IWbemLocator> locator;
  ComOwner<IWbemServices> services;

  if (FAILED(::CoCreateInstance(CLSID_WbemLocator, nullptr, CLSCTX_INPROC_SERVER, IID_IWbemLocator,
                                locator.OutVoid()))) {
    return false;
  }
  if (FAILED(locator->ConnectServer(Bstr(L"ROOT\\CIMV2"), nullptr, nullptr, nullptr, 0, nullptr, nullptr,
                                    services.Out()))) {
    return false;
  }
  if (FAILED(::CoSetProxyBlanket(services.Get(), RPC_C_AUTHN_WINNT, RPC_C_AUTHZ_NONE, nullptr,
                                 RPC_C_AUTHN_LEVEL_CALL, RPC_C_IMP_LEVEL_IMPERSONATE, nullptr, EOAC_NONE))) {
    return false;
  }
  {
    // Its rows are never read: the enumerator goes at once.
    ComOwner<IEnumWbemClassObject> systems;
    if (FAILED(services->ExecQuery(Bstr(L"WQL"), Bstr(L"SELECT * FROM Win32_OperatingSystem"), kQueryFlags,
                                   nullptr, systems.Out()))) {
      return false;
    }
  }
  if (FAILED(services->ExecQuery(Bstr(L"WQL"), Bstr(L"SELECT * FROM Win32_VideoController"), kQueryFlags,
                                 nullptr, controllers.Out())) ||
      !controllers) {
    return false;
  }

  for (;;) {
    ComOwner<IWbemClassObject> row;
    ULONG returned = 0;
    // Only the count is read: a call that returns no object ends the rows.
    controllers->Next(static_cast<long>(WBEM_INFINITE), 1, row.Out(), &returned);
    if (returned == 0 || !row) {
      return true;
    }
    const auto read = [&row](DriverRowProperty property) { return ReadText(row.Get(), PropertyName(property)); };
    if (visit(read)) {
      return true;
    }
  }
}

}  // namespace gpuvet::platform
