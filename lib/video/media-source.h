// The platform's media source reader, reduced to what SourceReader needs:
// open a file, describe and select its first video stream, seek, and read
// decoded frames asynchronously. One implementation per mechanism: FFmpeg
// (source-reader-ffmpeg.cc) here, Media Foundation on Windows, and a fake in
// testing/ for the tests. No library header here.
//
// Codes are HRESULT-style 32-bit values: 0 (or any non-negative value) is
// success, negative is failure.
#ifndef TESSERA_LIB_VIDEO_MEDIA_SOURCE_H_
#define TESSERA_LIB_VIDEO_MEDIA_SOURCE_H_

#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace tessera {
namespace thumbnail {

constexpr int32_t kMediaOk = 0;
constexpr int32_t kMediaPending = static_cast<int32_t>(0x8000000A);   // E_PENDING
constexpr int32_t kMediaFail = static_cast<int32_t>(0x80004005);      // E_FAIL
constexpr int32_t kMediaNotFound = static_cast<int32_t>(0x80070002);  // no such attribute/file

// Stream flag of a read answer: the stream has ended (no sample comes with it).
constexpr uint32_t kStreamFlagEndOfStream = 2;

// Source characteristics.
constexpr uint32_t kCharacteristicCanSeek = 2;
constexpr uint32_t kCharacteristicHasSlowSeek = 8;

// Colour description values in the numbering of the Windows media types.
constexpr uint32_t kPrimariesBt2020 = 9;
constexpr uint32_t kMatrixBt2020Ten = 4;
constexpr uint32_t kMatrixBt2020Twelve = 5;

enum class VideoCodec { kOther, kH264, kHevc };

// The compressed (native) type of the first video stream.
struct NativeVideoType {
  bool is_video = false;
  VideoCodec codec = VideoCodec::kOther;
  bool has_primaries = false;
  uint32_t primaries = 0;  // 2 BT.709, 9 BT.2020, ...
  bool has_matrix = false;
  uint32_t matrix = 0;  // 1 BT.709, 2 BT.601, 4/5 BT.2020
};

// One decoded frame: tightly packed 32-bit BGRX rows, top to bottom.
class MediaSample {
 public:
  static constexpr int64_t kNoTime = INT64_MIN;

  MediaSample(int64_t time_hns, int width, int height, std::vector<uint8_t> bgrx)
      : time_hns_(time_hns), width_(width), height_(height), bgrx_(std::move(bgrx)) {}
  // A sample whose pixels `convert` makes on the first call of bytes(), so
  // that frames read only to be skipped are never converted. `convert`
  // returns no bytes when it fails.
  MediaSample(int64_t time_hns, int width, int height, std::function<std::vector<uint8_t>()> convert)
      : time_hns_(time_hns), width_(width), height_(height), convert_(std::move(convert)) {}

  // Presentation time in 100-ns units. Fails when the frame had none.
  int32_t GetSampleTime(int64_t* time_hns) const {
    if (time_hns_ == kNoTime) return kMediaNotFound;
    *time_hns = time_hns_;
    return kMediaOk;
  }
  int width() const { return width_; }
  int height() const { return height_; }
  // The pixel bytes (width * height * 4 of them when the frame is whole).
  // Thread-safe; the first call may convert the frame.
  const std::vector<uint8_t>& bytes() const {
    std::call_once(converted_, [this] {
      if (convert_) bgrx_ = convert_();
      convert_ = nullptr;
    });
    return bgrx_;
  }

 private:
  int64_t time_hns_;
  int width_;
  int height_;
  mutable std::vector<uint8_t> bgrx_;
  mutable std::function<std::vector<uint8_t>()> convert_;
  mutable std::once_flag converted_;
};

// Receives the answers to MediaSource::ReadSample, on a reader thread. Counted
// by reference: a source that may still call back holds a reference.
class MediaSourceCallback {
 public:
  virtual uint32_t AddRef() = 0;
  virtual uint32_t Release() = 0;
  // status < 0: the read failed. flags may carry kStreamFlagEndOfStream;
  // sample may be null (end of stream, or a read that gave nothing).
  virtual int32_t OnReadSample(int32_t status, uint32_t stream_index, uint32_t flags,
                               int64_t timestamp_hns, std::shared_ptr<MediaSample> sample) = 0;
  virtual int32_t OnFlush(uint32_t stream_index) = 0;
  virtual int32_t OnEvent(uint32_t stream_index) = 0;

 protected:
  virtual ~MediaSourceCallback() = default;
};

// Not thread-safe: one caller thread drives it; only ReadSample's answer
// arrives on another thread. At most one read is outstanding.
class MediaSource {
 public:
  virtual ~MediaSource() = default;

  // Opens the file; `callback` receives every read answer (the source takes
  // a reference and drops it when destroyed).
  virtual int32_t Open(const std::u16string& path, MediaSourceCallback* callback) = 0;
  // The compressed type of the first video stream.
  virtual int32_t GetNativeVideoType(NativeVideoType* out) = 0;
  // Makes 32-bit BGRX the output type of the first video stream, converted
  // with the stream's own matrix and range.
  virtual int32_t SetFirstVideoOutputBgrx() = 0;
  // Selects the first video stream for reading.
  virtual int32_t SelectFirstVideoStream() = 0;
  // Size of the output frames.
  virtual int32_t GetFrameSize(uint32_t* width, uint32_t* height) = 0;
  // Clockwise rotation in degrees that makes frames upright; fails when the
  // stream carries no rotation.
  virtual int32_t GetRotation(uint32_t* degrees) = 0;
  // kCharacteristic* bits.
  virtual int32_t GetCharacteristics(uint32_t* characteristics) = 0;
  // Seeks to a position in 100-ns units.
  virtual int32_t SetCurrentPosition(int64_t position_hns) = 0;
  // Asks for the next frame of the first video stream; the answer comes to
  // the callback on a reader thread. A negative return means no answer comes.
  virtual int32_t ReadSample() = 0;

  // The platform's media source (one definition per mechanism).
  static std::unique_ptr<MediaSource> Create();
};

}  // namespace thumbnail
}  // namespace tessera

#endif  // TESSERA_LIB_VIDEO_MEDIA_SOURCE_H_
