#include <cstdlib>

#include "lists/lists_main.h"

int main(int argc, char** argv) {
  std::exit(gpuvet::lists::ListsMain(argc, argv));
}
