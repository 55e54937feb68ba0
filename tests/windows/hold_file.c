/*
 * gpuvet_hold_file: holds a file open for the Windows suite, as another
 * process on the machine would while gpuvet saves beside it.
 *
 *   gpuvet_hold_file PATH SHARE
 *
 * Opens PATH for reading with the share mode SHARE (the FILE_SHARE_ bits, in
 * hexadecimal), writes "held" (or "failed ERROR") to standard output and keeps
 * the handle until a line or the end of its standard input.
 */
#include <windows.h>

#include <stdio.h>
#include <stdlib.h>

int wmain(int argc, wchar_t** argv) {
  if (argc != 3) return 2;
  const DWORD share = wcstoul(argv[2], NULL, 16);
  HANDLE file = CreateFileW(argv[1], GENERIC_READ, share, NULL, OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, NULL);
  if (file == INVALID_HANDLE_VALUE) {
    printf("failed %lu\n", GetLastError());
    return 1;
  }
  printf("held\n");
  fflush(stdout);
  for (int c = getchar(); c != EOF && c != '\n'; c = getchar()) {
  }
  CloseHandle(file);
  return 0;
}
