// There is no COM on POSIX: initialisation always succeeds.
#include "lib/utility/com-init.h"

namespace tessera {
namespace utility {

int32_t ComInitialize(uint32_t /*coinit_flags*/) { return 0; }
void ComUninitialize() {}

}  // namespace utility
}  // namespace tessera
