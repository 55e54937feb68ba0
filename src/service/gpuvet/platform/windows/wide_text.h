#pragma once

#include <string>

// Wide text of the system as the tool's narrow strings, and back.
namespace gpuvet::platform::windows {

// UTF-8 through the system's own conversion; an invalid unit becomes U+FFFD.
std::string ToUtf8(const wchar_t* text);

// A command line element as narrow text that keeps every UTF-16 unit: UTF-8,
// with a lone surrogate written as the three bytes of its own value. ToArgument
// and FromArgument are each other's inverse, so the runtime's wide text
// functions see exactly the element the host passed.
std::string ToArgument(const wchar_t* text);
std::wstring FromArgument(const char* text);

// A narrow file path as the runtime's narrow file functions read it (the ANSI
// code page), for the wide file calls.
std::wstring PathToWide(const std::string& path);

}  // namespace gpuvet::platform::windows
