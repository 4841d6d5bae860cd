// The common back end of the streaming decoders (TIFF, PNG, GIF, BMP): takes
// source rows top to bottom, flattens them over white and reduces them to
// the thumbnail size on the fly, then makes the result upright. The same
// rows can feed reductions to the other sizes a run will ask for, which are
// then kept in the reduction cache. Internal to lib/image.
#ifndef TESSERA_LIB_IMAGE_REDUCING_SINK_H_
#define TESSERA_LIB_IMAGE_REDUCING_SINK_H_

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "lib/image/area-resample.h"
#include "lib/image/bitmap.h"
#include "lib/image/color-profile.h"
#include "lib/image/image-decoder.h"
#include "lib/utility/status.h"

namespace tessera {
namespace image {

class ReductionCache;

// The sizes besides the one being decoded whose results a decode may make
// on the side, the content key they are kept under and the cache that
// keeps them. Only sizes whose own decode would read exactly the same rows
// (the same page, colour handling and orientation) belong here.
//
// The cache is the one the later requests look in: each codec module has a
// process-wide cache of its own (its own copy of this library), so a decode
// that another module makes for a decoder (camera RAW for TIFF) keeps its
// results in the cache of the decoder that passes the request.
struct FanOutRequest {
  std::string key;
  std::vector<uint32_t> cx_values;
  ReductionCache* cache = nullptr;  // nullptr: TheReductionCache() of this copy
};

// All output bitmaps of one fanned-out decode together stay within this.
constexpr uint64_t kMaxFanOutBytes = uint64_t{96} << 20;

class ReducingSink {
 public:
  // Prepares a reduction of a width x height source to the largest size
  // whose longer side is at most cx (never enlarged). Refuses sizes over the
  // limits with ImageTooLargeError before allocating. Not thread-safe.
  Status Init(uint64_t width, uint64_t height, uint32_t cx);

  // Reduces the same rows to the request's sizes as well (except Init's cx
  // and those already kept under the key), smallest first, as long as all
  // outputs together stay within kMaxFanOutBytes and, with `planned_bytes`
  // (what the decoder allocates itself), within kMaxDecodeBytes. Finish
  // keeps their results in the request's cache. Does nothing for an empty
  // key. Call after Init, before the first row.
  void FanOut(const FanOutRequest& request, uint64_t planned_bytes);
  // Converts every result to sRGB with `transform` once it is reduced (and
  // before it is turned upright): converting a few reduced pixels instead of
  // every decoded one. Rows are pushed in the source's colour space. Call
  // before Finish; nullptr or an identity transform does nothing.
  void SetColorTransform(std::shared_ptr<const ColorTransform> transform) { transform_ = std::move(transform); }

  int width() const { return width_; }
  int height() const { return height_; }

  // Pushes one row of width() BGRA pixels with straight alpha. The row is
  // modified (flattened over white) in place.
  void PushStraightRow(uint8_t* bgra);
  // The same for premultiplied alpha.
  void PushPremultipliedRow(uint8_t* bgra);

  // Hands over the reduced bitmap turned upright by the EXIF orientation
  // (1 when none), and keeps the fanned-out results, turned alike. Rows
  // never pushed show as mid grey in every one of them. On failure *out is
  // untouched and nothing is kept.
  Status Finish(int orientation, Bitmap* out);

 private:
  struct Extra {
    uint32_t cx = 0;
    AreaReducer reducer;
  };

  void PushFlattenedRow(const uint8_t* bgra);

  int width_ = 0;
  int height_ = 0;
  uint32_t cx_ = 0;
  uint64_t output_bytes_ = 0;
  AreaReducer reducer_;
  std::string key_;
  ReductionCache* cache_ = nullptr;
  std::vector<Extra> extras_;
  std::shared_ptr<const ColorTransform> transform_;
};

// Serves ImageDecoder's content key and anticipated requests for the
// decoders that reduce through a ReducingSink.
class ReducingDecoder : public ImageDecoder {
 public:
  void SetContentKey(const std::string& key) override { key_ = key; }
  void SetAnticipatedRequests(std::vector<uint32_t> cx_values) override { anticipated_ = std::move(cx_values); }

 protected:
  // Moves the result an earlier decode of the same content made for cx into
  // *out; false when there is none. Called first thing in Decode, so a
  // request served so reads nothing.
  bool TakeKept(uint32_t cx, Bitmap* out) const;

  // Every anticipated size, under this decoder's content key, to be kept
  // where TakeKept looks.
  FanOutRequest AnticipatedRequests() const;

 private:
  std::string key_;
  std::vector<uint32_t> anticipated_;
};

// A budget check for buffers a decoder is about to allocate: true when the
// sum stays within kMaxDecodeBytes.
bool WithinDecodeBudget(uint64_t bytes);

}  // namespace image
}  // namespace tessera

#endif  // TESSERA_LIB_IMAGE_REDUCING_SINK_H_
