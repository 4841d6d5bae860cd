// The fixed table of thumbnail sizes, and what one size's generation yields.
//
// Every function here is thread-safe: the tables are function-local statics,
// built once on first use and only read afterwards.
#ifndef TESSERA_LIB_THUMBNAIL_THUMBNAIL_SIZE_H_
#define TESSERA_LIB_THUMBNAIL_THUMBNAIL_SIZE_H_

#include <cstdint>
#include <string>
#include <unordered_set>
#include <utility>
#include <vector>

namespace tessera {
namespace thumbnail {

// Size id: 0 "small" (120), 1 "small-medium" (240), 2 "medium" (320),
// 3 "large" (1280).
using ThumbnailSize = uint32_t;

// The size's name; "" for an id outside 0..3.
std::string SizeName(ThumbnailSize size);

// The size's edge length in pixels; 0 for an id outside 0..3.
uint32_t PixelSize(ThumbnailSize size);

// The id whose name equals `name` exactly (case-sensitive). Never refuses:
// any text that is not "small-medium", "medium" or "large" gives 0.
ThumbnailSize SizeFromName(const std::string& name);

// Every size id, in the order 0, 1, 2, 3. The list lives until exit.
const std::vector<ThumbnailSize>& AllSizes();

// Why one size has no thumbnail.
enum ThumbnailError : uint32_t {
  kUnsupportedType = 0,    // the extension is neither an image nor a video one
  kTimeout = 1,            // the job did not finish within its time limit
  kFailed = 2,             // the job failed or threw
  kUnsupportedOption = 3,  // an option code is not a supported one
};

// Either the path of a finished thumbnail (UTF-8) or the reason there is
// none. A plain copyable value.
class ThumbnailResult {
 public:
  // Implicit on purpose, so a generator can `return path;` or `return kFailed;`.
  ThumbnailResult(ThumbnailError error) : error_(error) {}  // NOLINT(runtime/explicit)
  ThumbnailResult(std::string path)                         // NOLINT(runtime/explicit)
      : has_path_(true), path_(std::move(path)) {}

  static ThumbnailResult FromPath(std::string path) { return ThumbnailResult(std::move(path)); }
  static ThumbnailResult FromError(ThumbnailError error) { return ThumbnailResult(error); }

  bool has_path() const { return has_path_; }
  // The path; "" when the result holds an error.
  const std::string& path() const { return path_; }
  // The error; meaningful only when !has_path() (then kFailed otherwise).
  ThumbnailError error() const { return error_; }

 private:
  bool has_path_ = false;
  ThumbnailError error_ = kFailed;
  std::string path_;
};

// The option codes a generator accepts. Deliberately empty, so every option
// code is refused with kUnsupportedOption. Lives until exit.
const std::unordered_set<uint32_t>& kSupportedOptions();

}  // namespace thumbnail
}  // namespace tessera

#endif  // TESSERA_LIB_THUMBNAIL_THUMBNAIL_SIZE_H_
