#include "lib/utility/process-exit.h"

#include <windows.h>

#include <cstdlib>

namespace tessera {
namespace utility {

void EndProcessNow(int status) {
  TerminateProcess(GetCurrentProcess(), static_cast<UINT>(status));
  std::_Exit(status);  // not reached
}

}  // namespace utility
}  // namespace tessera
