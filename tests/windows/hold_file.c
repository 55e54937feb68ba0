/*
 * gpuvet_hold_file PATTERN SHARE: another process of the machine for the
 * Windows suite. It keeps trying to open, for reading, every file that matches
 * PATTERN (a folder and a name, wildcards allowed), as a reader that retries
 * would, with the share mode SHARE (FILE_SHARE_ bits in hexadecimal); it holds
 * each file it opens, writes "caught NAME" once for it, and ends with "done"
 * at a line or the end of its standard input.
 */
#include <windows.h>

#include <stdio.h>
#include <wchar.h>

enum { kMaxCaught = 64 };

static volatile LONG g_released;

static DWORD WINAPI AwaitRelease(void* unused) {
  (void)unused;
  for (int c = getchar(); c != EOF && c != '\n'; c = getchar()) {
  }
  InterlockedExchange(&g_released, 1);
  return 0;
}

int wmain(int argc, wchar_t** argv) {
  static wchar_t caught[kMaxCaught][MAX_PATH], folder[MAX_PATH], path[2 * MAX_PATH];
  int caughtCount = 0;
  if (argc != 3) return 2;
  const DWORD share = wcstoul(argv[2], NULL, 16);
  wcsncpy(folder, argv[1], MAX_PATH - 1);
  wchar_t* slash = wcsrchr(folder, L'\\');
  if (slash) slash[1] = L'\0';
  CloseHandle(CreateThread(NULL, 0, AwaitRelease, NULL, 0, NULL));
  while (!g_released) {
    WIN32_FIND_DATAW found;
    HANDLE find = FindFirstFileW(argv[1], &found);
    for (BOOL more = find != INVALID_HANDLE_VALUE; more; more = FindNextFileW(find, &found)) {
      int known = caughtCount == kMaxCaught;
      for (int i = 0; i < caughtCount; ++i) known |= wcscmp(caught[i], found.cFileName) == 0;
      swprintf(path, 2 * MAX_PATH, L"%ls%ls", folder, found.cFileName);
      if (!known && CreateFileW(path, GENERIC_READ, share, NULL, OPEN_EXISTING, 0, NULL) != INVALID_HANDLE_VALUE) {
        wcscpy(caught[caughtCount++], found.cFileName);
        printf("caught %ls\n", found.cFileName);
        fflush(stdout);
      }
    }
    if (find != INVALID_HANDLE_VALUE) FindClose(find);
  }
  printf("done\n");
  return 0;
}
