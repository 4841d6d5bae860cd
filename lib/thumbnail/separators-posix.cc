// On POSIX '/' is the only separator and '\' an ordinary file-name byte, so
// paths are left as they are.
#include "lib/thumbnail/thumbnail-helper.h"

namespace tessera {
namespace thumbnail {

std::string NormalizeSeparators(const std::string& path) { return path; }

}  // namespace thumbnail
}  // namespace tessera
