// Camera RAW through LibRaw (thread-safe build): the embedded preview when it
// is large enough for the run, else one develop (at half size when that is
// enough) that serves every size of the run.
//
// Size rule: a thumbnail asked for at cx is made from an image whose longer
// side is at least two thirds of cx (enough for any aspect up to 2:1 at the
// thumbnail sizes), or the whole sensor when that is smaller. A preview that
// reaches it for the largest request of the run serves every request, as it
// is much faster than developing; otherwise one develop serves them all, so
// that no thumbnail of the file shows the camera's rendering and another
// LibRaw's. The develop runs at half size when that still reaches the
// largest request, else at full size; when it fails, the preview serves
// the sizes it reaches. A preview's aspect must match the sensor's (either
// way round, 5% slack for cropped margins) so that a letterboxed or tiny
// index preview is never taken.
#include <libraw/libraw.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <memory>
#include <string>

#include "lib/codec/decoders.h"
#include "lib/codec/raw/raw-decoder.h"
#include "lib/codec/reducing-sink.h"
#include "lib/image/exif-orientation.h"
#include "lib/image/limits.h"
#include "lib/image/transform.h"
#include "lib/log/log.h"

namespace tessera {
namespace codec {
namespace {

constexpr char kLogComponent[] = "thumbnail_debug";
// RAW files are read whole; the largest current sensors stay well below.
constexpr size_t kMaxRawFileBytes = size_t{512} << 20;

struct MemImageFreer {
  void operator()(libraw_processed_image_t* image) const { LibRaw::dcraw_clear_mem(image); }
};
using MemImagePtr = std::unique_ptr<libraw_processed_image_t, MemImageFreer>;

// LibRaw's flip (0, 3 = 180, 5 = 90 counter-clockwise, 6 = 90 clockwise) as
// an EXIF orientation.
// LibRaw prints data errors to stderr by default; a damaged RAW is an
// expected input and stdout/stderr belong to the tool.
void SilentDataError(void*, const char*, const int) {}

// LibRaw reports each stage of unpacking and developing (some of them
// several times along the way); a non-zero return makes the call in
// progress give up with LIBRAW_CANCELLED_BY_CALLBACK.
int CancelWithSource(void* source, LibRaw_progress /*stage*/, int /*iteration*/, int /*expected*/) {
  return static_cast<ByteSource*>(source)->cancelled() ? 1 : 0;
}

int FlipToOrientation(int flip) {
  switch (flip) {
    case 3:
      return 3;
    case 5:
      return 8;
    case 6:
      return 6;
    default:
      return 1;
  }
}

// The orientation tag of a JPEG stream's EXIF segment, 1 when it has none.
// Looks only at the marker segments before the first scan.
int JpegExifOrientation(const uint8_t* data, size_t size) {
  if (size < 4 || data[0] != 0xFF || data[1] != 0xD8) return 1;
  size_t pos = 2;
  while (pos + 4 <= size) {
    if (data[pos] != 0xFF) return 1;
    const uint8_t marker = data[pos + 1];
    if (marker == 0xFF) {
      ++pos;  // fill byte
      continue;
    }
    if (marker == 0xDA || marker == 0xD9) return 1;
    const size_t length = (size_t{data[pos + 2]} << 8) | data[pos + 3];
    if (length < 2 || pos + 2 + length > size) return 1;
    const uint8_t* payload = data + pos + 4;
    const size_t payload_size = length - 2;
    if (marker == 0xE1 && payload_size >= 6 && std::memcmp(payload, "Exif\0\0", 6) == 0) {
      return image::ExifOrientation(payload, payload_size);
    }
    pos += 2 + length;
  }
  return 1;
}

// The longer side the decoded image needs, by the rule above.
uint32_t NeededLonger(const libraw_image_sizes_t& sizes, uint32_t cx) {
  const uint32_t sensor_longer = std::max(sizes.width, sizes.height);
  const uint64_t two_thirds = (uint64_t{cx} * 2 + 2) / 3;
  return static_cast<uint32_t>(std::min<uint64_t>(two_thirds, sensor_longer));
}

bool AspectMatches(double a_w, double a_h, double b_w, double b_h) {
  const double a = a_w / a_h;
  const double b = b_w / b_h;
  return std::fabs(a - b) <= 0.05 * b;
}

// An 8-bit RGB (or gray) image from LibRaw, reduced to fit cx and, on the
// way, to the sizes of `fan_out` (see ReducingSink::FanOut). Polls the
// source's cancellation every row.
Status ReduceMemImage(const libraw_processed_image_t& image, ByteSource* source, uint32_t cx, int orientation,
                      const FanOutRequest& fan_out, uint64_t planned_bytes, image::Bitmap* out) {
  if (image.bits != 8 || (image.colors != 3 && image.colors != 1)) {
    return Status::NotSupported("RAW image layout");
  }
  const uint64_t row_bytes = uint64_t{image.width} * image.colors;
  if (uint64_t{image.data_size} < row_bytes * image.height) return Status::InvalidArgument("short RAW image");
  ReducingSink sink;
  Status status = sink.Init(image.width, image.height, cx);
  if (!status.ok()) return status;
  sink.FanOut(fan_out, planned_bytes);
  std::unique_ptr<uint8_t[]> row(new (std::nothrow) uint8_t[size_t{image.width} * 4]);
  if (!row) return Status::Internal("out of memory");
  for (int y = 0; y < image.height; ++y) {
    if (source->cancelled()) return DecodeCancelledError();
    const uint8_t* src = image.data + row_bytes * y;
    for (int x = 0; x < image.width; ++x) {
      uint8_t* p = row.get() + x * 4;
      if (image.colors == 3) {
        p[0] = src[x * 3 + 2];
        p[1] = src[x * 3 + 1];
        p[2] = src[x * 3];
      } else {
        p[0] = p[1] = p[2] = src[x];
      }
      p[3] = 255;
    }
    sink.PushStraightRow(row.get());
  }
  return sink.Finish(orientation, out);
}

// Whether the preview may serve cx by its size and aspect, which is known
// before it is read.
Status CheckPreview(const libraw_image_sizes_t& sizes, const libraw_thumbnail_t& thumb, uint32_t cx) {
  if (thumb.twidth == 0 || thumb.theight == 0 || sizes.width == 0 || sizes.height == 0) {
    return Status::NotFound("no preview");
  }
  const uint32_t preview_longer = std::max(thumb.twidth, thumb.theight);
  if (preview_longer < NeededLonger(sizes, cx)) return Status::NotFound("preview too small");
  if (!AspectMatches(thumb.twidth, thumb.theight, sizes.width, sizes.height) &&
      !AspectMatches(thumb.twidth, thumb.theight, sizes.height, sizes.width)) {
    return Status::NotFound("preview of another aspect");
  }
  return Status::OK();
}

// Whether a develop for cx runs at half size.
bool DevelopsAtHalfSize(const libraw_image_sizes_t& sizes, uint32_t cx) {
  return std::max(sizes.width, sizes.height) / 2 >= NeededLonger(sizes, cx);
}

Status DecodePreview(LibRaw* raw, ByteSource* file, uint32_t cx, image::Bitmap* out) {
  const libraw_image_sizes_t& sizes = raw->imgdata.sizes;
  const libraw_thumbnail_t& thumb = raw->imgdata.thumbnail;
  Status checked = CheckPreview(sizes, thumb, cx);
  if (!checked.ok()) return checked;
  const bool same_way = AspectMatches(thumb.twidth, thumb.theight, sizes.width, sizes.height);
  const bool turned = AspectMatches(thumb.twidth, thumb.theight, sizes.height, sizes.width);

  if (raw->unpack_thumb() != LIBRAW_SUCCESS) return Status::NotFound("preview unreadable");

  // Previews are stored as the sensor sees the scene; one already turned
  // (portrait aspect on a landscape sensor) must not be turned again.
  int orientation = FlipToOrientation(sizes.flip);
  if (image::OrientationSwapsAxes(orientation) && turned && !same_way) orientation = 1;

  if (thumb.tformat == LIBRAW_THUMBNAIL_JPEG) {
    // The preview's own bytes: LibRaw's in-memory copy of a JPEG preview
    // gains an EXIF segment carrying the RAW's flip, which the JPEG decoder
    // would apply on top of (or instead of) the decision above.
    if (thumb.thumb == nullptr || thumb.tlength == 0) return Status::NotFound("preview unreadable");
    const uint8_t* data = reinterpret_cast<const uint8_t*>(thumb.thumb);
    // A preview that names its own orientation is turned by the JPEG decoder.
    if (JpegExifOrientation(data, thumb.tlength) != 1) orientation = 1;
    std::unique_ptr<ImageDecoder> jpeg = CreateJpegDecoder();
    if (!jpeg) return Status::NotSupported("no JPEG decoder");
    std::unique_ptr<ByteSource> source = ByteSource::FromMemory(data, thumb.tlength);
    source->set_cancellation(file->cancellation());
    image::Bitmap bitmap;
    Status status = jpeg->Decode(source.get(), cx, &bitmap);
    if (!status.ok()) return status;
    if (orientation != 1) {
      status = image::ApplyExifOrientation(orientation, &bitmap);
      if (!status.ok()) return status;
    }
    *out = std::move(bitmap);
    return Status::OK();
  }
  int error = 0;
  MemImagePtr image(raw->dcraw_make_mem_thumb(&error));
  if (!image) return Status::NotFound("preview unreadable");
  if (image->type != LIBRAW_IMAGE_BITMAP) return Status::NotFound("preview of an unknown kind");
  return ReduceMemImage(*image, file, cx, orientation, FanOutRequest(), 0, out);
}

// Develops the file at the size the request `develop_for` needs and reduces
// it to cx and to the sizes of `fan_out`.
Status Develop(LibRaw* raw, ByteSource* source, uint64_t file_size, uint32_t cx, uint32_t develop_for,
               const FanOutRequest& fan_out, image::Bitmap* out) {
  const libraw_image_sizes_t& sizes = raw->imgdata.sizes;
  // No RAW codec spends less than an eighth of a bit per photosite (the
  // JPEG-coded data of Kodak's DC120, the most frugal, takes about half a
  // bit): a file smaller than that has had its image data stripped, and
  // LibRaw would "develop" whatever bytes follow the header.
  if (file_size < uint64_t{sizes.raw_width} * sizes.raw_height / 64) {
    return Status::InvalidArgument("RAW file without its image data");
  }
  const bool half_size = DevelopsAtHalfSize(sizes, develop_for);
  // Unpacked raw data (16-bit), the working image and the 8-bit output.
  const uint64_t raw_samples = raw->imgdata.idata.filters != 0 ? 1 : 4;
  const uint64_t raw_bytes = uint64_t{sizes.raw_width} * sizes.raw_height * 2 * raw_samples;
  const uint64_t pixels = uint64_t{sizes.width} * sizes.height;
  const uint64_t work_bytes = half_size ? pixels * 2 + pixels * 3 / 4 : pixels * 8 + pixels * 3;
  if (!WithinDecodeBudget(raw_bytes + work_bytes)) return Status::InvalidArgument("RAW too large to develop");
  raw->imgdata.params.half_size = half_size ? 1 : 0;
  raw->imgdata.params.use_camera_wb = 1;
  raw->imgdata.params.output_color = 1;  // sRGB
  raw->imgdata.params.output_bps = 8;
  if (raw->unpack() != LIBRAW_SUCCESS) return Status::InvalidArgument("RAW data unreadable");
  if (raw->dcraw_process() != LIBRAW_SUCCESS) return Status::InvalidArgument("RAW develop failed");
  int error = 0;
  MemImagePtr image(raw->dcraw_make_mem_image(&error));
  if (!image) return Status::Internal("RAW develop output");
  // LibRaw has applied the flip already.
  return ReduceMemImage(*image, source, cx, 1, fan_out, raw_bytes + work_bytes, out);
}

class RawDecoder : public ReducingDecoder {
 public:
  Status Decode(ByteSource* source, uint32_t cx, image::Bitmap* out) override {
    if (TakeKept(cx, out)) return Status::OK();
    return DecodeCameraRaw(source, cx, RawContainer::kOwn, AnticipatedRequests(), out);
  }
};

}  // namespace

Status DecodeCameraRaw(ByteSource* source, uint32_t cx, RawContainer container, const FanOutRequest& fan_out,
                       image::Bitmap* out) {
  std::string bytes;
  const uint8_t* data = source->contiguous_data();
  size_t size = static_cast<size_t>(source->size());
  if (data == nullptr) {
    Status status = source->ReadAll(kMaxRawFileBytes, &bytes);
    if (!status.ok()) return status;
    data = reinterpret_cast<const uint8_t*>(bytes.data());
    size = bytes.size();
  }
  std::unique_ptr<LibRaw> raw(new (std::nothrow) LibRaw(LIBRAW_OPTIONS_NONE));
  if (!raw) return Status::Internal("out of memory");
  raw->set_dataerror_handler(SilentDataError, nullptr);
  raw->set_progress_handler(CancelWithSource, source);
  // A gray picture whose camera LibRaw does not know would otherwise be
  // taken for a sensor mosaic of the usual pattern, developed, stretched to
  // its brightest value and given a gamma curve on top.
  if (container == RawContainer::kPictureTiff) {
    raw->imgdata.params.raw_processing_options |= LIBRAW_PROCESSING_ZEROFILTERS_FOR_MONOCHROMETIFFS;
  }
  // LibRaw takes a non-const pointer but only reads through it.
  auto open = [&] { return raw->open_buffer(const_cast<uint8_t*>(data), size) == LIBRAW_SUCCESS; };
  if (!open()) {
    return source->cancelled() ? DecodeCancelledError() : NotCameraRawError("LibRaw does not open it");
  }
  const libraw_iparams_t& idata = raw->imgdata.idata;
  // A TIFF that merely names its maker (scanners, camera-made TIFFs, gray
  // frames of thermal cameras) is no RAW: it has neither a colour filter
  // array nor a DNG version.
  if (container != RawContainer::kOwn && idata.dng_version == 0 && idata.filters == 0) {
    return NotCameraRawError("TIFF without RAW data");
  }
  const libraw_image_sizes_t& sizes = raw->imgdata.sizes;
  if (!image::WithinPixelLimits(sizes.raw_width, sizes.raw_height)) {
    return ImageTooLargeError(sizes.raw_width, sizes.raw_height);
  }
  // The largest request of the run decides between preview and develop.
  uint32_t largest = cx;
  for (uint32_t other : fan_out.cx_values) largest = std::max(largest, other);
  const bool preview_serves_cx = CheckPreview(sizes, raw->imgdata.thumbnail, cx).ok();
  Status status;
  if (CheckPreview(sizes, raw->imgdata.thumbnail, largest).ok()) {
    status = DecodePreview(raw.get(), source, cx, out);
    if (status.ok()) return status;
    if (source->cancelled()) return DecodeCancelledError();
    LOG_DEBUG(kLogComponent, "RAW preview unusable (%s); developing", status.ToString().c_str());
    // Alone: the run's other requests try the preview first, which may not
    // fail for them.
    status = Develop(raw.get(), source, size, cx, cx, FanOutRequest(), out);
    return !status.ok() && source->cancelled() ? DecodeCancelledError() : status;
  }
  status = Develop(raw.get(), source, size, cx, largest, fan_out, out);
  if (status.ok()) return status;
  if (source->cancelled()) return DecodeCancelledError();
  if (!preview_serves_cx) return status;
  // Data that cannot be developed: the preview serves what it reaches.
  LOG_DEBUG(kLogComponent, "RAW not developed (%s); its preview serves %u", status.ToString().c_str(), cx);
  raw->recycle();
  if (!open()) return status;
  const Status preview = DecodePreview(raw.get(), source, cx, out);
  if (preview.ok()) return preview;
  return source->cancelled() ? DecodeCancelledError() : status;
}

std::unique_ptr<ImageDecoder> CreateRawDecoder() { return std::make_unique<RawDecoder>(); }

}  // namespace codec
}  // namespace tessera
