// TIFF in two ways. Gray, RGB, CMYK, CIE L*a*b* and palette images of 1 to
// 16 bits, and gray and RGB ones of 16-, 32- or 64-bit floats, interleaved
// or planar-separate, uncompressed or with any codec but old-style JPEG,
// are unpacked here, scanline by scanline for strips and one row of tiles
// at a time for tiles. Integer samples are sRGB levels unless the file
// declares otherwise (a range of values, a transfer function, a gray ICC
// profile); floats are linear light. CMYK and Lab go through the
// colour-managed conversion (the embedded profile, else the built-in press
// model or CIE Lab to sRGB). Reading scanlines in order decodes each strip
// once, so a file written as one huge strip costs no more than one cut into
// many. What needs libtiff's own colour handling (YCbCr, old-style JPEG,
// LogLuv) goes through the RGBA interface a slice of whole strips or one
// row of tiles at a time. Either way rows are reduced on the fly, so memory
// is bounded by the raw data of one strip or tile row plus the output. The
// rows of one decode also serve the run's other sizes that pick the same
// image (ReducingSink::FanOut). A page whose data cannot be read is served
// by a smaller copy of it for the sizes that copy is large enough for.
#include <tiffio.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <memory>
#include <new>
#include <utility>
#include <vector>

#include "lib/codec/decoders.h"
#include "lib/codec/raw/raw-decoder.h"
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

// How the colour samples of a pixel become a colour.
enum class ColorModel { kGray, kRgb, kCmyk, kLab, kPalette };

// What the sample path reads: unsigned integer samples of 1 to 16 bits, or
// floating-point ones of 16, 32 or 64 bits (gray and RGB), interleaved or
// planar-separate, as gray, RGB, CMYK, CIE L*a*b* (8 and 16 bits) or
// palette indices (up to 8 bits) with an optional alpha sample after the
// colour ones.
struct SampleLayout {
  uint16_t photometric = 0;
  int bits = 0;
  bool floating = false;  // IEEE floating point: linear light, 0 to 1
  int samples = 0;        // per pixel, extra samples included
  bool planar = false;    // one plane of strips or tiles per sample
  ColorModel model = ColorModel::kGray;
  int color_samples = 0;  // 1, 3 or 4
  int alpha_index = -1;   // sample index of alpha, -1 when none
  bool associated_alpha = false;
  // Gray whose scaled samples are inverted (MinIsWhite without maps).
  bool invert = false;
  // Palette images: 8-bit B, G, R per index (2^bits entries).
  std::vector<uint8_t> palette;
  // Filled by PrepareSampleMaps. Per sample, the 8-bit value of each stored
  // value (2^bits entries; for 16-bit floats, of each bit pattern); empty
  // when every sample is only scaled to 8 bits.
  std::vector<std::vector<uint8_t>> maps;
  // Floating samples v show as (v - float_offset) * float_scale, clamped to
  // 0..1.
  double float_offset = 0;
  double float_scale = 1;
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
  const bool floating = format == SAMPLEFORMAT_IEEEFP;
  if (floating ? bits != 16 && bits != 32 && bits != 64 : format != SAMPLEFORMAT_UINT || bits < 1 || bits > 16) {
    return false;
  }
  if (planar != PLANARCONFIG_CONTIG && planar != PLANARCONFIG_SEPARATE) return false;
  SampleLayout layout;
  layout.planar = planar == PLANARCONFIG_SEPARATE && samples > 1;
  layout.photometric = photometric;
  layout.bits = bits;
  layout.floating = floating;
  layout.samples = samples;
  switch (photometric) {
    case PHOTOMETRIC_MINISBLACK:
    case PHOTOMETRIC_MINISWHITE:
      layout.model = ColorModel::kGray;
      layout.color_samples = 1;
      layout.invert = photometric == PHOTOMETRIC_MINISWHITE;
      break;
    case PHOTOMETRIC_RGB:
      layout.model = ColorModel::kRgb;
      layout.color_samples = 3;
      break;
    case PHOTOMETRIC_PALETTE:
      if (floating || bits > 8 || !ReadPalette(tif, bits, &layout.palette)) return false;
      layout.model = ColorModel::kPalette;
      layout.color_samples = 1;
      break;
    case PHOTOMETRIC_SEPARATED: {
      uint16_t inkset = INKSET_CMYK;
      TIFFGetFieldDefaulted(tif, TIFFTAG_INKSET, &inkset);
      if (floating || inkset != INKSET_CMYK) return false;
      layout.model = ColorModel::kCmyk;
      layout.color_samples = 4;
      break;
    }
    case PHOTOMETRIC_CIELAB:
    case PHOTOMETRIC_ICCLAB:
    case PHOTOMETRIC_ITULAB:
      if (floating || (bits != 8 && bits != 16)) return false;
      layout.model = ColorModel::kLab;
      layout.color_samples = 3;
      break;
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

uint8_t Clamp8(double v) { return v <= 0 ? 0 : v >= 255 ? 255 : static_cast<uint8_t>(std::lrint(v)); }

// Linear light (0..1 in 65536 steps) encoded with the sRGB curve.
const uint8_t* SrgbEncodingTable() {
  static const std::vector<uint8_t>* table = [] {
    auto* t = new std::vector<uint8_t>(65536);
    for (int i = 0; i < 65536; ++i) {
      const double v = i / 65535.0;
      (*t)[i] = Clamp8(255 * (v <= 0.0031308 ? 12.92 * v : 1.055 * std::pow(v, 1 / 2.4) - 0.055));
    }
    return t;
  }();
  return table->data();
}

// Linear light in 0..1 (clamped; NaN is black) as an 8-bit sRGB level.
uint8_t EncodeSrgb(double linear) {
  if (!(linear > 0)) return 0;
  if (linear >= 1) return 255;
  return SrgbEncodingTable()[static_cast<int>(linear * 65535 + 0.5)];
}

// The value of a 16-bit IEEE float.
double HalfValue(uint16_t h) {
  const int exponent = (h >> 10) & 0x1F;
  const int mantissa = h & 0x3FF;
  double v;
  if (exponent == 0) {
    v = std::ldexp(mantissa, -24);
  } else if (exponent == 31) {
    v = mantissa != 0 ? std::nan("") : HUGE_VAL;
  } else {
    v = std::ldexp(mantissa + 1024, exponent - 25);
  }
  return (h & 0x8000) ? -v : v;
}

// A declared range of sample values (SMinSampleValue, SMaxSampleValue; the
// lowest and highest over all samples) that is usable: finite and not
// empty. Integer samples also need it to lie within their values.
bool DeclaredRange(TIFF* tif, const SampleLayout& layout, double* low, double* high) {
  double smin = 0;
  double smax = 0;
  if (!TIFFGetField(tif, TIFFTAG_SMINSAMPLEVALUE, &smin) || !TIFFGetField(tif, TIFFTAG_SMAXSAMPLEVALUE, &smax)) {
    return false;
  }
  if (!std::isfinite(smin) || !std::isfinite(smax) || !(smax > smin)) return false;
  if (!layout.floating && (smin < 0 || smax > (1 << layout.bits) - 1)) return false;
  *low = smin;
  *high = smax;
  return true;
}

// CIE L*a*b* samples of `layout.bits` bits as the 8-bit ICC encoding the
// Lab transform takes (L* 0..100 as 0..255, a* and b* offset by 128), per
// photometric interpretation: CIELab stores a* and b* signed (16-bit ones
// in 256ths), ICCLab offset by 128 (16-bit ones by 32768, in 256ths, and
// L* 100 as 65280), ITULab spans L* 0..100, a* -85..85 and b* -75..125 over
// all values.
void LabMaps(const SampleLayout& layout, std::vector<std::vector<uint8_t>>* maps) {
  const uint32_t max = (1u << layout.bits) - 1;
  const bool sixteen = layout.bits == 16;
  // libtiff does not know the Decode tag; the defaults of TIFF-FX.
  const double itu[6] = {0, 100, -85, 85, -75, 125};
  for (int c = 0; c < 3; ++c) {
    std::vector<uint8_t>& map = (*maps)[c];
    map.resize(size_t{max} + 1);
    for (uint32_t v = 0; v <= max; ++v) {
      double lab = 0;  // L* or a*/b*
      switch (layout.photometric) {
        case PHOTOMETRIC_CIELAB:
          lab = c == 0 ? v * 100.0 / max
                       : sixteen ? static_cast<int16_t>(static_cast<uint16_t>(v)) / 256.0
                                 : static_cast<int8_t>(static_cast<uint8_t>(v));
          break;
        case PHOTOMETRIC_ICCLAB:
          lab = c == 0 ? v * 100.0 / (sixteen ? 65280 : 255) : (sixteen ? v / 256.0 : v) - 128;
          break;
        default:  // ITULab
          lab = itu[c * 2] + v * (itu[c * 2 + 1] - itu[c * 2]) / max;
          break;
      }
      map[v] = Clamp8(c == 0 ? lab * 255 / 100 : lab + 128);
    }
  }
}

// Fills layout->maps and the float range from what the file declares
// about its values: gray and RGB samples span a declared range
// (SMinSampleValue..SMaxSampleValue) rather than all values, gray and RGB
// integer samples without an ICC profile may name the light of each value
// (TransferFunction), and gray samples may come with a gray ICC profile;
// CIE L*a*b* samples get their encoding's map. Integer samples that
// declare none of this are scaled to 8 bits as they are, as sRGB levels.
void PrepareSampleMaps(TIFF* tif, SampleLayout* layout, const uint8_t* icc, uint32_t icc_size) {
  const bool gray_or_rgb = layout->model == ColorModel::kGray || layout->model == ColorModel::kRgb;
  double low = 0;
  double high = 0;
  const bool ranged = gray_or_rgb && DeclaredRange(tif, *layout, &low, &high);
  if (layout->floating) {
    if (ranged) {
      layout->float_offset = low;
      layout->float_scale = 1 / (high - low);
    }
    if (layout->bits != 16) return;
    // Half floats: a map over every bit pattern.
    layout->maps.assign(static_cast<size_t>(layout->samples), std::vector<uint8_t>(65536));
    for (int s = 0; s < layout->samples; ++s) {
      for (uint32_t h = 0; h < 65536; ++h) {
        const double v = HalfValue(static_cast<uint16_t>(h));
        if (s < layout->color_samples) {
          double x = (v - layout->float_offset) * layout->float_scale;
          if (layout->invert) x = 1 - x;
          layout->maps[s][h] = EncodeSrgb(x);
        } else {
          layout->maps[s][h] = std::isnan(v) ? 0 : Clamp8(v * 255);
        }
      }
    }
    layout->invert = false;
    return;
  }
  const uint32_t max = (1u << layout->bits) - 1;
  std::vector<std::vector<uint8_t>> maps(static_cast<size_t>(layout->samples));
  if (layout->model == ColorModel::kLab) {
    LabMaps(*layout, &maps);
  } else if (gray_or_rgb) {
    // A gray ICC profile, unless it describes sRGB's curve.
    std::shared_ptr<const color::ColorTransform> gray_icc;
    if (layout->model == ColorModel::kGray && icc != nullptr) {
      gray_icc = color::ColorTransform::SharedFromIcc(icc, icc_size, color::PixelLayout::kGray16);
      if (gray_icc->is_identity()) gray_icc.reset();
    }
    uint16_t* transfer[3] = {nullptr, nullptr, nullptr};
    const bool has_transfer = icc == nullptr && TIFFGetField(tif, TIFFTAG_TRANSFERFUNCTION, &transfer[0], &transfer[1],
                                                             &transfer[2]) && transfer[0] != nullptr;
    if (ranged || gray_icc || has_transfer) {
      for (int c = 0; c < layout->color_samples; ++c) {
        const uint16_t* table = has_transfer ? (transfer[c] != nullptr ? transfer[c] : transfer[0]) : nullptr;
        std::vector<uint8_t>& map = maps[c];
        map.resize(size_t{max} + 1);
        std::vector<uint16_t> levels(size_t{max} + 1);
        for (uint32_t v = 0; v <= max; ++v) {
          if (table != nullptr) {
            // The light of each value, 0..65535, whatever the photometric
            // interpretation.
            map[v] = EncodeSrgb(table[v] / 65535.0);
            continue;
          }
          // The declared range is one of stored values.
          double x = ranged ? (v - low) / (high - low) : static_cast<double>(v) / max;
          x = std::min(1.0, std::max(0.0, x));
          if (layout->invert) x = 1 - x;
          levels[v] = static_cast<uint16_t>(std::lrint(x * 65535));
          map[v] = Clamp8(x * 255);
        }
        if (gray_icc && table == nullptr) {
          std::vector<uint8_t> bgra(levels.size() * 4);
          gray_icc->Apply(reinterpret_cast<const uint8_t*>(levels.data()), bgra.data(), levels.size());
          for (size_t v = 0; v < levels.size(); ++v) map[v] = bgra[v * 4 + 1];
        }
      }
      layout->invert = false;
    }
  }
  if (maps[0].empty()) return;  // plain scaling throughout
  // The other samples (alpha, extra ones) scaled as they are.
  for (std::vector<uint8_t>& map : maps) {
    if (!map.empty()) continue;
    map.resize(size_t{max} + 1);
    for (uint32_t v = 0; v <= max; ++v) map[v] = static_cast<uint8_t>((v * 255 + max / 2) / max);
  }
  layout->maps = std::move(maps);
}

// Every layout the sample path reads takes it, except old-style JPEG,
// whose codec converts colour itself. (New-style JPEG hands over the
// samples as stored, except YCbCr, which the sample path does not read.)
bool PreferSamplePath(TIFF* tif) {
  uint16_t compression = COMPRESSION_NONE;
  TIFFGetFieldDefaulted(tif, TIFFTAG_COMPRESSION, &compression);
  if (compression == COMPRESSION_OJPEG) return false;
  SampleLayout layout;
  return ParseSampleLayout(tif, &layout);
}

bool Readable(TIFF* tif) { return PreferSamplePath(tif) || RgbaReadable(tif); }

// The images a request may be served from: the first full-resolution page
// and the readable reduced-resolution copies of it (following reduced IFDs
// and SubIFDs) with its aspect ratio, in file order; and the page after it
// when that is a readable smaller image of the same aspect, which scanners
// write as a preview of the page without marking it as a reduced copy.
struct ImageChoices {
  Candidate main;
  std::vector<Candidate> reduced;
  bool has_next_page = false;
  Candidate next_page;
};

Status FindImages(TIFF* tif, ImageChoices* out) {
  Candidate main;
  bool found = false;
  std::vector<Candidate> reduced;
  bool has_next_page = false;
  Candidate next_page;
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
        next_page = c;
        has_next_page = true;
        break;
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
  choices.has_next_page = has_next_page && SameAspect(next_page, main) &&
                          std::max(next_page.width, next_page.height) < std::max(main.width, main.height) &&
                          Select(tif, next_page) && Readable(tif);
  choices.next_page = next_page;
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

// A smaller image to serve cx from when the page's own data cannot be
// read: the smallest reduced copy (or, with `next_page_too`, the preview
// page) large enough by the rule of camera RAW previews (raw/raw-decoder.cc):
// a longer side of at least two thirds of cx, or of the page's.
bool ChooseStandIn(const ImageChoices& choices, uint32_t cx, bool next_page_too, Candidate* out) {
  const uint32_t main_longer = std::max(choices.main.width, choices.main.height);
  const uint64_t needed = std::min<uint64_t>((uint64_t{cx} * 2 + 2) / 3, main_longer);
  std::vector<Candidate> copies = choices.reduced;
  if (next_page_too && choices.has_next_page) copies.push_back(choices.next_page);
  bool found = false;
  for (const Candidate& c : copies) {
    const uint32_t longer = std::max(c.width, c.height);
    if (longer >= needed && longer < main_longer && (!found || longer < std::max(out->width, out->height))) {
      *out = c;
      found = true;
    }
  }
  return found;
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

// Calls use(i, value) for each of `count` integer samples of `bits` bits at
// `src`: 8 and 16 bits as stored (16 in host order, as libtiff hands them
// over), other depths packed most significant bit first.
template <typename Use>
void ForEachIntegerSample(const uint8_t* src, size_t count, int bits, Use use) {
  if (bits == 8) {
    for (size_t i = 0; i < count; ++i) use(i, src[i]);
    return;
  }
  if (bits == 16) {
    for (size_t i = 0; i < count; ++i) {
      uint16_t v;
      std::memcpy(&v, src + i * 2, 2);
      use(i, v);
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
    use(i, (acc >> have) & max);
    acc &= (1u << have) - 1;
  }
}

// Unpacks `count` samples into 8-bit values: sample i belongs to sample
// index `plane` of the layout, or with plane -1 (interleaved samples) to
// index i % samples. Integer samples are scaled, rounding, or mapped
// through layout.maps; palette indices stay as they are; floating-point
// ones are encoded from linear light (alpha scaled). Integer samples of
// other than 8 or 16 bits are packed most significant bit first; 16-bit
// ones and floats come in host order (libtiff swaps them).
void UnpackSamples(const uint8_t* src, size_t count, const SampleLayout& layout, int plane, uint8_t* dst) {
  const int bits = layout.bits;
  const size_t n = static_cast<size_t>(layout.samples);
  auto index = [&](size_t i) { return plane >= 0 ? static_cast<size_t>(plane) : i % n; };
  if (layout.floating && bits != 16) {
    for (size_t i = 0; i < count; ++i) {
      double v;
      if (bits == 32) {
        float f;
        std::memcpy(&f, src + i * 4, 4);
        v = f;
      } else {
        std::memcpy(&v, src + i * 8, 8);
      }
      const size_t s = index(i);
      if (s < static_cast<size_t>(layout.color_samples)) {
        double x = (v - layout.float_offset) * layout.float_scale;
        if (layout.invert) x = 1 - x;
        dst[i] = EncodeSrgb(x);
      } else {
        dst[i] = std::isnan(v) ? 0 : Clamp8(v * 255);
      }
    }
    return;
  }
  if (!layout.maps.empty()) {
    ForEachIntegerSample(src, count, bits, [&](size_t i, uint32_t v) { dst[i] = layout.maps[index(i)][v]; });
    return;
  }
  if (bits == 8) {
    std::memcpy(dst, src, count);
    return;
  }
  // 16-bit samples are always scaled; palette indices of other depths not.
  const bool scale = bits == 16 || layout.palette.empty();
  const uint32_t max = (1u << bits) - 1;
  ForEachIntegerSample(src, count, bits, [&](size_t i, uint32_t v) {
    dst[i] = static_cast<uint8_t>(scale ? (v * 255 + max / 2) / max : v);
  });
}

// Whether rows go to the sink in the colour space of the samples, four
// bytes a pixel (CMYK; Lab as L, a, b and a spare byte), to be converted
// after the reduction: when there is no alpha to flatten first.
bool ReducesUnconverted(const SampleLayout& layout) {
  return (layout.model == ColorModel::kCmyk || layout.model == ColorModel::kLab) && layout.alpha_index < 0;
}

// Turns count pixels of 8-bit samples into BGRA, or into four-byte CMYK or
// Lab pixels when they are reduced unconverted. `convert` converts CMYK
// and Lab pixels with alpha right here; scratch holds four bytes a pixel
// for them.
void SamplesToBgra(const SampleLayout& layout, const color::ColorTransform* convert, const uint8_t* s,
                   size_t count, uint8_t* scratch, uint8_t* bgra) {
  const int n = layout.samples;
  switch (layout.model) {
    case ColorModel::kCmyk:
    case ColorModel::kLab: {
      uint8_t* four = convert != nullptr ? scratch : bgra;
      if (layout.model == ColorModel::kCmyk) {
        for (size_t x = 0; x < count; ++x) std::memcpy(four + x * 4, s + x * n, 4);
      } else {
        for (size_t x = 0; x < count; ++x) {
          std::memcpy(four + x * 4, s + x * n, 3);
          four[x * 4 + 3] = 255;
        }
      }
      if (convert != nullptr) convert->Apply(scratch, bgra, count);
      break;
    }
    case ColorModel::kRgb:
      for (size_t x = 0; x < count; ++x) {
        bgra[x * 4] = s[x * n + 2];
        bgra[x * 4 + 1] = s[x * n + 1];
        bgra[x * 4 + 2] = s[x * n];
        bgra[x * 4 + 3] = 255;
      }
      break;
    case ColorModel::kPalette: {
      const size_t entries = layout.palette.size() / 3;
      for (size_t x = 0; x < count; ++x) {
        const size_t index = std::min<size_t>(s[x * n], entries - 1);
        std::memcpy(bgra + x * 4, layout.palette.data() + index * 3, 3);
        bgra[x * 4 + 3] = 255;
      }
      break;
    }
    case ColorModel::kGray: {
      const uint8_t flip = layout.invert ? 255 : 0;
      for (size_t x = 0; x < count; ++x) {
        const uint8_t v = s[x * n] ^ flip;
        bgra[x * 4] = bgra[x * 4 + 1] = bgra[x * 4 + 2] = v;
        bgra[x * 4 + 3] = 255;
      }
      break;
    }
  }
  if (layout.alpha_index >= 0) {
    for (size_t x = 0; x < count; ++x) bgra[x * 4 + 3] = s[x * n + layout.alpha_index];
  }
}

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
    swab_bits_ = TIFFIsByteSwapped(tif) && layout.bits >= 16 ? layout.bits : 0;
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
      UnpackSamples(line, width, layout, p, plane_.data());
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
    if (swab_bits_ == 16) TIFFSwabArrayOfShort(reinterpret_cast<uint16_t*>(line), static_cast<tmsize_t>(line_bytes_ / 2));
    if (swab_bits_ == 32) TIFFSwabArrayOfLong(reinterpret_cast<uint32_t*>(line), static_cast<tmsize_t>(line_bytes_ / 4));
    if (swab_bits_ == 64) TIFFSwabArrayOfDouble(reinterpret_cast<double*>(line), static_cast<tmsize_t>(line_bytes_ / 8));
    return true;
  }

  TIFF* tif_ = nullptr;
  bool uncompressed_ = false;
  bool reverse_bits_ = false;
  int swab_bits_ = 0;  // the width of the words to swap, 0 for none
  uint32_t rows_per_strip_ = 1;
  uint32_t strips_per_plane_ = 0;
  uint64_t line_bytes_ = 0;
  std::vector<uint8_t> plane_;
  std::unique_ptr<Client[]> clients_;  // handles_ read through them
  std::vector<TiffPtr> handles_;       // [0] unused: plane 0 reads through tif_
};

void PushRow(const SampleLayout& layout, ReducingSink* sink, uint8_t* bgra) {
  if (ReducesUnconverted(layout)) {
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
Status DecodeSamples(TIFF* tif, SampleLayout layout, uint32_t cx, const FanOutRequest& fan_out,
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
  const uint8_t* icc_bytes = static_cast<const uint8_t*>(icc);
  PrepareSampleMaps(tif, &layout, icc_bytes, icc_size);
  // Colour is converted after the reduction, but CMYK and Lab with alpha
  // must be converted before they are flattened over white. Gray profiles
  // are part of the sample maps; floating-point samples are taken as linear
  // sRGB.
  std::shared_ptr<const color::ColorTransform> transform;
  switch (layout.model) {
    case ColorModel::kCmyk:
      // Without a usable profile this is the built-in press model.
      transform = color::ColorTransform::SharedFromIcc(icc_bytes, icc_size, color::PixelLayout::kCmyk8);
      break;
    case ColorModel::kLab:
      transform = color::ColorTransform::SharedFromIcc(icc_bytes, icc_size, color::PixelLayout::kLab8);
      break;
    case ColorModel::kRgb:
      if (icc != nullptr && !layout.floating) {
        transform = color::ColorTransform::SharedFromIcc(icc_bytes, icc_size, color::PixelLayout::kBgra8);
      }
      break;
    default:
      break;
  }
  const color::ColorTransform* convert = nullptr;
  if ((layout.model == ColorModel::kCmyk || layout.model == ColorModel::kLab) && !ReducesUnconverted(layout)) {
    convert = transform.get();
  } else {
    sink.SetColorTransform(transform);
  }

  const uint64_t sample_bits = static_cast<uint32_t>(layout.bits);
  const uint64_t pixel_bits = sample_bits * layout.samples;
  const uint64_t row_samples = uint64_t{width} * layout.samples;
  const uint64_t scratch_bytes =
      layout.model == ColorModel::kCmyk || layout.model == ColorModel::kLab ? uint64_t{width} * 4 : 0;
  std::vector<uint8_t> samples;
  std::vector<uint8_t> scratch;
  std::vector<uint8_t> bgra;

  if (!TIFFIsTiled(tif)) {
    // A planar image's scanline is one plane's row.
    const uint64_t line_bytes = static_cast<uint64_t>(TIFFScanlineSize64(tif));
    const uint64_t line_bits = uint64_t{width} * (layout.planar ? sample_bits : pixel_bits);
    if (line_bytes < (line_bits + 7) / 8) return Status::InvalidArgument("TIFF scanline size");
    const uint64_t plane_bytes = layout.planar ? width : 0;
    const uint64_t planned = line_bytes + plane_bytes + row_samples + scratch_bytes + uint64_t{width} * 4;
    if (!WithinDecodeBudget(planned)) return Status::InvalidArgument("TIFF scanlines too large to decode");
    PlaneRows planes;
    if (layout.planar) {
      status = planes.Open(tif, layout, width);
      if (!status.ok()) return status;
    }
    sink.FanOut(fan_out, planned);
    std::vector<uint8_t> line(static_cast<size_t>(line_bytes));
    samples.resize(static_cast<size_t>(row_samples));
    scratch.resize(static_cast<size_t>(scratch_bytes));
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
      if (!layout.planar) UnpackSamples(line.data(), samples.size(), layout, -1, samples.data());
      SamplesToBgra(layout, convert, samples.data(), width, scratch.data(), bgra.data());
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
  // Planar tiles: one of each plane at a time.
  const int planes = layout.planar ? layout.samples : 1;
  const uint64_t tile_bytes = static_cast<uint64_t>(TIFFTileSize64(tif));
  const uint64_t tile_row_bytes = static_cast<uint64_t>(TIFFTileRowSize64(tif));
  const uint32_t band_rows = std::min(tile_height, height);
  const uint32_t tile_columns = std::min(tile_width, width);
  if (tile_row_bytes < (uint64_t{tile_width} * (layout.planar ? sample_bits : pixel_bits) + 7) / 8 ||
      tile_bytes < tile_row_bytes * tile_height) {
    return Status::InvalidArgument("TIFF tile size");
  }
  const uint64_t band_bytes = uint64_t{width} * band_rows * 4;
  const uint64_t planned = tile_bytes * planes + band_bytes + row_samples + scratch_bytes + tile_columns;
  if (!WithinDecodeBudget(planned)) return Status::InvalidArgument("TIFF tiles too large to decode");
  sink.FanOut(fan_out, planned);
  std::vector<uint8_t> tiles(static_cast<size_t>(tile_bytes * planes));
  std::vector<uint8_t> plane_row(layout.planar ? tile_columns : 0);
  samples.resize(static_cast<size_t>(uint64_t{tile_columns} * layout.samples));
  scratch.resize(static_cast<size_t>(scratch_bytes));
  bgra.resize(static_cast<size_t>(band_bytes));
  bool truncated = false;
  for (uint32_t ty = 0; ty < height && !truncated; ty += tile_height) {
    const uint32_t rows = std::min(tile_height, height - ty);
    for (uint32_t tx = 0; tx < width; tx += tile_width) {
      const uint32_t cols = std::min(tile_width, width - tx);
      for (int p = 0; p < planes; ++p) {
        if (Cancelled(tif)) return DecodeCancelledError();
        if (TIFFReadTile(tif, tiles.data() + tile_bytes * p, tx, ty, 0, static_cast<uint16_t>(p)) < 0) {
          if (Cancelled(tif)) return DecodeCancelledError();
          if (ty == 0 && tx == 0) return Status::InvalidArgument("TIFF data unreadable");
          // Keep this row of tiles with the unreadable one blank, then stop.
          std::fill(tiles.begin(), tiles.end(), 0);
          truncated = true;
          break;
        }
      }
      for (uint32_t r = 0; r < rows; ++r) {
        if (layout.planar) {
          for (int p = 0; p < planes; ++p) {
            UnpackSamples(tiles.data() + tile_bytes * p + r * tile_row_bytes, cols, layout, p, plane_row.data());
            for (uint32_t x = 0; x < cols; ++x) samples[size_t{x} * layout.samples + p] = plane_row[x];
          }
        } else {
          UnpackSamples(tiles.data() + r * tile_row_bytes, size_t{cols} * layout.samples, layout, -1, samples.data());
        }
        SamplesToBgra(layout, convert, samples.data(), cols, scratch.data(),
                      bgra.data() + (static_cast<size_t>(r) * width + tx) * 4);
      }
    }
    for (uint32_t r = 0; r < rows; ++r) PushRow(layout, &sink, bgra.data() + static_cast<size_t>(r) * width * 4);
  }
  return sink.Finish(orientation >= 1 && orientation <= 8 ? orientation : 1, out);
}

// Whether the current directory holds a picture: one of the photometric
// interpretations a TIFF reader shows, stored with a codec libtiff has.
bool HoldsPicture(TIFF* tif) {
  uint16_t photometric = 0;
  if (!TIFFGetField(tif, TIFFTAG_PHOTOMETRIC, &photometric)) return false;
  switch (photometric) {
    case PHOTOMETRIC_MINISWHITE:
    case PHOTOMETRIC_MINISBLACK:
    case PHOTOMETRIC_RGB:
    case PHOTOMETRIC_PALETTE:
    case PHOTOMETRIC_SEPARATED:
    case PHOTOMETRIC_YCBCR:
    case PHOTOMETRIC_CIELAB:
    case PHOTOMETRIC_ICCLAB:
    case PHOTOMETRIC_ITULAB:
    case PHOTOMETRIC_LOGL:
    case PHOTOMETRIC_LOGLUV:
      break;
    default:
      return false;
  }
  uint16_t compression = COMPRESSION_NONE;
  TIFFGetFieldDefaulted(tif, TIFFTAG_COMPRESSION, &compression);
  return TIFFIsCODECConfigured(compression) != 0;
}

// Whether every directory of the file (the chain and the SubIFDs of its
// members) reads and holds a picture. Camera RAW data does not: it is a
// colour filter array or linear raw image, stored with a codec of the
// camera maker's, or in a directory libtiff cannot read (CR2). Leaves the
// file on its first directory.
bool OnlyPictures(TIFF* tif) {
  const tdir_t count = TIFFNumberOfDirectories(tif);
  bool pictures = count <= kMaxDirectories;
  for (tdir_t d = 0; pictures && d < count; ++d) {
    pictures = TIFFSetDirectory(tif, d) && HoldsPicture(tif);
    uint16_t sub_count = 0;
    uint64_t* sub_offsets = nullptr;
    if (pictures && TIFFGetField(tif, TIFFTAG_SUBIFD, &sub_count, &sub_offsets) && sub_offsets != nullptr) {
      const std::vector<uint64_t> offsets(sub_offsets, sub_offsets + std::min<uint16_t>(sub_count, 16));
      pictures = sub_count <= 16;
      for (size_t i = 0; pictures && i < offsets.size(); ++i) {
        pictures = TIFFSetSubDirectory(tif, offsets[i]) && HoldsPicture(tif);
      }
    }
  }
  TIFFSetDirectory(tif, 0);
  return pictures;
}

// The sample path where it reads the directory, else libtiff's RGBA
// interface.
Status DecodeImage(TIFF* tif, uint32_t cx, const FanOutRequest& fan_out, image::Bitmap* out) {
  SampleLayout layout;
  if (PreferSamplePath(tif) && ParseSampleLayout(tif, &layout)) {
    return DecodeSamples(tif, std::move(layout), cx, fan_out, out);
  }
  return DecodeRgba(tif, cx, fan_out, out);
}

class TiffDecoder : public ReducingDecoder {
 public:
  Status Decode(ByteSource* source, uint32_t cx, image::Bitmap* out) override {
    if (TakeKept(cx, out)) return Status::OK();
    Client client{source, 0};
    TiffPtr tif;
    Status status = OpenTiff(&client, &tif);
    if (!status.ok()) return status;
    const bool names_maker = NamesMaker(tif.get());
    // Whether the RAW decoder refused the file for what it may decode
    // differently at another size.
    bool raw_failed = false;
    if (names_maker || IsDng(tif.get())) {
      // A develop keeps what it makes for the other sizes where TakeKept
      // above finds it.
      const RawContainer container =
          !IsDng(tif.get()) && OnlyPictures(tif.get()) ? RawContainer::kPictureTiff : RawContainer::kTiff;
      status = DecodeCameraRaw(source, cx, container, AnticipatedRequests(), out);
      if (status.ok() || IsImageTooLarge(status)) return status;
      if (source->cancelled()) return DecodeCancelledError();
      LOG_DEBUG(kLogComponent, "not decodable as camera RAW (%s), trying TIFF", status.ToString().c_str());
      raw_failed = !IsNotCameraRaw(status);
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
    if (!raw_failed) {
      fan_out = AnticipatedRequests();
      fan_out.cx_values.erase(std::remove_if(fan_out.cx_values.begin(), fan_out.cx_values.end(),
                                             [&](uint32_t other) {
                                               return !SameImage(ChooseImage(choices, other), chosen);
                                             }),
                              fan_out.cx_values.end());
    }
    status = DecodeImage(tif.get(), cx, fan_out, out);
    if (status.ok() || IsImageTooLarge(status) || !SameImage(chosen, choices.main)) return status;
    if (source->cancelled()) return DecodeCancelledError();
    // The page's own data cannot be read (cut short, or of a codec libtiff
    // lacks): a smaller copy of it serves the sizes it is large enough for,
    // as a camera RAW file's preview does when its data cannot be
    // developed. Only a scanner's or camera's file (one that names its
    // maker) has its preview as the next page.
    Candidate stand_in;
    if (!ChooseStandIn(choices, cx, names_maker, &stand_in) || !Select(tif.get(), stand_in)) return status;
    LOG_DEBUG(kLogComponent, "TIFF page unreadable (%s); a %ux%u copy of it serves %u", status.ToString().c_str(),
              stand_in.width, stand_in.height, cx);
    return DecodeImage(tif.get(), cx, FanOutRequest(), out);
  }

 private:
  // Camera RAW files in a TIFF container name the camera (Make) or are
  // DNGs; they go to the RAW decoder first, which is told whether every
  // image of the file looks like a picture. Scanner TIFFs that name their
  // maker fall back to the TIFF path when the RAW decoder does not know
  // them. A TIFF that does neither never reaches the RAW decoder, so the
  // tool does not load LibRaw for it.
  static bool IsDng(TIFF* tif) {
    // Pointer-sized slots for either calling form of an array tag (with or
    // without a count first), so no form writes past them.
    void* slot_a = nullptr;
    void* slot_b = nullptr;
    return TIFFGetField(tif, TIFFTAG_DNGVERSION, &slot_a, &slot_b) != 0;
  }

  static bool NamesMaker(TIFF* tif) {
    char* make = nullptr;
    return TIFFGetField(tif, TIFFTAG_MAKE, &make) && make != nullptr && make[0] != '\0';
  }
};

}  // namespace

std::unique_ptr<ImageDecoder> CreateTiffDecoder() { return std::make_unique<TiffDecoder>(); }

}  // namespace codec
}  // namespace tessera
