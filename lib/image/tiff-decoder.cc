// TIFF through libtiff's RGBA interface, which covers strips and tiles,
// 1- to 16-bit samples, gray, palette, RGB, YCbCr, CMYK and the usual
// compressions. Rows are fetched one strip or tile row at a time and reduced
// on the fly, so memory is bounded by one strip/tile row plus the output.
#include <tiffio.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <memory>
#include <vector>

#include "lib/image/color-profile.h"
#include "lib/image/decoders.h"
#include "lib/image/limits.h"
#include "lib/image/raw-decoder.h"
#include "lib/image/reducing-sink.h"
#include "lib/log/log.h"

namespace tessera {
namespace image {
namespace {

constexpr char kLogComponent[] = "thumbnail_debug";
// Directories examined at most, against files with endless IFD chains.
constexpr int kMaxDirectories = 64;

struct Client {
  ByteSource* source;
  uint64_t position;
};

tmsize_t ReadProc(thandle_t handle, void* buf, tmsize_t size) {
  Client* client = static_cast<Client*>(handle);
  if (size <= 0) return 0;
  const int64_t got = client->source->ReadAt(client->position, buf, static_cast<size_t>(size));
  if (got < 0) return -1;
  client->position += static_cast<uint64_t>(got);
  return static_cast<tmsize_t>(got);
}

tmsize_t WriteProc(thandle_t, void*, tmsize_t) { return -1; }

toff_t SeekProc(thandle_t handle, toff_t offset, int whence) {
  Client* client = static_cast<Client*>(handle);
  uint64_t base = 0;
  if (whence == SEEK_CUR) base = client->position;
  if (whence == SEEK_END) base = client->source->size();
  client->position = base + offset;
  return client->position;
}

int CloseProc(thandle_t) { return 0; }
toff_t SizeProc(thandle_t handle) { return static_cast<Client*>(handle)->source->size(); }
int MapProc(thandle_t, void**, toff_t*) { return 0; }
void UnmapProc(thandle_t, void*, toff_t) {}

// libtiff's messages about broken files are expected here: debug level only,
// and never through libtiff's global handler (which prints to stderr).
int LogHandler(TIFF*, void*, const char* module, const char* format, va_list args) {
  if (tessera::log::LogIsEnabled(tessera::log::kDebug, kLogComponent)) {
    char message[512];
    vsnprintf(message, sizeof(message), format, args);
    LOG_DEBUG(kLogComponent, "libtiff %s: %s", module ? module : "", message);
  }
  return 1;
}

struct TiffCloser {
  void operator()(TIFF* tif) const { TIFFClose(tif); }
};
using TiffPtr = std::unique_ptr<TIFF, TiffCloser>;

struct OptionsFreer {
  void operator()(TIFFOpenOptions* options) const { TIFFOpenOptionsFree(options); }
};

struct RgbaImageEnder {
  void operator()(TIFFRGBAImage* image) const { TIFFRGBAImageEnd(image); }
};

Status OpenTiff(Client* client, TiffPtr* out) {
  std::unique_ptr<TIFFOpenOptions, OptionsFreer> options(TIFFOpenOptionsAlloc());
  if (!options) return Status::Internal("libtiff options");
  TIFFOpenOptionsSetMaxSingleMemAlloc(options.get(), static_cast<tmsize_t>(kMaxDecodeBytes));
  TIFFOpenOptionsSetErrorHandlerExtR(options.get(), LogHandler, nullptr);
  TIFFOpenOptionsSetWarningHandlerExtR(options.get(), LogHandler, nullptr);
  TIFF* tif = TIFFClientOpenExt("source", "rm", client, ReadProc, WriteProc, SeekProc, CloseProc,
                                SizeProc, MapProc, UnmapProc, options.get());
  if (tif == nullptr) return Status::InvalidArgument("not a readable TIFF");
  out->reset(tif);
  return Status::OK();
}

// One image of the file: a top-level directory or a SubIFD.
struct Candidate {
  tdir_t directory = 0;
  uint64_t sub_offset = 0;  // non-zero for a SubIFD
  uint32_t width = 0;
  uint32_t height = 0;
};

bool Select(TIFF* tif, const Candidate& c) {
  return c.sub_offset != 0 ? TIFFSetSubDirectory(tif, c.sub_offset) != 0
                           : TIFFSetDirectory(tif, c.directory) != 0;
}

bool ReadSize(TIFF* tif, uint32_t* width, uint32_t* height) {
  return TIFFGetField(tif, TIFFTAG_IMAGEWIDTH, width) && TIFFGetField(tif, TIFFTAG_IMAGELENGTH, height);
}

bool IsReduced(TIFF* tif) {
  uint32_t subfile_type = 0;
  return TIFFGetField(tif, TIFFTAG_SUBFILETYPE, &subfile_type) && (subfile_type & FILETYPE_REDUCEDIMAGE);
}

bool SameAspect(const Candidate& a, const Candidate& b) {
  const double ra = static_cast<double>(a.width) / a.height;
  const double rb = static_cast<double>(b.width) / b.height;
  return std::fabs(ra - rb) <= 0.01 * rb;
}

bool Readable(TIFF* tif) {
  char message[1024];
  return TIFFRGBAImageOK(tif, message) != 0;
}

// The first full-resolution page, or a reduced-resolution copy of it (a
// following reduced IFD or a SubIFD) that is still at least cx on its longer
// side, whichever is smallest.
Status ChooseImage(TIFF* tif, uint32_t cx, Candidate* out) {
  Candidate main;
  bool found = false;
  std::vector<Candidate> reduced;
  for (int i = 0; i < kMaxDirectories; ++i) {
    Candidate c;
    c.directory = TIFFCurrentDirectory(tif);
    if (ReadSize(tif, &c.width, &c.height) && c.width > 0 && c.height > 0) {
      if (!found && !IsReduced(tif)) {
        main = c;
        found = true;
      } else if (found && IsReduced(tif)) {
        reduced.push_back(c);
      } else if (found) {
        break;  // the next page
      }
    }
    if (!TIFFReadDirectory(tif)) break;
  }
  if (!found) return Status::InvalidArgument("TIFF without a full-resolution image");

  if (!Select(tif, main)) return Status::InvalidArgument("TIFF directory lost");
  uint16_t sub_count = 0;
  uint64_t* sub_offsets = nullptr;
  if (TIFFGetField(tif, TIFFTAG_SUBIFD, &sub_count, &sub_offsets) && sub_offsets != nullptr) {
    std::vector<uint64_t> offsets(sub_offsets, sub_offsets + std::min<uint16_t>(sub_count, 16));
    for (uint64_t offset : offsets) {
      Candidate c;
      c.sub_offset = offset;
      if (offset != 0 && TIFFSetSubDirectory(tif, offset) && ReadSize(tif, &c.width, &c.height) &&
          c.width > 0 && c.height > 0) {
        reduced.push_back(c);
      }
    }
  }

  Candidate best = main;
  for (const Candidate& c : reduced) {
    const uint32_t longer = std::max(c.width, c.height);
    if (longer >= cx && longer < std::max(best.width, best.height) && SameAspect(c, main) &&
        Select(tif, c) && Readable(tif)) {
      best = c;
    }
  }
  if (!Select(tif, best)) return Status::InvalidArgument("TIFF directory lost");
  *out = best;
  return Status::OK();
}

// Alpha of TIFFRGBAImage output: libtiff premultiplies unassociated alpha itself.
Status DecodeRgba(TIFF* tif, uint32_t cx, Bitmap* out) {
  uint32_t width = 0;
  uint32_t height = 0;
  if (!ReadSize(tif, &width, &height)) return Status::InvalidArgument("TIFF without a size");
  ReducingSink sink;
  Status status = sink.Init(width, height, cx);
  if (!status.ok()) return status;

  char message[1024] = "";
  TIFFRGBAImage image;
  if (!TIFFRGBAImageOK(tif, message) || !TIFFRGBAImageBegin(&image, tif, 0, message)) {
    return Status::NotSupported(std::string("TIFF layout: ") + message);
  }
  std::unique_ptr<TIFFRGBAImage, RgbaImageEnder> image_guard(&image);
  // Rows in file order; the orientation is applied after the reduction.
  image.req_orientation = image.orientation;

  uint32_t chunk = 0;
  uint64_t unit_bytes = 0;
  if (TIFFIsTiled(tif)) {
    TIFFGetField(tif, TIFFTAG_TILELENGTH, &chunk);
    unit_bytes = static_cast<uint64_t>(TIFFTileSize64(tif));
  } else {
    TIFFGetFieldDefaulted(tif, TIFFTAG_ROWSPERSTRIP, &chunk);
    unit_bytes = static_cast<uint64_t>(TIFFStripSize64(tif));
  }
  chunk = std::max<uint32_t>(1, std::min(chunk, height));
  // A huge single strip is read in slices; libtiff decodes only up to the
  // rows asked for.
  while (chunk > 64 && uint64_t{width} * chunk * 4 > kMaxDecodeBytes / 4) chunk /= 2;
  const uint64_t raster_bytes = uint64_t{width} * chunk * 4;
  if (!WithinDecodeBudget(raster_bytes + unit_bytes)) {
    return Status::InvalidArgument("TIFF strips or tiles too large to decode");
  }

  uint16_t photometric = 0;
  TIFFGetFieldDefaulted(tif, TIFFTAG_PHOTOMETRIC, &photometric);
  ColorTransform transform;
  uint32_t icc_size = 0;
  void* icc = nullptr;
  if ((photometric == PHOTOMETRIC_RGB || photometric == PHOTOMETRIC_YCBCR) &&
      TIFFGetField(tif, TIFFTAG_ICCPROFILE, &icc_size, &icc)) {
    transform = ColorTransform::FromIcc(static_cast<const uint8_t*>(icc), icc_size, PixelLayout::kBgra8);
  }
  uint16_t orientation = ORIENTATION_TOPLEFT;
  TIFFGetFieldDefaulted(tif, TIFFTAG_ORIENTATION, &orientation);

  std::vector<uint32_t> raster;
  raster.resize(static_cast<size_t>(width) * chunk);
  const bool has_alpha = image.alpha != 0;
  for (uint32_t row = 0; row < height; row += chunk) {
    const uint32_t rows = std::min(chunk, height - row);
    image.row_offset = static_cast<int>(row);
    image.col_offset = 0;
    if (!TIFFRGBAImageGet(&image, raster.data(), width, rows)) {
      if (row == 0) return Status::InvalidArgument("TIFF data unreadable");
      break;  // keep what was read; the rest shows as grey
    }
    for (uint32_t r = 0; r < rows; ++r) {
      uint8_t* line = reinterpret_cast<uint8_t*>(raster.data() + static_cast<size_t>(r) * width);
      // Packed ABGR words are R, G, B, A bytes on little-endian hosts.
      for (uint32_t x = 0; x < width; ++x) {
        uint32_t v = raster[static_cast<size_t>(r) * width + x];
        uint8_t* p = line + x * 4;
        p[0] = static_cast<uint8_t>(TIFFGetB(v));
        p[1] = static_cast<uint8_t>(TIFFGetG(v));
        p[2] = static_cast<uint8_t>(TIFFGetR(v));
        p[3] = static_cast<uint8_t>(TIFFGetA(v));
      }
      if (!transform.is_identity()) transform.Apply(line, line, width);
      if (has_alpha) {
        sink.PushPremultipliedRow(line);
      } else {
        sink.PushStraightRow(line);
      }
    }
  }
  return sink.Finish(orientation >= 1 && orientation <= 8 ? orientation : 1, out);
}

class TiffDecoder : public ImageDecoder {
 public:
  Status Decode(ByteSource* source, uint32_t cx, Bitmap* out) override {
    Client client{source, 0};
    TiffPtr tif;
    Status status = OpenTiff(&client, &tif);
    if (!status.ok()) return status;
    if (LooksLikeCameraRaw(tif.get())) {
      status = DecodeCameraRaw(source, cx, true, out);
      if (status.ok() || IsImageTooLarge(status)) return status;
      LOG_DEBUG(kLogComponent, "not decodable as camera RAW (%s), trying TIFF", status.ToString().c_str());
      if (!TIFFSetDirectory(tif.get(), 0)) return Status::InvalidArgument("TIFF directory lost");
    }
    Candidate chosen;
    status = ChooseImage(tif.get(), cx, &chosen);
    if (!status.ok()) return status;
    return DecodeRgba(tif.get(), cx, out);
  }

 private:
  // Camera RAW files in a TIFF container name the camera (Make) or are DNGs;
  // they go to the RAW decoder first. Scanner TIFFs that name their maker
  // fall back to the TIFF path when the RAW decoder does not know them.
  static bool LooksLikeCameraRaw(TIFF* tif) {
    char* make = nullptr;
    // Pointer-sized slots for either calling form of an array tag (with or
    // without a count first), so no form writes past them.
    void* slot_a = nullptr;
    void* slot_b = nullptr;
    if (TIFFGetField(tif, TIFFTAG_DNGVERSION, &slot_a, &slot_b)) return true;
    return TIFFGetField(tif, TIFFTAG_MAKE, &make) && make != nullptr && make[0] != '\0';
  }
};

}  // namespace

std::unique_ptr<ImageDecoder> CreateTiffDecoder() { return std::make_unique<TiffDecoder>(); }

}  // namespace image
}  // namespace tessera
