// TIFF in two ways. Gray, RGB, CMYK and palette images of 1 to 16 bits,
// interleaved or (in strips) planar-separate, are unpacked here, scanline by
// scanline for strips and one row of tiles at a time for tiles: CMYK goes through the colour-managed conversion
// (the embedded profile, else the built-in press model), other depths are
// scaled to 8 bits. Reading scanlines in order decodes each strip once, so a
// file written as one huge strip costs no more than one cut into many.
// What needs libtiff's own colour handling (YCbCr, JPEG and old-style JPEG
// compression, planar-separate tiles, LogLuv, Lab) goes through the RGBA
// interface a slice of whole strips or one row of tiles at a time. Either
// way rows are reduced on the fly, so memory is bounded by the raw data of
// one strip or tile row plus the output. The rows of one decode also serve
// the run's other sizes that pick the same image (ReducingSink::FanOut).
#include <tiffio.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <memory>
#include <new>
#include <utility>
#include <vector>

#include "lib/codec/decoders.h"
#include "lib/codec/raw-decoder.h"
#include "lib/codec/reducing-sink.h"
#include "lib/color/color-profile.h"
#include "lib/image/limits.h"
#include "lib/log/log.h"

namespace tessera {
namespace codec {
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
  if (client->source->cancelled()) return -1;  // memory sources go on reading otherwise
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
// Whether the decode reading through `tif` is to give up. Strips and tiles
// decode from data read beforehand, so the row loops poll this.
bool Cancelled(TIFF* tif) { return static_cast<Client*>(TIFFClientdata(tif))->source->cancelled(); }
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
  TIFFOpenOptionsSetMaxSingleMemAlloc(options.get(), static_cast<tmsize_t>(image::kMaxDecodeBytes));
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

bool RgbaReadable(TIFF* tif) {
  char message[1024];
  return TIFFRGBAImageOK(tif, message) != 0;
}

// What the sample path reads: unsigned integer samples of 1 to 16 bits,
// interleaved (or planar-separate in strips), as gray, RGB, CMYK or palette
// indices (up to 8 bits) with an optional alpha sample after the colour
// ones.
struct SampleLayout {
  uint16_t photometric = 0;
  int bits = 0;
  int samples = 0;        // per pixel, extra samples included
  bool planar = false;    // one plane of strips per sample
  int color_samples = 0;  // 1, 3 or 4
  int alpha_index = -1;   // sample index of alpha, -1 when none
  bool associated_alpha = false;
  // Palette images: 8-bit B, G, R per index (2^bits entries).
  std::vector<uint8_t> palette;
};

// The colour map as 8-bit BGR triples. Maps whose entries all fit in 8 bits
// are taken as written by old software that stored 8-bit values.
bool ReadPalette(TIFF* tif, int bits, std::vector<uint8_t>* out) {
  uint16_t* red = nullptr;
  uint16_t* green = nullptr;
  uint16_t* blue = nullptr;
  if (!TIFFGetField(tif, TIFFTAG_COLORMAP, &red, &green, &blue) || !red || !green || !blue) return false;
  const size_t n = size_t{1} << bits;
  bool sixteen = false;
  for (size_t i = 0; i < n && !sixteen; ++i) sixteen = red[i] >= 256 || green[i] >= 256 || blue[i] >= 256;
  const int shift = sixteen ? 8 : 0;
  out->resize(n * 3);
  for (size_t i = 0; i < n; ++i) {
    (*out)[i * 3] = static_cast<uint8_t>(blue[i] >> shift);
    (*out)[i * 3 + 1] = static_cast<uint8_t>(green[i] >> shift);
    (*out)[i * 3 + 2] = static_cast<uint8_t>(red[i] >> shift);
  }
  return true;
}

bool ParseSampleLayout(TIFF* tif, SampleLayout* out) {
  uint16_t photometric = 0;
  uint16_t bits = 0;
  uint16_t samples = 0;
  uint16_t planar = 0;
  uint16_t format = 0;
  if (!TIFFGetField(tif, TIFFTAG_PHOTOMETRIC, &photometric)) return false;
  TIFFGetFieldDefaulted(tif, TIFFTAG_BITSPERSAMPLE, &bits);
  TIFFGetFieldDefaulted(tif, TIFFTAG_SAMPLESPERPIXEL, &samples);
  TIFFGetFieldDefaulted(tif, TIFFTAG_PLANARCONFIG, &planar);
  TIFFGetFieldDefaulted(tif, TIFFTAG_SAMPLEFORMAT, &format);
  if (bits < 1 || bits > 16 || format != SAMPLEFORMAT_UINT) return false;
  // Tiles of separate planes stay with libtiff, which holds one tile of
  // each plane at a time.
  const bool separate = planar == PLANARCONFIG_SEPARATE && samples > 1;
  if (planar != PLANARCONFIG_CONTIG && samples > 1 && (!separate || TIFFIsTiled(tif))) return false;
  SampleLayout layout;
  layout.planar = separate;
  layout.photometric = photometric;
  layout.bits = bits;
  layout.samples = samples;
  switch (photometric) {
    case PHOTOMETRIC_MINISBLACK:
    case PHOTOMETRIC_MINISWHITE:
      layout.color_samples = 1;
      break;
    case PHOTOMETRIC_RGB:
      layout.color_samples = 3;
      break;
    case PHOTOMETRIC_PALETTE:
      if (bits > 8 || !ReadPalette(tif, bits, &layout.palette)) return false;
      layout.color_samples = 1;
      break;
    case PHOTOMETRIC_SEPARATED: {
      uint16_t inkset = INKSET_CMYK;
      TIFFGetFieldDefaulted(tif, TIFFTAG_INKSET, &inkset);
      if (inkset != INKSET_CMYK) return false;
      layout.color_samples = 4;
      break;
    }
    default:
      return false;
  }
  if (samples < layout.color_samples || samples > layout.color_samples + 8) return false;
  uint16_t extra_count = 0;
  uint16_t* extra = nullptr;
  if (samples > layout.color_samples && TIFFGetField(tif, TIFFTAG_EXTRASAMPLES, &extra_count, &extra) &&
      extra != nullptr && extra_count > 0 &&
      (extra[0] == EXTRASAMPLE_ASSOCALPHA || extra[0] == EXTRASAMPLE_UNASSALPHA)) {
    layout.alpha_index = layout.color_samples;
    layout.associated_alpha = extra[0] == EXTRASAMPLE_ASSOCALPHA;
  }
  *out = std::move(layout);
  return true;
}

// Every layout the sample path reads takes it, except JPEG-compressed data:
// libtiff's JPEG codecs convert colour themselves and their strips are small.
bool PreferSamplePath(TIFF* tif) {
  uint16_t compression = COMPRESSION_NONE;
  TIFFGetFieldDefaulted(tif, TIFFTAG_COMPRESSION, &compression);
  if (compression == COMPRESSION_JPEG || compression == COMPRESSION_OJPEG) return false;
  SampleLayout layout;
  return ParseSampleLayout(tif, &layout);
}

bool Readable(TIFF* tif) { return PreferSamplePath(tif) || RgbaReadable(tif); }

// The images a request may be served from: the first full-resolution page
// and the readable reduced-resolution copies of it (following reduced IFDs
// and SubIFDs) with its aspect ratio, in file order.
struct ImageChoices {
  Candidate main;
  std::vector<Candidate> reduced;
};

Status FindImages(TIFF* tif, ImageChoices* out) {
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

  ImageChoices choices;
  choices.main = main;
  for (const Candidate& c : reduced) {
    if (SameAspect(c, main) && Select(tif, c) && Readable(tif)) choices.reduced.push_back(c);
  }
  *out = std::move(choices);
  return Status::OK();
}

// The image that serves cx: the smallest reduced copy still at least cx on
// its longer side (the first of equals), else the full-resolution page.
Candidate ChooseImage(const ImageChoices& choices, uint32_t cx) {
  Candidate best = choices.main;
  for (const Candidate& c : choices.reduced) {
    const uint32_t longer = std::max(c.width, c.height);
    if (longer >= cx && longer < std::max(best.width, best.height)) best = c;
  }
  return best;
}

bool SameImage(const Candidate& a, const Candidate& b) {
  return a.directory == b.directory && a.sub_offset == b.sub_offset;
}

// Alpha of TIFFRGBAImage output: libtiff premultiplies unassociated alpha itself.
Status DecodeRgba(TIFF* tif, uint32_t cx, const FanOutRequest& fan_out, image::Bitmap* out) {
  uint32_t width = 0;
  uint32_t height = 0;
  if (!ReadSize(tif, &width, &height)) return Status::InvalidArgument("TIFF without a size");
  ReducingSink sink;
  Status status = sink.Init(width, height, cx);
  if (!status.ok()) return status;

  char message[1024] = "";
  TIFFRGBAImage image;
  // Stop at the first strip or tile that cannot be read: going on would
  // decode the whole declared size of a file whose data ended (or never
  // was), which for a few hundred bytes can mean tens of megapixels of
  // nothing. What was read before is kept below.
  if (!TIFFRGBAImageOK(tif, message) || !TIFFRGBAImageBegin(&image, tif, /*stop=*/1, message)) {
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
  while (chunk > 64 && uint64_t{width} * chunk * 4 > image::kMaxDecodeBytes / 4) chunk /= 2;
  const uint64_t raster_bytes = uint64_t{width} * chunk * 4;
  if (!WithinDecodeBudget(raster_bytes + unit_bytes)) {
    return Status::InvalidArgument("TIFF strips or tiles too large to decode");
  }
  sink.FanOut(fan_out, raster_bytes + unit_bytes);

  uint16_t photometric = 0;
  TIFFGetFieldDefaulted(tif, TIFFTAG_PHOTOMETRIC, &photometric);
  uint32_t icc_size = 0;
  void* icc = nullptr;
  if ((photometric == PHOTOMETRIC_RGB || photometric == PHOTOMETRIC_YCBCR) &&
      TIFFGetField(tif, TIFFTAG_ICCPROFILE, &icc_size, &icc)) {
    sink.SetColorTransform(
        color::ColorTransform::SharedFromIcc(static_cast<const uint8_t*>(icc), icc_size, color::PixelLayout::kBgra8));
  }
  uint16_t orientation = ORIENTATION_TOPLEFT;
  TIFFGetFieldDefaulted(tif, TIFFTAG_ORIENTATION, &orientation);

  // Not zeroed: every row handed on was written by libtiff, and a slice
  // that fails early touches only the pages it wrote.
  std::unique_ptr<uint32_t[]> raster(new (std::nothrow) uint32_t[static_cast<size_t>(width) * chunk]);
  if (!raster) return Status::Internal("out of memory");
  const bool has_alpha = image.alpha != 0;
  for (uint32_t row = 0; row < height; row += chunk) {
    if (Cancelled(tif)) return DecodeCancelledError();
    const uint32_t rows = std::min(chunk, height - row);
    image.row_offset = static_cast<int>(row);
    image.col_offset = 0;
    if (!TIFFRGBAImageGet(&image, raster.get(), width, rows)) {
      if (Cancelled(tif)) return DecodeCancelledError();
      if (row == 0) return Status::InvalidArgument("TIFF data unreadable");
      break;  // keep what was read; the rest shows as grey
    }
    for (uint32_t r = 0; r < rows; ++r) {
      uint8_t* line = reinterpret_cast<uint8_t*>(raster.get() + static_cast<size_t>(r) * width);
      // Packed ABGR words are R, G, B, A bytes on little-endian hosts.
      for (uint32_t x = 0; x < width; ++x) {
        uint32_t v = raster[static_cast<size_t>(r) * width + x];
        uint8_t* p = line + x * 4;
        p[0] = static_cast<uint8_t>(TIFFGetB(v));
        p[1] = static_cast<uint8_t>(TIFFGetG(v));
        p[2] = static_cast<uint8_t>(TIFFGetR(v));
        p[3] = static_cast<uint8_t>(TIFFGetA(v));
      }
      if (has_alpha) {
        sink.PushPremultipliedRow(line);
      } else {
        sink.PushStraightRow(line);
      }
    }
  }
  return sink.Finish(orientation >= 1 && orientation <= 8 ? orientation : 1, out);
}

// Unpacks count samples of `bits` bits into 8-bit values, rounding (or, with
// `scale` false, as they are: palette indices). Samples of other than 8 or
// 16 bits are packed most significant bit first; 16-bit ones come in host
// order (libtiff swaps them).
void UnpackSamples(const uint8_t* src, int bits, size_t count, uint8_t* dst, bool scale = true) {
  if (bits == 8) {
    std::memcpy(dst, src, count);
    return;
  }
  if (bits == 16) {
    for (size_t i = 0; i < count; ++i) {
      uint16_t v;
      std::memcpy(&v, src + i * 2, 2);
      dst[i] = static_cast<uint8_t>((uint32_t{v} * 255 + 32767) / 65535);
    }
    return;
  }
  const uint32_t max = (1u << bits) - 1;
  uint32_t acc = 0;
  int have = 0;
  for (size_t i = 0; i < count; ++i) {
    while (have < bits) {
      acc = (acc << 8) | *src++;
      have += 8;
    }
    have -= bits;
    const uint32_t v = (acc >> have) & max;
    acc &= (1u << have) - 1;
    dst[i] = static_cast<uint8_t>(scale ? (v * 255 + max / 2) / max : v);
  }
}

// Turns count pixels of 8-bit samples into BGRA, or into CMYK for CMYK
// input without a transform (the sink converts it after the reduction).
// cmyk is scratch of 4 bytes a pixel for CMYK input.
void SamplesToBgra(const SampleLayout& layout, const color::ColorTransform* cmyk_transform, const uint8_t* s,
                   size_t count, uint8_t* cmyk, uint8_t* bgra) {
  const int n = layout.samples;
  if (layout.color_samples == 4) {
    if (cmyk_transform == nullptr) {
      for (size_t x = 0; x < count; ++x) std::memcpy(bgra + x * 4, s + x * n, 4);
      return;
    }
    for (size_t x = 0; x < count; ++x) std::memcpy(cmyk + x * 4, s + x * n, 4);
    cmyk_transform->Apply(cmyk, bgra, count);
  } else if (layout.color_samples == 3) {
    for (size_t x = 0; x < count; ++x) {
      bgra[x * 4] = s[x * n + 2];
      bgra[x * 4 + 1] = s[x * n + 1];
      bgra[x * 4 + 2] = s[x * n];
      bgra[x * 4 + 3] = 255;
    }
  } else if (!layout.palette.empty()) {
    const size_t entries = layout.palette.size() / 3;
    for (size_t x = 0; x < count; ++x) {
      const size_t index = std::min<size_t>(s[x * n], entries - 1);
      std::memcpy(bgra + x * 4, layout.palette.data() + index * 3, 3);
      bgra[x * 4 + 3] = 255;
    }
  } else {
    const uint8_t flip = layout.photometric == PHOTOMETRIC_MINISWHITE ? 255 : 0;
    for (size_t x = 0; x < count; ++x) {
      const uint8_t v = s[x * n] ^ flip;
      bgra[x * 4] = bgra[x * 4 + 1] = bgra[x * 4 + 2] = v;
      bgra[x * 4 + 3] = 255;
    }
  }
  if (layout.alpha_index >= 0) {
    for (size_t x = 0; x < count; ++x) bgra[x * 4 + 3] = s[x * n + layout.alpha_index];
  }
}

// CMYK rows without alpha go to the sink as CMYK; all others are BGRA.
bool ReducesCmyk(const SampleLayout& layout) { return layout.color_samples == 4 && layout.alpha_index < 0; }

// The rows of a planar-separate strip image, each plane read on its own and
// front to back. A TIFF handle decodes one strip at a time, and taking turns
// between the planes' strips on one handle would decode each strip again
// from its start for every row; reading a strip whole instead holds a plane
// (libtiff reads an uncompressed strip whole too). So uncompressed rows are
// read straight from the source, and compressed planes each get a handle of
// their own: memory is a row, plus a compressed strip, per plane.
class PlaneRows {
 public:
  // Prepares reading the planes of the directory that `tif` is on; its
  // scanline reads serve the first plane. `width` is the image's.
  Status Open(TIFF* tif, const SampleLayout& layout, uint32_t width) {
    tif_ = tif;
    uint16_t compression = COMPRESSION_NONE;
    TIFFGetFieldDefaulted(tif, TIFFTAG_COMPRESSION, &compression);
    uncompressed_ = compression == COMPRESSION_NONE;
    uint32_t height = 0;
    uint32_t rows_per_strip = 0;
    TIFFGetField(tif, TIFFTAG_IMAGELENGTH, &height);
    TIFFGetFieldDefaulted(tif, TIFFTAG_ROWSPERSTRIP, &rows_per_strip);
    rows_per_strip_ = std::max<uint32_t>(1, std::min(rows_per_strip, height));
    strips_per_plane_ = (height + rows_per_strip_ - 1) / rows_per_strip_;
    if (uint64_t{TIFFNumberOfStrips(tif)} < uint64_t{strips_per_plane_} * layout.samples) {
      return Status::InvalidArgument("TIFF without a strip for every plane");
    }
    line_bytes_ = static_cast<uint64_t>(TIFFScanlineSize64(tif));
    uint16_t fill_order = FILLORDER_MSB2LSB;
    TIFFGetFieldDefaulted(tif, TIFFTAG_FILLORDER, &fill_order);
    reverse_bits_ = fill_order == FILLORDER_LSB2MSB;
    swab_ = TIFFIsByteSwapped(tif) && layout.bits == 16;
    plane_.resize(width);
    if (uncompressed_) return Status::OK();
    Client* client = static_cast<Client*>(TIFFClientdata(tif));
    clients_.reset(new Client[layout.samples]);
    handles_.resize(static_cast<size_t>(layout.samples));
    for (int p = 1; p < layout.samples; ++p) {
      clients_[p] = Client{client->source, 0};
      Status status = OpenTiff(&clients_[p], &handles_[p]);
      if (!status.ok()) return status;
      if (!TIFFSetSubDirectory(handles_[p].get(), TIFFCurrentDirOffset(tif))) {
        return Status::InvalidArgument("TIFF directory lost");
      }
    }
    return Status::OK();
  }

  // Reads row y of every plane (rows in order) and interleaves them as 8-bit
  // samples (unpacked as UnpackSamples does). `line` holds a scanline.
  bool ReadRow(uint32_t y, const SampleLayout& layout, uint8_t* line, uint8_t* samples) {
    const size_t width = plane_.size();
    for (int p = 0; p < layout.samples; ++p) {
      if (!ReadPlaneRow(p, y, line)) return false;
      UnpackSamples(line, layout.bits, width, plane_.data(), layout.palette.empty());
      for (size_t x = 0; x < width; ++x) samples[x * layout.samples + p] = plane_[x];
    }
    return true;
  }

 private:
  bool ReadPlaneRow(int p, uint32_t y, uint8_t* line) {
    if (!uncompressed_) return TIFFReadScanline(p == 0 ? tif_ : handles_[p].get(), line, y, static_cast<uint16_t>(p)) >= 0;
    const uint32_t strip = static_cast<uint32_t>(p) * strips_per_plane_ + y / rows_per_strip_;
    const uint64_t start = uint64_t{y % rows_per_strip_} * line_bytes_;
    const uint64_t offset = TIFFGetStrileOffset(tif_, strip);
    if (offset == 0 || start + line_bytes_ > TIFFGetStrileByteCount(tif_, strip)) return false;
    ByteSource* source = static_cast<Client*>(TIFFClientdata(tif_))->source;
    if (source->cancelled() ||
        source->ReadAt(offset + start, line, static_cast<size_t>(line_bytes_)) != static_cast<int64_t>(line_bytes_)) {
      return false;
    }
    // What libtiff does to the rows it reads.
    if (reverse_bits_) TIFFReverseBits(line, static_cast<tmsize_t>(line_bytes_));
    if (swab_) TIFFSwabArrayOfShort(reinterpret_cast<uint16_t*>(line), static_cast<tmsize_t>(line_bytes_ / 2));
    return true;
  }

  TIFF* tif_ = nullptr;
  bool uncompressed_ = false;
  bool reverse_bits_ = false;
  bool swab_ = false;
  uint32_t rows_per_strip_ = 1;
  uint32_t strips_per_plane_ = 0;
  uint64_t line_bytes_ = 0;
  std::vector<uint8_t> plane_;
  std::unique_ptr<Client[]> clients_;  // handles_ read through them
  std::vector<TiffPtr> handles_;       // [0] unused: plane 0 reads through tif_
};

void PushRow(const SampleLayout& layout, ReducingSink* sink, uint8_t* bgra) {
  if (ReducesCmyk(layout)) {
    sink->PushOpaqueRow(bgra);
  } else if (layout.associated_alpha) {
    sink->PushPremultipliedRow(bgra);
  } else {
    sink->PushStraightRow(bgra);
  }
}

// The sample path: scanline by scanline for strips, one row of tiles at a
// time for tiles. A read error after the first scanline or tile keeps what
// was read.
Status DecodeSamples(TIFF* tif, const SampleLayout& layout, uint32_t cx, const FanOutRequest& fan_out,
                     image::Bitmap* out) {
  uint32_t width = 0;
  uint32_t height = 0;
  if (!ReadSize(tif, &width, &height)) return Status::InvalidArgument("TIFF without a size");
  ReducingSink sink;
  Status status = sink.Init(width, height, cx);
  if (!status.ok()) return status;

  uint16_t orientation = ORIENTATION_TOPLEFT;
  TIFFGetFieldDefaulted(tif, TIFFTAG_ORIENTATION, &orientation);
  uint32_t icc_size = 0;
  void* icc = nullptr;
  if (!TIFFGetField(tif, TIFFTAG_ICCPROFILE, &icc_size, &icc)) {
    icc = nullptr;
    icc_size = 0;
  }
  // Colour is converted after the reduction, but CMYK with alpha must be
  // converted before it is flattened over white.
  std::shared_ptr<const color::ColorTransform> transform;
  if (layout.color_samples == 4) {
    // Without a usable profile this is the built-in press model.
    transform = color::ColorTransform::SharedFromIcc(static_cast<const uint8_t*>(icc), icc_size, color::PixelLayout::kCmyk8);
  } else if (layout.color_samples == 3 && icc != nullptr) {
    transform = color::ColorTransform::SharedFromIcc(static_cast<const uint8_t*>(icc), icc_size, color::PixelLayout::kBgra8);
  }
  const color::ColorTransform* cmyk_transform = nullptr;
  if (layout.color_samples == 4 && !ReducesCmyk(layout)) {
    cmyk_transform = transform.get();
  } else {
    sink.SetColorTransform(transform);
  }

  const uint64_t pixel_bits = uint64_t{static_cast<uint32_t>(layout.bits)} * layout.samples;
  const uint64_t row_samples = uint64_t{width} * layout.samples;
  const uint64_t cmyk_bytes = layout.color_samples == 4 ? uint64_t{width} * 4 : 0;
  std::vector<uint8_t> samples;
  std::vector<uint8_t> cmyk;
  std::vector<uint8_t> bgra;

  if (!TIFFIsTiled(tif)) {
    // A planar image's scanline is one plane's row.
    const uint64_t line_bytes = static_cast<uint64_t>(TIFFScanlineSize64(tif));
    const uint64_t line_bits = uint64_t{width} * (layout.planar ? static_cast<uint64_t>(layout.bits) : pixel_bits);
    if (line_bytes < (line_bits + 7) / 8) return Status::InvalidArgument("TIFF scanline size");
    const uint64_t plane_bytes = layout.planar ? width : 0;
    const uint64_t planned = line_bytes + plane_bytes + row_samples + cmyk_bytes + uint64_t{width} * 4;
    if (!WithinDecodeBudget(planned)) return Status::InvalidArgument("TIFF scanlines too large to decode");
    PlaneRows planes;
    if (layout.planar) {
      status = planes.Open(tif, layout, width);
      if (!status.ok()) return status;
    }
    sink.FanOut(fan_out, planned);
    std::vector<uint8_t> line(static_cast<size_t>(line_bytes));
    samples.resize(static_cast<size_t>(row_samples));
    cmyk.resize(static_cast<size_t>(cmyk_bytes));
    bgra.resize(static_cast<size_t>(width) * 4);
    for (uint32_t y = 0; y < height; ++y) {
      if (Cancelled(tif)) return DecodeCancelledError();
      const bool read = layout.planar ? planes.ReadRow(y, layout, line.data(), samples.data())
                                      : TIFFReadScanline(tif, line.data(), y, 0) >= 0;
      if (!read) {
        if (Cancelled(tif)) return DecodeCancelledError();
        if (y == 0) return Status::InvalidArgument("TIFF data unreadable");
        break;
      }
      if (!layout.planar) {
        UnpackSamples(line.data(), layout.bits, samples.size(), samples.data(), layout.palette.empty());
      }
      SamplesToBgra(layout, cmyk_transform, samples.data(), width, cmyk.data(), bgra.data());
      PushRow(layout, &sink, bgra.data());
    }
    return sink.Finish(orientation >= 1 && orientation <= 8 ? orientation : 1, out);
  }

  uint32_t tile_width = 0;
  uint32_t tile_height = 0;
  if (!TIFFGetField(tif, TIFFTAG_TILEWIDTH, &tile_width) || !TIFFGetField(tif, TIFFTAG_TILELENGTH, &tile_height) ||
      tile_width == 0 || tile_height == 0) {
    return Status::InvalidArgument("TIFF tile size");
  }
  const uint64_t tile_bytes = static_cast<uint64_t>(TIFFTileSize64(tif));
  const uint64_t tile_row_bytes = static_cast<uint64_t>(TIFFTileRowSize64(tif));
  const uint32_t band_rows = std::min(tile_height, height);
  if (tile_row_bytes < (uint64_t{tile_width} * pixel_bits + 7) / 8 ||
      tile_bytes < tile_row_bytes * tile_height) {
    return Status::InvalidArgument("TIFF tile size");
  }
  const uint64_t band_bytes = uint64_t{width} * band_rows * 4;
  const uint64_t planned = tile_bytes + band_bytes + row_samples + cmyk_bytes;
  if (!WithinDecodeBudget(planned)) return Status::InvalidArgument("TIFF tiles too large to decode");
  sink.FanOut(fan_out, planned);
  std::vector<uint8_t> tile(static_cast<size_t>(tile_bytes));
  samples.resize(static_cast<size_t>(uint64_t{std::min(tile_width, width)} * layout.samples));
  cmyk.resize(static_cast<size_t>(cmyk_bytes));
  bgra.resize(static_cast<size_t>(band_bytes));
  bool truncated = false;
  for (uint32_t ty = 0; ty < height && !truncated; ty += tile_height) {
    const uint32_t rows = std::min(tile_height, height - ty);
    for (uint32_t tx = 0; tx < width; tx += tile_width) {
      if (Cancelled(tif)) return DecodeCancelledError();
      const uint32_t cols = std::min(tile_width, width - tx);
      if (TIFFReadTile(tif, tile.data(), tx, ty, 0, 0) < 0) {
        if (Cancelled(tif)) return DecodeCancelledError();
        if (ty == 0 && tx == 0) return Status::InvalidArgument("TIFF data unreadable");
        // Keep this row of tiles with the unreadable one blank, then stop.
        std::fill(tile.begin(), tile.end(), 0);
        truncated = true;
      }
      for (uint32_t r = 0; r < rows; ++r) {
        UnpackSamples(tile.data() + r * tile_row_bytes, layout.bits, size_t{cols} * layout.samples, samples.data(),
                      layout.palette.empty());
        SamplesToBgra(layout, cmyk_transform, samples.data(), cols, cmyk.data(),
                      bgra.data() + (static_cast<size_t>(r) * width + tx) * 4);
      }
    }
    for (uint32_t r = 0; r < rows; ++r) PushRow(layout, &sink, bgra.data() + static_cast<size_t>(r) * width * 4);
  }
  return sink.Finish(orientation >= 1 && orientation <= 8 ? orientation : 1, out);
}

class TiffDecoder : public ReducingDecoder {
 public:
  Status Decode(ByteSource* source, uint32_t cx, image::Bitmap* out) override {
    if (TakeKept(cx, out)) return Status::OK();
    Client client{source, 0};
    TiffPtr tif;
    Status status = OpenTiff(&client, &tif);
    if (!status.ok()) return status;
    const bool camera_raw = LooksLikeCameraRaw(tif.get());
    if (camera_raw) {
      // A develop keeps what it makes for the other sizes where TakeKept
      // above finds it.
      status = DecodeCameraRaw(source, cx, true, AnticipatedRequests(), out);
      if (status.ok() || IsImageTooLarge(status)) return status;
      if (source->cancelled()) return DecodeCancelledError();
      LOG_DEBUG(kLogComponent, "not decodable as camera RAW (%s), trying TIFF", status.ToString().c_str());
      if (!TIFFSetDirectory(tif.get(), 0)) return Status::InvalidArgument("TIFF directory lost");
    }
    ImageChoices choices;
    status = FindImages(tif.get(), &choices);
    if (!status.ok()) return status;
    const Candidate chosen = ChooseImage(choices, cx);
    if (!Select(tif.get(), chosen)) return Status::InvalidArgument("TIFF directory lost");
    // Every other size that picks the same image reads the same rows; not
    // so after a failed RAW decode, which may succeed at another size.
    FanOutRequest fan_out;
    if (!camera_raw) {
      fan_out = AnticipatedRequests();
      fan_out.cx_values.erase(std::remove_if(fan_out.cx_values.begin(), fan_out.cx_values.end(),
                                             [&](uint32_t other) {
                                               return !SameImage(ChooseImage(choices, other), chosen);
                                             }),
                              fan_out.cx_values.end());
    }
    SampleLayout layout;
    if (PreferSamplePath(tif.get()) && ParseSampleLayout(tif.get(), &layout)) {
      return DecodeSamples(tif.get(), layout, cx, fan_out, out);
    }
    return DecodeRgba(tif.get(), cx, fan_out, out);
  }

 private:
  // Camera RAW files in a TIFF container name the camera (Make) or are DNGs;
  // they go to the RAW decoder first. Scanner TIFFs that name their maker
  // fall back to the TIFF path when the RAW decoder does not know them. A
  // TIFF that does neither never reaches the RAW decoder, so the tool does
  // not load LibRaw for it.
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

}  // namespace codec
}  // namespace tessera
