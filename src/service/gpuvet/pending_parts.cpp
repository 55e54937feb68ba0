// Stand-ins for the parts of a run that are still being built; each goes when
// its part lands.

namespace gpuvet {

}  // namespace gpuvet
