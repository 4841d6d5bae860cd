// The shared scratch directory (lib/utility/testing/scratch-dir.h) with the
// Join() spelling of Path() that the end-to-end tests use.
#ifndef TESSERA_LIB_THUMBNAIL_TESTING_SCRATCH_DIR_H_
#define TESSERA_LIB_THUMBNAIL_TESTING_SCRATCH_DIR_H_

#include <string>

#include "lib/utility/testing/scratch-dir.h"

namespace tessera {
namespace thumbnail {
namespace testing {

class ScratchDir : public test::ScratchDir {
 public:
  std::string Join(const std::string& name) const { return Path(name); }
};

}  // namespace testing
}  // namespace thumbnail
}  // namespace tessera

#endif  // TESSERA_LIB_THUMBNAIL_TESTING_SCRATCH_DIR_H_
