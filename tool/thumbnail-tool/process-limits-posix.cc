#include "tool/thumbnail-tool/process-limits.h"

#include <signal.h>
#include <sys/resource.h>
#include <unistd.h>

namespace tessera {
namespace tool {
namespace {

#if defined(__SANITIZE_ADDRESS__)
constexpr bool kAddressSanitizer = true;
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
constexpr bool kAddressSanitizer = true;
#else
constexpr bool kAddressSanitizer = false;
#endif
#else
constexpr bool kAddressSanitizer = false;
#endif

// Lowers the soft and hard limit of `resource` to `value` unless they are
// already lower.
void Lower(int resource, uint64_t value) {
  struct rlimit limit;
  if (getrlimit(resource, &limit) != 0) return;
  const rlim_t wanted = static_cast<rlim_t>(value);
  if (limit.rlim_max != RLIM_INFINITY && limit.rlim_max < wanted) return;
  if (limit.rlim_cur != RLIM_INFINITY && limit.rlim_cur < wanted) return;
  limit.rlim_cur = wanted;
  limit.rlim_max = wanted;
  setrlimit(resource, &limit);
}

}  // namespace

uint64_t AddressSpaceLimit() {
  if (kAddressSanitizer) return 0;
  long threads = sysconf(_SC_NPROCESSORS_ONLN);
  if (threads < 1) threads = 1;
  return kBaseAddressSpaceBytes + static_cast<uint64_t>(threads) * kAddressSpacePerThreadBytes;
}

void ApplyProcessLimits() {
  signal(SIGXFSZ, SIG_IGN);
  Lower(RLIMIT_FSIZE, kMaxOutputFileBytes);
  const uint64_t address_space = AddressSpaceLimit();
  if (address_space != 0) Lower(RLIMIT_AS, address_space);
}

}  // namespace tool
}  // namespace tessera
