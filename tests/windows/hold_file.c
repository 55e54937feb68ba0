/*
 * gpuvet_hold_file: holds files open for the Windows suite, as another process
 * on the machine would while gpuvet saves beside it.
 *
 *   gpuvet_hold_file PATH SHARE
 *     opens PATH for reading with the share mode SHARE (the FILE_SHARE_ bits,
 *     in hexadecimal) and writes "held" (or "failed ERROR") to standard output
 *   gpuvet_hold_file --catch PATTERN
 *     keeps trying to open every file that matches PATTERN (a folder and a
 *     wildcard name), as a reader that retries would, and holds each one it
 *     opens, without delete sharing; writes "caught NAME" for each
 *
 * Either way the handles stay open until a line or the end of standard input;
 * then it writes "done".
 */
#include <windows.h>

#include <stdio.h>
#include <stdlib.h>
#include <wchar.h>

static volatile LONG g_released;

static DWORD WINAPI AwaitRelease(void* unused) {
  (void)unused;
  for (int c = getchar(); c != EOF && c != '\n'; c = getchar()) {
  }
  InterlockedExchange(&g_released, 1);
  return 0;
}

enum { kMaxCaught = 64 };

static void Catch(const wchar_t* pattern) {
  static wchar_t caught[kMaxCaught][MAX_PATH];
  int caughtCount = 0;
  wchar_t folder[MAX_PATH];
  wcsncpy(folder, pattern, MAX_PATH - 1);
  folder[MAX_PATH - 1] = L'\0';
  wchar_t* slash = wcsrchr(folder, L'\\');
  if (slash) slash[1] = L'\0';
  printf("watching\n");
  fflush(stdout);
  while (!g_released) {
    WIN32_FIND_DATAW found;
    HANDLE find = FindFirstFileW(pattern, &found);
    if (find == INVALID_HANDLE_VALUE) continue;
    do {
      int known = 0;
      for (int i = 0; i < caughtCount; ++i) known |= wcscmp(caught[i], found.cFileName) == 0;
      if (known || caughtCount == kMaxCaught) continue;
      wchar_t path[2 * MAX_PATH];
      swprintf(path, 2 * MAX_PATH, L"%ls%ls", folder, found.cFileName);
      if (CreateFileW(path, GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE, NULL, OPEN_EXISTING,
                      FILE_ATTRIBUTE_NORMAL, NULL) != INVALID_HANDLE_VALUE) {
        wcscpy(caught[caughtCount++], found.cFileName);
        printf("caught %ls\n", found.cFileName);
        fflush(stdout);
      }
    } while (FindNextFileW(find, &found));
    FindClose(find);
  }
}

int wmain(int argc, wchar_t** argv) {
  if (argc != 3) return 2;
  if (wcscmp(argv[1], L"--catch") == 0) {
    CloseHandle(CreateThread(NULL, 0, AwaitRelease, NULL, 0, NULL));
    Catch(argv[2]);
    printf("done\n");
    return 0;
  }
  const DWORD share = wcstoul(argv[2], NULL, 16);
  HANDLE file = CreateFileW(argv[1], GENERIC_READ, share, NULL, OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, NULL);
  if (file == INVALID_HANDLE_VALUE) {
    printf("failed %lu\n", GetLastError());
    return 1;
  }
  printf("held\n");
  fflush(stdout);
  AwaitRelease(NULL);
  CloseHandle(file);
  printf("done\n");
  return 0;
}
