#include "lib/codec/testing/camera-fixtures.h"

#include <tiffio.h>

#include <string>
#include <vector>

#include "lib/codec/testing/image-fixtures.h"
#include "lib/codec/tiff/testing/tiff-fixtures.h"
#include "lib/utility/testing/byte-writers.h"

namespace tessera {
namespace codec {
namespace testing {
namespace {

using ::tessera::testing::PutLe32At;
using ::tessera::testing::ReadLe16;
using ::tessera::testing::ReadLe32;

void SetDngIdentity(TIFF* tif) {
  TIFFSetField(tif, TIFFTAG_MAKE, "Tessera");
  TIFFSetField(tif, TIFFTAG_MODEL, "Test");
  static const uint8_t kVersion[4] = {1, 4, 0, 0};
  TIFFSetField(tif, TIFFTAG_DNGVERSION, kVersion);
  TIFFSetField(tif, TIFFTAG_UNIQUECAMERAMODEL, "Tessera Test");
}

// Writes the current directory as a 96x64 linear raw image: `top` in the
// upper half, `bottom` in the lower.
void WriteLinearRaw(TIFF* tif, uint16_t top, uint16_t bottom) {
  const int width = 96;
  const int height = 64;
  TIFFSetField(tif, TIFFTAG_SUBFILETYPE, 0);
  TIFFSetField(tif, TIFFTAG_IMAGEWIDTH, width);
  TIFFSetField(tif, TIFFTAG_IMAGELENGTH, height);
  TIFFSetField(tif, TIFFTAG_BITSPERSAMPLE, 16);
  TIFFSetField(tif, TIFFTAG_SAMPLESPERPIXEL, 3);
  TIFFSetField(tif, TIFFTAG_PHOTOMETRIC, 34892);  // linear raw
  TIFFSetField(tif, TIFFTAG_PLANARCONFIG, PLANARCONFIG_CONTIG);
  TIFFSetField(tif, TIFFTAG_COMPRESSION, COMPRESSION_NONE);
  TIFFSetField(tif, TIFFTAG_ROWSPERSTRIP, height);
  std::vector<uint16_t> row(width * 3);
  for (int y = 0; y < height; ++y) {
    row.assign(row.size(), y < height / 2 ? top : bottom);
    TIFFWriteScanline(tif, row.data(), y, 0);
  }
}

// Writes IFD0 of a DNG that keeps its raw image in a SubIFD: the DNG
// identity and a JPEG preview of width x height.
void WritePreview(TIFF* tif, const std::string& jpeg, int width, int height) {
  TIFFSetField(tif, TIFFTAG_SUBFILETYPE, FILETYPE_REDUCEDIMAGE);
  TIFFSetField(tif, TIFFTAG_IMAGEWIDTH, width);
  TIFFSetField(tif, TIFFTAG_IMAGELENGTH, height);
  TIFFSetField(tif, TIFFTAG_BITSPERSAMPLE, 8);
  TIFFSetField(tif, TIFFTAG_SAMPLESPERPIXEL, 3);
  TIFFSetField(tif, TIFFTAG_PHOTOMETRIC, PHOTOMETRIC_YCBCR);
  TIFFSetField(tif, TIFFTAG_PLANARCONFIG, PLANARCONFIG_CONTIG);
  TIFFSetField(tif, TIFFTAG_COMPRESSION, COMPRESSION_JPEG);
  TIFFSetField(tif, TIFFTAG_ROWSPERSTRIP, height);
  SetDngIdentity(tif);
  uint64_t sub_ifd = 0;
  TIFFSetField(tif, TIFFTAG_SUBIFD, 1, &sub_ifd);
  // The whole JPEG stream, tables included, as the only strip.
  TIFFWriteRawStrip(tif, 0, const_cast<char*>(jpeg.data()), static_cast<tmsize_t>(jpeg.size()));
  TIFFWriteDirectory(tif);
}

}  // namespace

std::string DngWithPreview(int preview_width, int preview_height, int preview_exif_orientation) {
  RgbImage preview(preview_width, preview_height, 0, 0, 255);
  preview.Fill(0, 0, preview_width, preview_height / 2, 255, 0, 0);
  JpegOptions options;
  options.exif_orientation = preview_exif_orientation;
  const std::string jpeg = EncodeJpeg(preview, options);
  if (jpeg.empty()) return "";
  return WriteTiffWith([&](TIFF* tif) {
    TIFFSetField(tif, TIFFTAG_ORIENTATION, ORIENTATION_RIGHTTOP);  // EXIF 6: turn clockwise
    WritePreview(tif, jpeg, preview_width, preview_height);
    WriteLinearRaw(tif, 30000, 30000);
    TIFFWriteDirectory(tif);
  });
}

std::string LinearDng() {
  return WriteTiffWith([](TIFF* tif) {
    SetDngIdentity(tif);
    TIFFSetField(tif, TIFFTAG_ORIENTATION, ORIENTATION_RIGHTTOP);
    WriteLinearRaw(tif, 60000, 0);
  });
}

std::string BayerDng(int width, int height, int preview_width, int preview_height) {
  std::string jpeg;
  if (preview_width > 0) {
    jpeg = EncodeJpeg(RgbImage(preview_width, preview_height, 200, 100, 50));
    if (jpeg.empty()) return "";
  }
  return WriteTiffWith([&](TIFF* tif) {
    if (jpeg.empty()) {
      SetDngIdentity(tif);
    } else {
      WritePreview(tif, jpeg, preview_width, preview_height);
    }
    TIFFSetField(tif, TIFFTAG_SUBFILETYPE, 0);
    TIFFSetField(tif, TIFFTAG_IMAGEWIDTH, width);
    TIFFSetField(tif, TIFFTAG_IMAGELENGTH, height);
    TIFFSetField(tif, TIFFTAG_BITSPERSAMPLE, 16);
    TIFFSetField(tif, TIFFTAG_SAMPLESPERPIXEL, 1);
    TIFFSetField(tif, TIFFTAG_PHOTOMETRIC, 32803);  // colour filter array
    TIFFSetField(tif, TIFFTAG_PLANARCONFIG, PLANARCONFIG_CONTIG);
    TIFFSetField(tif, TIFFTAG_COMPRESSION, COMPRESSION_NONE);
    TIFFSetField(tif, TIFFTAG_ROWSPERSTRIP, height);
    static const uint16_t kPatternSize[2] = {2, 2};
    static const uint8_t kPattern[4] = {0, 1, 1, 2};
    TIFFSetField(tif, TIFFTAG_CFAREPEATPATTERNDIM, kPatternSize);
    TIFFSetField(tif, TIFFTAG_CFAPATTERN, 4, kPattern);
    std::vector<uint16_t> row(width);
    for (int y = 0; y < height; ++y) {
      for (int x = 0; x < width; ++x) {
        row[x] = static_cast<uint16_t>((x * 37 + y * 11) % 251 * 200 + (y < height / 2) * 9000);
      }
      TIFFWriteScanline(tif, row.data(), y, 0);
    }
    TIFFWriteDirectory(tif);
  });
}

std::string KodakDc20Raw() {
  const int width = 256;
  const int height = 244;
  std::string bytes(static_cast<size_t>(width) * height, '\0');
  for (int y = 0; y < height; ++y) {
    for (int x = 0; x < width; ++x) bytes[static_cast<size_t>(y) * width + x] = static_cast<char>(x < width / 2 ? 200 : 30);
  }
  return bytes;
}

std::string KodakDc120Kdc() {
  // Texture, as in a photograph, to give the JPEG the size of a real one.
  RgbImage picture(848, 488);
  for (int y = 0; y < picture.height; ++y) {
    for (int x = 0; x < picture.width; ++x) {
      const int grain = static_cast<int>((static_cast<uint32_t>(x) * 2654435761u ^ static_cast<uint32_t>(y) * 40503u) >> 27) - 16;
      const int level = (x < picture.width / 2 ? 190 : 50) + grain;
      for (int c = 0; c < 3; ++c) picture.rgb[(static_cast<size_t>(y) * picture.width + x) * 3 + c] = static_cast<uint8_t>(level);
    }
  }
  JpegOptions options;
  options.quality = 75;
  std::string jpeg = EncodeJpeg(picture, options);
  if (jpeg.size() < 2) return "";
  for (size_t i = 0; i + 1 < jpeg.size(); i += 2) std::swap(jpeg[i], jpeg[i + 1]);
  TiffPage page;
  page.width = 848;
  page.height = 976;
  page.samples = 1;
  page.photometric = PHOTOMETRIC_MINISBLACK;
  page.compression = COMPRESSION_JPEG;
  page.make = "Eastman Kodak Company";
  page.more_tags = [&jpeg](TIFF* tif) {
    TIFFSetField(tif, TIFFTAG_MODEL, "Kodak Digital Science DC120");
    TIFFSetField(tif, TIFFTAG_ROWSPERSTRIP, 976);
    TIFFWriteRawStrip(tif, 0, &jpeg[0], static_cast<tmsize_t>(jpeg.size()));
  };
  page.pixel = nullptr;  // the strip is written above
  return WriteTiff({page});
}

std::string NikonScanNef(int width, int height, int preview_width, int preview_height, const uint8_t preview_rgb[3],
                         bool scan_data) {
  TiffPage scan;
  scan.width = width;
  scan.height = height;
  scan.bits = 16;
  scan.compression = COMPRESSION_NONE;
  scan.rows_per_strip = 0;
  scan.make = "Nikon";
  scan.software = "Nikon Scan 4.0.2 W";
  scan.more_tags = [](TIFF* tif) { TIFFSetField(tif, TIFFTAG_MODEL, "LS-50 ED"); };
  if (scan_data) {
    scan.pixel = [](int x, int y, int s) { return ((x + y) * 97 + s * 20000) % 65536; };
  } else {
    scan.pixel = nullptr;
    scan.more_tags = [](TIFF* tif) {
      TIFFSetField(tif, TIFFTAG_MODEL, "LS-50 ED");
      char stub[16] = {};
      TIFFWriteRawStrip(tif, 0, stub, sizeof(stub));
    };
  }
  TiffPage preview;
  preview.width = preview_width;
  preview.height = preview_height;
  preview.compression = COMPRESSION_NONE;
  const double r = preview_rgb[0], g = preview_rgb[1], b = preview_rgb[2];
  preview.pixel = [r, g, b](int, int, int s) { return s == 0 ? r : s == 1 ? g : b; };
  std::string bytes = WriteTiff({scan, preview});
  if (scan_data || bytes.size() < 8) return bytes;
  // The scan's one strip, of its full size, starts past the end.
  const size_t ifd = ReadLe32(bytes, 4);
  if (ifd + 2 > bytes.size()) return "";
  const uint32_t entries = ReadLe16(bytes, ifd);
  for (uint32_t i = 0; i < entries; ++i) {
    const size_t entry = ifd + 2 + size_t{12} * i;
    if (entry + 12 > bytes.size()) return "";
    const uint32_t tag = ReadLe16(bytes, entry);
    if (tag != TIFFTAG_STRIPOFFSETS && tag != TIFFTAG_STRIPBYTECOUNTS) continue;
    bytes[entry + 2] = TIFF_LONG;  // either may have been written as a short
    bytes[entry + 3] = 0;
    PutLe32At(&bytes, entry + 8, tag == TIFFTAG_STRIPOFFSETS ? 0x7FFF0000u : static_cast<uint32_t>(width) * height * 6);
  }
  return bytes;
}

}  // namespace testing
}  // namespace codec
}  // namespace tessera
