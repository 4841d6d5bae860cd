// COM initialisation of the calling thread.
#include <objbase.h>

#include "lib/utility/com-init.h"

namespace tessera {
namespace utility {

// S_FALSE (already initialised in the same mode) is a success code and is
// passed on as such; the caller balances it with ComUninitialize like S_OK.
int32_t ComInitialize(uint32_t coinit_flags) {
  return static_cast<int32_t>(CoInitializeEx(nullptr, static_cast<DWORD>(coinit_flags)));
}

void ComUninitialize() { CoUninitialize(); }

}  // namespace utility
}  // namespace tessera
