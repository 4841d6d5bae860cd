// Camera and scanner RAW files for tests, laid out by hand or written with
// libtiff: the kinds LibRaw knows by size or by maker and model. Test-only.
#ifndef TESSERA_LIB_CODEC_TESTING_CAMERA_FIXTURES_H_
#define TESSERA_LIB_CODEC_TESTING_CAMERA_FIXTURES_H_

#include <cstdint>
#include <string>

namespace tessera {
namespace codec {
namespace testing {

// A DNG as cameras write it: IFD0 holds a JPEG preview of preview_width x
// preview_height (top half red, bottom half blue as stored, with its own
// EXIF orientation when preview_exif_orientation is not 0) and the
// orientation (EXIF 6), a SubIFD the 96x64 raw image, a uniform grey that
// shows whether the preview was used.
std::string DngWithPreview(int preview_width, int preview_height, int preview_exif_orientation = 0);

// A linear (demosaiced) DNG, 96x64, top half bright and bottom half black,
// whose orientation tag turns it a quarter clockwise.
std::string LinearDng();

// A Bayer (RGGB) DNG of width x height with a ramp pattern that shows
// interpolation, optionally with a JPEG preview of preview_width x
// preview_height in IFD0 (the raw image then goes to a SubIFD).
std::string BayerDng(int width, int height, int preview_width = 0, int preview_height = 0);

// A Kodak DC20 picture as the camera's software saved it: no header at all,
// 62464 bytes of 8-bit sensor data (256 x 244 photosites), which LibRaw
// recognises by that size alone. Bright on the left half, dark on the
// right.
std::string KodakDc20Raw();

// A Kodak DC120 .kdc in its JPEG-coded form, a TIFF naming the camera whose
// one strip holds the 848 x 976 sensor data the DC120's way (a 848 x 488
// JPEG picture, bytes swapped in pairs): some 40 KB, less than a bit per
// photosite. Bright on the left half, dark on the right.
std::string KodakDc120Kdc();

// A film scanner's NEF as Nikon Scan writes it: IFD0 the 16-bit RGB scan
// (width x height) naming maker and software, IFD1 an 8-bit RGB preview of
// preview_width x preview_height in `preview_rgb`, without the
// reduced-image flag. With `scan_data` false the scan's strip starts past
// the end of the file, as in a file cut short.
std::string NikonScanNef(int width, int height, int preview_width, int preview_height, const uint8_t preview_rgb[3],
                         bool scan_data);

}  // namespace testing
}  // namespace codec
}  // namespace tessera

#endif  // TESSERA_LIB_CODEC_TESTING_CAMERA_FIXTURES_H_
