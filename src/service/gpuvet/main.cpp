#include <cstdlib>

#include "entry.h"

int main(int argc, char** argv) {
  std::exit(gpuvet::GpuvetMain(argc, argv));
}
