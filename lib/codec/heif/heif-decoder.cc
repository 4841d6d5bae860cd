// HEIF/HEIC, HEVC- or AV1-coded: the primary image, or its embedded
// thumbnail when that is large enough and of the same shape. libheif applies
// the file's own transforms (rotation, mirror, crop); EXIF orientation is
// never applied on top.
//
// The file's structure is checked first (heif-structure.h), so that libheif
// never parses or decodes a file that declares more items, references or
// tiles than real ones have. libheif then decodes to planar RGB at the
// stream's bit depth (the form it builds grids in, so a grid is not copied
// again), and each row goes to 8-bit BGRA straight into the row the
// reducing sink reduces: HDR content (PQ, HLG) through the tone mapper of
// hdr-tone-map.h, other content scaled to 8 bits and, when its profile or
// primaries are not sRGB's, converted after the reduction. HEVC and AV1
// have no reduced decode, so one decode reduces its rows to every size the
// run anticipates that the same image serves.
#include <libheif/heif.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <memory>
#include <new>
#include <string>
#include <vector>

#include "lib/codec/decoders.h"
#include "lib/codec/heif/heif-structure.h"
#include "lib/codec/reducing-sink.h"
#include "lib/color/color-profile.h"
#include "lib/color/hdr-tone-map.h"
#include "lib/color/icc-profile-check.h"
#include "lib/image/limits.h"

namespace tessera {
namespace codec {
namespace {

constexpr size_t kMaxHeifFileBytes = size_t{256} << 20;
// The longest side libheif may decode (a 16384 x 12288 image is 201 MP).
constexpr int kMaxHeifSide = 16384;
// Rows converted between two looks at the cancellation.
constexpr int kRowsPerPoll = 64;
// Thumbnails looked at, at most.
constexpr int kMaxThumbnails = 16;

struct ContextFreer {
  void operator()(heif_context* context) const { heif_context_free(context); }
};
struct HandleReleaser {
  void operator()(heif_image_handle* handle) const { heif_image_handle_release(handle); }
};
struct ImageReleaser {
  void operator()(heif_image* image) const { heif_image_release(image); }
};
struct NclxFreer {
  void operator()(heif_color_profile_nclx* nclx) const { heif_nclx_color_profile_free(nclx); }
};
using HandlePtr = std::unique_ptr<heif_image_handle, HandleReleaser>;
using ImagePtr = std::unique_ptr<heif_image, ImageReleaser>;
using NclxPtr = std::unique_ptr<heif_color_profile_nclx, NclxFreer>;

// The image that serves a request: a thumbnail (by item id) or the primary
// image (id 0, no handle).
struct Choice {
  heif_item_id id = 0;
  HandlePtr thumbnail;
};

// The smallest thumbnail whose longer side is at least cx and whose aspect
// (after transforms) is within 1% of the primary's, or the primary image.
Choice ChooseImage(heif_image_handle* primary, uint32_t cx) {
  Choice best;
  const int count = heif_image_handle_get_number_of_thumbnails(primary);
  if (count <= 0) return best;
  std::vector<heif_item_id> ids(static_cast<size_t>(std::min(count, kMaxThumbnails)));
  const int listed = heif_image_handle_get_list_of_thumbnail_IDs(primary, ids.data(), static_cast<int>(ids.size()));
  ids.resize(static_cast<size_t>(std::max(0, std::min(listed, static_cast<int>(ids.size())))));
  const double aspect = static_cast<double>(heif_image_handle_get_width(primary)) /
                        std::max(1, heif_image_handle_get_height(primary));
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
    if (!best.thumbnail || longer < best_longer) {
      best.id = id;
      best.thumbnail = std::move(thumb);
      best_longer = longer;
    }
  }
  return best;
}

NclxPtr NclxOf(const heif_image_handle* handle) {
  heif_color_profile_nclx* raw = nullptr;
  const heif_error error = heif_image_handle_get_nclx_color_profile(handle, &raw);
  // Ours whatever the answer: on a value it cannot describe (an unknown
  // primaries, transfer or matrix code) libheif fails but still hands over
  // the profile it allocated.
  NclxPtr nclx(raw);
  if (error.code != heif_error_Ok) return nullptr;
  return nclx;
}

color::Chromaticities PrimariesOf(const heif_color_profile_nclx& nclx) {
  return {{nclx.color_primary_red_x, nclx.color_primary_red_y},
          {nclx.color_primary_green_x, nclx.color_primary_green_y},
          {nclx.color_primary_blue_x, nclx.color_primary_blue_y},
          {nclx.color_primary_white_x, nclx.color_primary_white_y}};
}

// The conversion of SDR content to sRGB: from the ICC profile when there is
// one, else from nclx primaries other than BT.709's (which are sRGB's) or
// "unspecified"; made once per run (shared), and nullptr or the identity
// when the content is sRGB already.
std::shared_ptr<const color::ColorTransform> SdrTransformFor(heif_image_handle* handle, const heif_color_profile_nclx* nclx) {
  const heif_color_profile_type type = heif_image_handle_get_color_profile_type(handle);
  if (type == heif_color_profile_type_prof || type == heif_color_profile_type_rICC) {
    // A larger profile would be refused anyway: it is not even read.
    const size_t size = heif_image_handle_get_raw_color_profile_size(handle);
    if (size == 0 || size > color::kMaxIccProfileBytes) return nullptr;
    std::vector<uint8_t> icc(size);
    if (heif_image_handle_get_raw_color_profile(handle, icc.data()).code != heif_error_Ok) return nullptr;
    return color::ColorTransform::SharedFromIcc(icc.data(), icc.size(), color::PixelLayout::kBgra8);
  }
  if (nclx != nullptr && nclx->color_primaries != heif_color_primaries_ITU_R_BT_709_5 &&
      nclx->color_primaries != heif_color_primaries_unspecified) {
    return color::ColorTransform::SharedFromChromaticities(PrimariesOf(*nclx), color::PixelLayout::kBgra8);
  }
  return nullptr;
}

// The brightest light the content holds, from its light-level or mastering
// metadata; 0 when it has none.
double PeakNits(const heif_image* image) {
  if (heif_image_has_content_light_level(image)) {
    heif_content_light_level level;
    heif_image_get_content_light_level(image, &level);
    if (level.max_content_light_level > 0) return level.max_content_light_level;
  }
  if (heif_image_has_mastering_display_colour_volume(image)) {
    heif_mastering_display_colour_volume raw;
    heif_decoded_mastering_display_colour_volume volume;
    heif_image_get_mastering_display_colour_volume(image, &raw);
    if (heif_mastering_display_colour_volume_decode(&raw, &volume).code == heif_error_Ok &&
        volume.max_display_mastering_luminance > 0) {
      return volume.max_display_mastering_luminance;
    }
  }
  return 0;
}

// One plane of the decoded picture: 8-bit samples, or 16-bit ones holding
// `depth` bits.
struct Plane {
  const uint8_t* data = nullptr;
  size_t stride = 0;
  int depth = 8;

  bool wide() const { return depth > 8; }
  const uint8_t* Row(int y) const { return data + stride * static_cast<size_t>(y); }
};

bool GetPlane(const heif_image* image, heif_channel channel, int width, int height, Plane* plane) {
  if (!heif_image_has_channel(image, channel)) return false;
  if (heif_image_get_width(image, channel) != width || heif_image_get_height(image, channel) != height) return false;
  const int storage = heif_image_get_bits_per_pixel(image, channel);
  const int depth = heif_image_get_bits_per_pixel_range(image, channel);
  if (depth < 1 || depth > 16 || (depth <= 8 ? storage != 8 : storage != 16)) return false;
  int stride = 0;
  plane->data = heif_image_get_plane_readonly(image, channel, &stride);
  plane->stride = static_cast<size_t>(stride);
  plane->depth = depth;
  return plane->data != nullptr && stride >= width * (depth > 8 ? 2 : 1);
}

// Sample value to byte, rounded, for depths other than 8.
std::vector<uint8_t> ByteTable(int depth) {
  const uint32_t max = (1u << depth) - 1;
  std::vector<uint8_t> table(max + 1);
  for (uint32_t v = 0; v <= max; ++v) table[v] = static_cast<uint8_t>((v * 255 + max / 2) / max);
  return table;
}

// Turns the rows of the decoded planes into BGRA.
class RowConverter {
 public:
  RowConverter(const Plane rgb[3], const Plane* alpha, int width, const color::HdrToneMapper* tone_mapper)
      : alpha_(alpha), width_(width), tone_mapper_(tone_mapper) {
    for (int c = 0; c < 3; ++c) rgb_[c] = rgb[c];
    if (rgb_[0].depth != 8 && tone_mapper_ == nullptr) colour_table_ = ByteTable(rgb_[0].depth);
    if (alpha_ != nullptr && alpha_->depth != 8) alpha_table_ = ByteTable(alpha_->depth);
  }

  void Convert(int y, uint8_t* bgra) const {
    const size_t n = static_cast<size_t>(width_);
    if (tone_mapper_ != nullptr) {
      if (rgb_[0].wide()) {
        tone_mapper_->ConvertRow(Wide(rgb_[0], y), Wide(rgb_[1], y), Wide(rgb_[2], y), n, bgra);
      } else {
        tone_mapper_->ConvertRow(rgb_[0].Row(y), rgb_[1].Row(y), rgb_[2].Row(y), n, bgra);
      }
    } else {
      for (int c = 0; c < 3; ++c) ToBytes(rgb_[c], colour_table_, y, bgra + 2 - c);
    }
    if (alpha_ == nullptr) {
      for (size_t x = 0; x < n; ++x) bgra[4 * x + 3] = 255;
    } else {
      ToBytes(*alpha_, alpha_table_, y, bgra + 3);
    }
  }

 private:
  static const uint16_t* Wide(const Plane& plane, int y) { return reinterpret_cast<const uint16_t*>(plane.Row(y)); }

  // One channel of row y into every fourth byte of `out`.
  void ToBytes(const Plane& plane, const std::vector<uint8_t>& table, int y, uint8_t* out) const {
    const size_t n = static_cast<size_t>(width_);
    if (!plane.wide()) {
      const uint8_t* in = plane.Row(y);
      if (plane.depth == 8) {
        for (size_t x = 0; x < n; ++x) out[4 * x] = in[x];
      } else {
        for (size_t x = 0; x < n; ++x) out[4 * x] = table[std::min<size_t>(in[x], table.size() - 1)];
      }
      return;
    }
    const uint16_t* in = Wide(plane, y);
    for (size_t x = 0; x < n; ++x) out[4 * x] = table[std::min<size_t>(in[x], table.size() - 1)];
  }

  Plane rgb_[3];
  const Plane* alpha_;
  int width_;
  const color::HdrToneMapper* tone_mapper_;
  std::vector<uint8_t> colour_table_;
  std::vector<uint8_t> alpha_table_;
};

class HeifDecoder : public ReducingDecoder {
 public:
  Status Decode(ByteSource* source, uint32_t cx, image::Bitmap* out) override {
    if (TakeKept(cx, out)) return Status::OK();
    std::string bytes;
    Status status = source->ReadAll(kMaxHeifFileBytes, &bytes);
    if (!status.ok()) return status;
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
    if (width <= 0 || height <= 0 || !image::WithinPixelLimits(width, height)) return ImageTooLargeError(width, height);

    const Choice choice = ChooseImage(primary.get(), cx);
    heif_image_handle* handle = choice.thumbnail ? choice.thumbnail.get() : primary.get();
    const uint64_t samples = uint64_t(heif_image_handle_get_width(handle)) * heif_image_handle_get_height(handle) *
                             (heif_image_handle_has_alpha_channel(handle) ? 4 : 3);
    const uint64_t sample_bytes = heif_image_handle_get_luma_bits_per_pixel(handle) > 8 ? 2 : 1;
    // The planes libheif hands over and, for a coded image, the ones it
    // converts them from.
    if (!WithinDecodeBudget(samples * sample_bytes * 2)) {
      return Status::InvalidArgument("HEIF image too large to decode");
    }
    if (source->cancelled()) return DecodeCancelledError();

    heif_image* raw_image = nullptr;
    if (heif_decode_image(handle, &raw_image, heif_colorspace_RGB, heif_chroma_444, nullptr).code != heif_error_Ok) {
      return Status::InvalidArgument("HEIF image undecodable");
    }
    ImagePtr image(raw_image);
    const int w = heif_image_get_width(image.get(), heif_channel_R);
    const int h = heif_image_get_height(image.get(), heif_channel_R);
    // The declared size was checked before decoding; the decoded one may
    // differ.
    if (w <= 0 || h <= 0 || !image::WithinPixelLimits(w, h)) return ImageTooLargeError(w, h);
    Plane rgb[3];
    Plane alpha;
    if (!GetPlane(image.get(), heif_channel_R, w, h, &rgb[0]) ||
        !GetPlane(image.get(), heif_channel_G, w, h, &rgb[1]) ||
        !GetPlane(image.get(), heif_channel_B, w, h, &rgb[2]) || rgb[1].depth != rgb[0].depth ||
        rgb[2].depth != rgb[0].depth) {
      return Status::InvalidArgument("HEIF image layout");
    }
    const bool has_alpha = GetPlane(image.get(), heif_channel_Alpha, w, h, &alpha);

    ReducingSink sink;
    status = sink.Init(w, h, cx);
    if (!status.ok()) return status;
    const size_t row_bytes = static_cast<size_t>(w) * 4;
    const uint64_t decoded_bytes = uint64_t(w) * h * (has_alpha ? 4 : 3) * (rgb[0].wide() ? 2 : 1);
    sink.FanOut(SameImageRequests(primary.get(), choice.id), decoded_bytes + row_bytes);

    // The colour description of the image decoded, else the primary's,
    // which thumbnails share.
    NclxPtr nclx = NclxOf(handle);
    if (!nclx && choice.thumbnail) nclx = NclxOf(primary.get());
    std::unique_ptr<color::HdrToneMapper> tone_mapper;
    color::HdrSource hdr;
    if (nclx && color::IsHdrTransfer(nclx->transfer_characteristics, &hdr.transfer)) {
      if (nclx->color_primaries != heif_color_primaries_unspecified) hdr.primaries = PrimariesOf(*nclx);
      hdr.bit_depth = rgb[0].depth;
      hdr.peak_nits = PeakNits(image.get());
      tone_mapper.reset(new (std::nothrow) color::HdrToneMapper(hdr));
      if (!tone_mapper) return Status::Internal("out of memory for HEIF tone mapping");
    } else {
      sink.SetColorTransform(SdrTransformFor(primary.get(), nclx.get()));
    }

    const RowConverter converter(rgb, has_alpha ? &alpha : nullptr, w, tone_mapper.get());
    const bool premultiplied = has_alpha && heif_image_is_premultiplied_alpha(image.get());
    std::vector<uint8_t> row;
    try {
      row.resize(row_bytes);
    } catch (const std::bad_alloc&) {
      return Status::Internal("out of memory for a HEIF row");
    }
    for (int y = 0; y < h; ++y) {
      if (y % kRowsPerPoll == 0 && source->cancelled()) return DecodeCancelledError();
      if (!has_alpha) {
        // Opaque rows are converted straight into the sink's buffer.
        uint8_t* opaque = sink.NextRow();
        if (opaque == nullptr) break;  // Finish reports why
        converter.Convert(y, opaque);
        sink.CommitRow();
        continue;
      }
      converter.Convert(y, row.data());
      if (premultiplied) {
        sink.PushPremultipliedRow(row.data());
      } else {
        sink.PushStraightRow(row.data());
      }
    }
    return sink.Finish(1, out);
  }

 private:
  // The anticipated requests that choose the image `id` chooses (a
  // thumbnail must not be served from the primary image, nor the other way
  // round).
  FanOutRequest SameImageRequests(heif_image_handle* primary, heif_item_id id) const {
    FanOutRequest request = AnticipatedRequests();
    request.cx_values.erase(std::remove_if(request.cx_values.begin(), request.cx_values.end(),
                                           [&](uint32_t other) { return ChooseImage(primary, other).id != id; }),
                            request.cx_values.end());
    return request;
  }
};

}  // namespace

std::unique_ptr<ImageDecoder> CreateHeifDecoder() { return std::make_unique<HeifDecoder>(); }

}  // namespace codec
}  // namespace tessera
