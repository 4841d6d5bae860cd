#include "tool/thumbnail-tool/process-limits.h"

namespace tessera {
namespace tool {

// Windows has no per-process rlimits; a job object with a memory limit would
// be the counterpart and is not set up here: the decoders' own size checks
// are what bounds memory there.
uint64_t AddressSpaceLimit() { return 0; }

void ApplyProcessLimits() {}

}  // namespace tool
}  // namespace tessera
