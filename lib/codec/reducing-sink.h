// The common back end of the decoders: takes source rows top to bottom,
// flattens them over white where they carry alpha, reduces them to the
// thumbnail size on the fly (on a second thread for large sources), converts
// the result's colour and makes it upright. The same rows can feed
// reductions to the other sizes a run will ask for, which are then kept in
// the reduction cache. Internal to lib/codec.
#ifndef TESSERA_LIB_CODEC_REDUCING_SINK_H_
#define TESSERA_LIB_CODEC_REDUCING_SINK_H_

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "lib/codec/image-decoder.h"
#include "lib/color/color-profile.h"
#include "lib/image/area-resample.h"
#include "lib/image/bitmap.h"
#include "lib/image/pipelined-reducer.h"
#include "lib/utility/status.h"

namespace tessera {
namespace codec {

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
  // See ImageDecoder::SetCallerEdgeDivisor; 0 for none.
  uint32_t edge_divisor = 0;
  ReductionCache* cache = nullptr;  // nullptr: TheReductionCache() of this copy
};

// The size of the result for a request of cx from a width x height picture:
// FitWithin(cx), then, with an edge divisor, ShorterSideTo(cx / divisor).
void RequestedSize(int width, int height, uint32_t cx, uint32_t edge_divisor, int* out_width, int* out_height);

// All output bitmaps of one fanned-out decode together stay within this.
constexpr uint64_t kMaxFanOutBytes = uint64_t{96} << 20;

class ReducingSink {
 public:
  // Prepares a reduction of a width x height source to the largest size
  // whose longer side is at most cx (never enlarged). Refuses sizes over the
  // limits (or SetDecodeBudget's) with ImageTooLargeError before
  // allocating. Not thread-safe.
  Status Init(uint64_t width, uint64_t height, uint32_t cx);

  // Shapes Init's result to the request's edge divisor (RequestedSize), and
  // reduces the same rows to the request's other sizes as well (except
  // Init's cx and those already kept under the key), smallest first, as
  // long as all outputs together stay within kMaxFanOutBytes and, with
  // `planned_bytes` (what the decoder allocates itself), within
  // kMaxDecodeBytes. Finish keeps their results in the request's cache.
  // Fans out nothing for an empty key. Call after Init, before the first
  // row.
  void FanOut(const FanOutRequest& request, uint64_t planned_bytes);

  // Converts every result to sRGB with `transform` once it is reduced (and
  // before it is turned upright): converting a few reduced pixels instead of
  // every decoded one. Rows are pushed in the source's colour space, in the
  // transform's input layout (BGRA, CMYK or gray expanded to BGRA, four
  // bytes a pixel). Call before Finish; nullptr or an identity transform
  // does nothing.
  void SetColorTransform(std::shared_ptr<const color::ColorTransform> transform) { transform_ = std::move(transform); }

  int width() const { return width_; }
  int height() const { return height_; }

  // Rows go in one of two ways. Rows with alpha are pushed from the
  // decoder's own buffer, which is modified (flattened over white) in
  // place:
  void PushStraightRow(uint8_t* bgra);
  void PushPremultipliedRow(uint8_t* bgra);
  // Opaque rows (or rows of four channels that are no BGRA, such as CMYK)
  // are taken as they are, best written straight into the sink's buffer,
  // which saves a copy: NextRow() is valid until CommitRow(). Nullptr when
  // the row buffers cannot be had (out of memory): Finish then fails.
  void PushOpaqueRow(const uint8_t* row);
  uint8_t* NextRow();
  void CommitRow();

  // Hands over the reduced bitmap turned upright by the EXIF orientation
  // (1 when none), and keeps the fanned-out results, turned alike. Rows
  // never pushed show as mid grey in every one of them. On failure *out is
  // untouched and nothing is kept.
  Status Finish(int orientation, image::Bitmap* out);

 private:
  // The size of the result for cx (RequestedSize) and the bytes it takes.
  uint64_t ResultSize(uint32_t cx, uint32_t edge_divisor, int* width, int* height) const;
  // Starts the reduction on the first row.
  bool Started();

  int width_ = 0;
  int height_ = 0;
  uint32_t cx_ = 0;
  uint64_t output_bytes_ = 0;
  // Until the first row: the reducer of Init's size, then those of the
  // fanned-out sizes (their cx in extra_cx_).
  std::vector<image::AreaReducer> reducers_;
  std::vector<uint32_t> extra_cx_;
  image::PipelinedReducer pipeline_;
  Status start_status_;
  bool started_ = false;
  std::string key_;
  ReductionCache* cache_ = nullptr;
  std::shared_ptr<const color::ColorTransform> transform_;
};

// Serves ImageDecoder's content key and anticipated requests for the
// decoders that reduce through a ReducingSink.
class ReducingDecoder : public ImageDecoder {
 public:
  void SetContentKey(const std::string& key) override { key_ = key; }
  void SetAnticipatedRequests(std::vector<uint32_t> cx_values) override { anticipated_ = std::move(cx_values); }
  void SetCallerEdgeDivisor(uint32_t divisor) override { edge_divisor_ = divisor; }

 protected:
  // Moves the result an earlier decode of the same content made for cx into
  // *out; false when there is none. Called first thing in Decode, so a
  // request served so reads nothing.
  bool TakeKept(uint32_t cx, image::Bitmap* out) const;

  // Every anticipated size, under this decoder's content key, to be kept
  // where TakeKept looks.
  FanOutRequest AnticipatedRequests() const;

 private:
  std::string key_;
  std::vector<uint32_t> anticipated_;
  uint32_t edge_divisor_ = 0;
};

// A budget check for buffers a decoder is about to allocate: true when the
// sum stays within kMaxDecodeBytes (or the lower SetDecodeBudget).
bool WithinDecodeBudget(uint64_t bytes);

}  // namespace codec
}  // namespace tessera

#endif  // TESSERA_LIB_CODEC_REDUCING_SINK_H_
