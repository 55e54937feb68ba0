// Stand-ins for the parts of a run that are still being built; each goes when
// its part lands.
#include "result_serialize.h"
#include "verdict/exit_codes.h"

namespace gpuvet {

int32_t ResultSerialize::Load(std::string, const AdapterList&) { return 0; }
bool ResultSerialize::Find(const AdapterEntry&, AdapterResult&) const { return false; }
int32_t SaveAdapterResults(ResultSerialize&, const AdapterList&, int32_t, int32_t) { return 0; }

}  // namespace gpuvet
