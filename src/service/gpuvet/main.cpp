#include "entry.h"
#include "platform/process.h"

int main(int argc, char** argv) {
  gpuvet::platform::EndProcess(gpuvet::GpuvetMain(argc, argv));
}
