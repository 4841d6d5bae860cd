#include "lib/argument/local-year.h"

#include <time.h>

namespace tessera {
namespace argument {

int CurrentLocalYear() {
  time_t now = time(nullptr);
  struct tm local {};
  if (localtime_s(&local, &now) != 0) return 1970;
  return local.tm_year + 1900;
}

}  // namespace argument
}  // namespace tessera
