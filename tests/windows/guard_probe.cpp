// gpuvet_guard_probe: the process as gpuvet sets it up, ended the ways a
// vendor library or a broken class may end it. For the Windows suite.
//
//   gpuvet_guard_probe MODE
//
// MODE: "fault" (an access violation inside a catch-all block), "abort",
// "exit" (exit(0)), all while the end is guarded with the refusal code; or
// "purecall" (a pure virtual call, unguarded).
#include <cstdio>
#include <cstdlib>
#include <string>

#include "entry.h"
#include "exit_codes.h"
#include "platform/process.h"

// Outside an anonymous namespace, so that the optimiser can't know every
// override and call the one it finds instead of the pure one.
struct CallsPureInConstructor;
void CallPure(CallsPureInConstructor* object);

struct CallsPureInConstructor {
  CallsPureInConstructor() { CallPure(this); }
  virtual ~CallsPureInConstructor() = default;
  virtual void Pure() = 0;
};
struct Derived : CallsPureInConstructor {
  void Pure() override { std::puts("derived"); }
};

// Through an object the optimiser can't see into: a real call through the vtable.
[[gnu::noinline]] void CallPure(CallsPureInConstructor* object) {
  CallsPureInConstructor* volatile opaque = object;
  opaque->Pure();
}

int wmain(int argc, wchar_t** argv) {
  if (argc != 2) {
    return 2;
  }
  const std::wstring mode = argv[1];
  gpuvet::platform::SetErrorMode(3);
  gpuvet::platform::SetPureCallHandler(gpuvet::OnPureCall);
  if (mode == L"purecall") {
    const Derived derived;
    return 0;
  }
  gpuvet::platform::GuardProcessEnd(gpuvet::GPUVET_NOT_IN_WHITELIST);
  if (mode == L"fault") {
    // The way a vendor's fault meets a census that catches everything.
    try {
      *static_cast<volatile int*>(nullptr) = 1;
    } catch (...) {
      std::puts("caught");
    }
  } else if (mode == L"abort") {
    std::abort();
  } else if (mode == L"exit") {
    std::exit(0);
  }
  return 0;
}
