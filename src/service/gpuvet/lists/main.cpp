#include "lists/lists_main.h"
#include "platform/process.h"

// Commands that ask OpenCL load vendor libraries into the process: it ends as
// gpuvet's does, with its own status, before any vendor's destructor or exit
// handler could change it.
int main(int argc, char** argv) {
  gpuvet::platform::EndProcess(gpuvet::lists::ListsMain(argc, argv));
}
