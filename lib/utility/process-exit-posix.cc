#include "lib/utility/process-exit.h"

#include <cstdlib>

namespace tessera {
namespace utility {

void EndProcessNow(int status) { std::_Exit(status); }

}  // namespace utility
}  // namespace tessera
