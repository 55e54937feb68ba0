/* g++ emits its own __cxa_pure_virtual as a weak C++ definition on PE: this one,
 * in C, wins, and takes a pure virtual call to the tool's handler. */
void gpuvet_windows_pure_call(void);

void __cxa_pure_virtual(void) {
  gpuvet_windows_pure_call();
}
