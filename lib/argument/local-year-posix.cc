#include "lib/argument/local-year.h"

#include <time.h>

namespace tessera {
namespace argument {

int CurrentLocalYear() {
  time_t now = time(nullptr);
  struct tm local {};
  // localtime_r instead of localtime: the latter's static buffer is shared
  // with every other thread of the process.
  if (localtime_r(&now, &local) == nullptr) return 1970;
  return local.tm_year + 1900;
}

}  // namespace argument
}  // namespace tessera
