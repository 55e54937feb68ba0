#pragma once

#include <string>

namespace gpuvet::platform {

// Appends the UTF-8 bytes of one code point (up to U+10FFFF) to text.
void AppendUtf8(std::string& text, char32_t point);

}  // namespace gpuvet::platform
