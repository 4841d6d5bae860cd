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

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

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

// The compressed (native) type of the first video stream, beyond its major
// type.
struct NativeVideoType {
  VideoCodec codec = VideoCodec::kOther;
  bool has_primaries = false;
  uint32_t primaries = 0;  // 2 BT.709, 9 BT.2020, ...
  bool has_matrix = false;
  uint32_t matrix = 0;  // 1 BT.709, 2 BT.601, 4/5 BT.2020
};

// One decoded frame as the platform delivered it. Its pixels are made
// readable in two steps, which the reader takes for the one frame it keeps
// only: frames read to be skipped are never converted. One thread at a time.
class MediaSample {
 public:
  static constexpr int64_t kNoTime = INT64_MIN;

  MediaSample(int64_t time_hns, int width, int height) : time_hns_(time_hns), width_(width), height_(height) {}
  virtual ~MediaSample() = default;

  // Presentation time in 100-ns units. Fails when the frame had none.
  int32_t GetSampleTime(int64_t* time_hns) const {
    if (time_hns_ == kNoTime) return kMediaNotFound;
    *time_hns = time_hns_;
    return kMediaOk;
  }
  int width() const { return width_; }
  int height() const { return height_; }

  // Puts the frame's pixels into one contiguous buffer, converting the
  // frame where the platform has to.
  virtual int32_t ConvertToContiguousBuffer() = 0;
  // Locks that buffer and copies it as height() top-down rows of
  // width() 32-bit BGRX pixels into rows of `stride` bytes at `bgrx`. Fails,
  // copying nothing, when the buffer holds fewer rows than the frame.
  virtual int32_t LockBuffer(uint8_t* bgrx, size_t stride) = 0;

 private:
  int64_t time_hns_;
  int width_;
  int height_;
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
//
// The methods are the platform's own steps, one each, so that a failure
// names the step that failed; a mechanism without such a step answers it
// with success.
class MediaSource {
 public:
  virtual ~MediaSource() = default;

  // Opening: an attribute store, video processing enabled in it, `callback`
  // set in it to receive every read answer (the source takes a reference
  // and drops it when destroyed), and the reader of the file made with it.
  virtual int32_t CreateAttributes() = 0;
  virtual int32_t EnableVideoProcessing() = 0;
  virtual int32_t SetAsyncCallback(MediaSourceCallback* callback) = 0;
  virtual int32_t CreateSourceReader(const std::u16string& path) = 0;

  // The first video stream's media type as the file has it (before an
  // output type is set), then its major type.
  virtual int32_t GetCurrentMediaType(NativeVideoType* out) = 0;
  virtual int32_t GetMajorType(bool* is_video) = 0;

  // The output type of the first video stream: a new media type, its major
  // type video, its subtype RGB32 (32-bit BGRX, converted with the stream's
  // own matrix and range), made the stream's current type.
  virtual int32_t CreateMediaType() = 0;
  virtual int32_t SetMajorTypeVideo() = 0;
  virtual int32_t SetSubtypeRgb32() = 0;
  virtual int32_t SetCurrentMediaType() = 0;
  // Selects the first video stream for reading.
  virtual int32_t SelectFirstVideoStream() = 0;

  // Size of the output frames.
  virtual int32_t GetFrameSize(uint32_t* width, uint32_t* height) = 0;
  // Clockwise rotation in degrees that makes frames upright; fails when the
  // stream carries no rotation.
  virtual int32_t GetRotation(uint32_t* degrees) = 0;
  // The source's characteristics: its presentation attribute, then that
  // value as kCharacteristic* bits.
  virtual int32_t GetPresentationAttribute() = 0;
  virtual int32_t ConvertPresentationAttribute(uint32_t* characteristics) = 0;
  // Seeks to a position in 100-ns units.
  virtual int32_t SetCurrentPosition(int64_t position_hns) = 0;
  // Asks for the next frame of the first video stream; the answer comes to
  // the callback on a reader thread. A negative return means no answer comes.
  virtual int32_t ReadSample() = 0;

  // The platform's media source (media-source-posix.cc, media-source-win.cc).
  static std::unique_ptr<MediaSource> Create();
};

}  // namespace thumbnail
}  // namespace tessera

#endif  // TESSERA_LIB_VIDEO_MEDIA_SOURCE_H_
