#pragma once

#include <cstdio>

// The printf dialect that Print's formats are checked against: the C99 one the
// runtime prints with. On mingw plain "printf" would mean Microsoft's, which
// knows no %zu.
#if defined(__MINGW_PRINTF_FORMAT)
#define GPUVET_PRINTF_FORMAT __MINGW_PRINTF_FORMAT
#else
#define GPUVET_PRINTF_FORMAT printf
#endif
