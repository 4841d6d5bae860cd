// Windows paths use '\'; the tool reports them that way.
#include <algorithm>

#include "lib/thumbnail/thumbnail-helper.h"

namespace tessera {
namespace thumbnail {

std::string NormalizeSeparators(const std::string& path) {
  std::string normalized = path;
  std::replace(normalized.begin(), normalized.end(), '/', '\\');
  return normalized;
}

}  // namespace thumbnail
}  // namespace tessera
