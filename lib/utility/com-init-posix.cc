// There is no COM on POSIX: initialisation always succeeds.
#include "lib/thumbnail/thumbnail-provider.h"

namespace tessera {
namespace thumbnail {

int32_t ComInitialize(uint32_t /*coinit_flags*/) { return 0; }
void ComUninitialize() {}

}  // namespace thumbnail
}  // namespace tessera
