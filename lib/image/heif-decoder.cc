// HEIF/HEIC: the primary image, or its embedded thumbnail when that is large
// enough and of the same shape. libheif applies the file's own transforms
// (rotation, mirror, crop); EXIF orientation is never applied on top.
#include <libheif/heif.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "lib/image/area-resample.h"
#include "lib/image/color-profile.h"
#include "lib/image/decoders.h"
#include "lib/image/heif-structure.h"
#include "lib/image/limits.h"
#include "lib/image/reducing-sink.h"

namespace tessera {
namespace image {
namespace {

constexpr size_t kMaxHeifFileBytes = size_t{256} << 20;
// The longest side libheif may decode (a 16384 x 12288 image is 201 MP).
constexpr int kMaxHeifSide = 16384;

struct ContextFreer {
  void operator()(heif_context* context) const { heif_context_free(context); }
};
struct HandleReleaser {
  void operator()(heif_image_handle* handle) const { heif_image_handle_release(handle); }
};
struct ImageReleaser {
  void operator()(heif_image* image) const { heif_image_release(image); }
};
using HandlePtr = std::unique_ptr<heif_image_handle, HandleReleaser>;

// The smallest thumbnail whose longer side is at least cx and whose aspect
// (after transforms) is within 1% of the primary's, or nullptr.
HandlePtr ChooseThumbnail(heif_image_handle* primary, uint32_t cx) {
  const int count = heif_image_handle_get_number_of_thumbnails(primary);
  if (count <= 0) return nullptr;
  std::vector<heif_item_id> ids(static_cast<size_t>(std::min(count, 16)));
  heif_image_handle_get_list_of_thumbnail_IDs(primary, ids.data(), static_cast<int>(ids.size()));
  const double aspect = static_cast<double>(heif_image_handle_get_width(primary)) /
                        std::max(1, heif_image_handle_get_height(primary));
  HandlePtr best;
  int best_longer = 0;
  for (heif_item_id id : ids) {
    heif_image_handle* raw = nullptr;
    if (heif_image_handle_get_thumbnail(primary, id, &raw).code != heif_error_Ok) continue;
    HandlePtr thumb(raw);
    const int w = heif_image_handle_get_width(thumb.get());
    const int h = heif_image_handle_get_height(thumb.get());
    const int longer = std::max(w, h);
    if (w <= 0 || h <= 0 || static_cast<uint32_t>(longer) < cx) continue;
    if (std::fabs(static_cast<double>(w) / h - aspect) > 0.01 * aspect) continue;
    if (!best || longer < best_longer) {
      best = std::move(thumb);
      best_longer = longer;
    }
  }
  return best;
}

struct NclxFreer {
  void operator()(heif_color_profile_nclx* nclx) const { heif_nclx_color_profile_free(nclx); }
};

// An nclx description with primaries other than BT.709's (which are sRGB's)
// or "unspecified" gives a conversion from those primaries.
ColorTransform NclxTransformFor(heif_image_handle* handle) {
  heif_color_profile_nclx* raw = nullptr;
  if (heif_image_handle_get_nclx_color_profile(handle, &raw).code != heif_error_Ok || raw == nullptr) {
    return ColorTransform();
  }
  std::unique_ptr<heif_color_profile_nclx, NclxFreer> nclx(raw);
  if (nclx->color_primaries == heif_color_primaries_ITU_R_BT_709_5 ||
      nclx->color_primaries == heif_color_primaries_unspecified) {
    return ColorTransform();
  }
  const Chromaticities space = {{nclx->color_primary_red_x, nclx->color_primary_red_y},
                                {nclx->color_primary_green_x, nclx->color_primary_green_y},
                                {nclx->color_primary_blue_x, nclx->color_primary_blue_y},
                                {nclx->color_primary_white_x, nclx->color_primary_white_y}};
  return ColorTransform::FromChromaticities(space, PixelLayout::kBgra8);
}

// An ICC profile wins over an nclx description.
ColorTransform TransformFor(heif_image_handle* handle) {
  const heif_color_profile_type type = heif_image_handle_get_color_profile_type(handle);
  if (type != heif_color_profile_type_prof && type != heif_color_profile_type_rICC) {
    return NclxTransformFor(handle);
  }
  const size_t size = heif_image_handle_get_raw_color_profile_size(handle);
  if (size == 0 || size > (size_t{16} << 20)) return ColorTransform();
  std::vector<uint8_t> icc(size);
  if (heif_image_handle_get_raw_color_profile(handle, icc.data()).code != heif_error_Ok) return ColorTransform();
  return ColorTransform::FromIcc(icc.data(), icc.size(), PixelLayout::kBgra8);
}

// The tool asks for one file at several sizes in a row, and HEVC has no
// reduced decode, so the last primary image decoded is kept (up to
// kMaxCachedBytes), keyed by the file's size and a hash of its bytes: the
// second and later sizes then cost a reduction only.
constexpr size_t kMaxCachedBytes = size_t{128} << 20;

struct DecodedImage {
  uint64_t file_size = 0;
  size_t file_hash = 0;
  int width = 0;
  int height = 0;
  std::vector<uint8_t> bgra;  // sRGB, straight alpha
};

class RecentImageCache {
 public:
  std::shared_ptr<const DecodedImage> Find(uint64_t file_size, size_t file_hash) {
    std::lock_guard<std::mutex> lock(mutex_);
    if (image_ && image_->file_size == file_size && image_->file_hash == file_hash) return image_;
    return nullptr;
  }
  void Store(std::shared_ptr<const DecodedImage> image) {
    std::lock_guard<std::mutex> lock(mutex_);
    image_ = std::move(image);
  }

 private:
  std::mutex mutex_;
  std::shared_ptr<const DecodedImage> image_;
};

// Never destroyed: a timed-out job's thread may still decode while the
// process exits.
RecentImageCache& RecentImage() {
  static RecentImageCache* cache = new RecentImageCache;
  return *cache;
}

class HeifDecoder : public ImageDecoder {
 public:
  Status Decode(ByteSource* source, uint32_t cx, Bitmap* out) override {
    std::string bytes;
    Status status = source->ReadAll(kMaxHeifFileBytes, &bytes);
    if (!status.ok()) return status;
    // libheif's own parsing and grid decoding grow faster than the counts a
    // file declares; files beyond real ones' counts are refused first.
    status = CheckHeifStructure(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size(), *source, nullptr);
    if (!status.ok()) return status;
    std::unique_ptr<heif_context, ContextFreer> context(heif_context_alloc());
    if (!context) return Status::Internal("libheif context");
    // libheif checks this bound against the size the coded stream really
    // has, which may differ from the size the file declares: a 678-byte file
    // declaring 32x24 decoded to 6144x57607. Each side stays within what a
    // 200-megapixel photo needs.
    heif_context_set_maximum_image_size_limit(context.get(), kMaxHeifSide);
    if (heif_context_read_from_memory_without_copy(context.get(), bytes.data(), bytes.size(), nullptr).code !=
        heif_error_Ok) {
      return Status::InvalidArgument("not a readable HEIF");
    }
    heif_image_handle* raw_handle = nullptr;
    if (heif_context_get_primary_image_handle(context.get(), &raw_handle).code != heif_error_Ok) {
      return Status::InvalidArgument("HEIF without a primary image");
    }
    HandlePtr primary(raw_handle);
    const int width = heif_image_handle_get_width(primary.get());
    const int height = heif_image_handle_get_height(primary.get());
    if (width <= 0 || height <= 0 || !WithinPixelLimits(width, height)) return ImageTooLargeError(width, height);

    HandlePtr thumbnail = ChooseThumbnail(primary.get(), cx);
    heif_image_handle* handle = thumbnail ? thumbnail.get() : primary.get();
    if (!WithinDecodeBudget(uint64_t(heif_image_handle_get_width(handle)) * heif_image_handle_get_height(handle) * 8)) {
      return Status::InvalidArgument("HEIF image too large to decode");
    }
    const uint64_t key_hash = std::hash<std::string>()(bytes);
    std::shared_ptr<const DecodedImage> decoded;
    if (!thumbnail) decoded = RecentImage().Find(bytes.size(), key_hash);
    if (!decoded) {
      // The colour profile belongs to the primary image; thumbnails share it.
      status = DecodeToBgra(handle, TransformFor(primary.get()), &decoded);
      if (!status.ok()) return status;
      if (!thumbnail && decoded->bgra.size() <= kMaxCachedBytes) {
        std::shared_ptr<DecodedImage> entry = std::const_pointer_cast<DecodedImage>(decoded);
        entry->file_size = bytes.size();
        entry->file_hash = key_hash;
        RecentImage().Store(decoded);
      }
    }

    ReducingSink sink;
    status = sink.Init(decoded->width, decoded->height, cx);
    if (!status.ok()) return status;
    const size_t row_bytes = static_cast<size_t>(decoded->width) * 4;
    std::vector<uint8_t> row(row_bytes);
    for (int y = 0; y < decoded->height; ++y) {
      std::memcpy(row.data(), decoded->bgra.data() + row_bytes * y, row_bytes);
      sink.PushStraightRow(row.data());
    }
    return sink.Finish(1, out);
  }

 private:
  static Status DecodeToBgra(heif_image_handle* handle, const ColorTransform& transform,
                             std::shared_ptr<const DecodedImage>* out) {
    heif_image* raw_image = nullptr;
    if (heif_decode_image(handle, &raw_image, heif_colorspace_RGB, heif_chroma_interleaved_RGBA, nullptr).code !=
        heif_error_Ok) {
      return Status::InvalidArgument("HEIF image undecodable");
    }
    std::unique_ptr<heif_image, ImageReleaser> image(raw_image);
    const int w = heif_image_get_width(image.get(), heif_channel_interleaved);
    const int h = heif_image_get_height(image.get(), heif_channel_interleaved);
    int stride = 0;
    const uint8_t* pixels = heif_image_get_plane_readonly(image.get(), heif_channel_interleaved, &stride);
    if (pixels == nullptr || w <= 0 || h <= 0 || stride < w * 4) return Status::InvalidArgument("HEIF image layout");
    // The declared size was checked before decoding; the decoded one may be
    // larger, so the budget is checked again before the copy is made.
    if (!WithinPixelLimits(w, h) || !WithinDecodeBudget(uint64_t(w) * h * 8)) return ImageTooLargeError(w, h);

    auto decoded = std::make_shared<DecodedImage>();
    decoded->width = w;
    decoded->height = h;
    decoded->bgra.resize(static_cast<size_t>(w) * h * 4);
    for (int y = 0; y < h; ++y) {
      const uint8_t* src = pixels + static_cast<size_t>(stride) * y;
      uint8_t* dst = decoded->bgra.data() + static_cast<size_t>(w) * 4 * y;
      for (int x = 0; x < w; ++x) {
        dst[x * 4 + 0] = src[x * 4 + 2];
        dst[x * 4 + 1] = src[x * 4 + 1];
        dst[x * 4 + 2] = src[x * 4 + 0];
        dst[x * 4 + 3] = src[x * 4 + 3];
      }
      if (!transform.is_identity()) transform.Apply(dst, dst, static_cast<size_t>(w));
    }
    *out = std::move(decoded);
    return Status::OK();
  }
};

}  // namespace

std::unique_ptr<ImageDecoder> CreateHeifDecoder() { return std::make_unique<HeifDecoder>(); }

}  // namespace image
}  // namespace tessera
