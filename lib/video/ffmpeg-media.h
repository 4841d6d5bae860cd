// The one place where files are opened with FFmpeg, shared by the frame
// reader (source-reader-ffmpeg.cc) and the video thumbnails
// (video-thumbnail-ffmpeg.cc). Internal to the FFmpeg mechanism: only files
// that are compiled against FFmpeg include it.
//
// Opening is hardened for hostile input: the file protocol only, a fixed list
// of container demuxers (nothing that follows playlists, lists of other files
// or image sequences), at most kMaxStreams streams of which only the chosen
// one is probed and read, an interrupt deadline (and cancellation) on every
// blocking read, a cap on the packets read for one frame and size limits
// checked before decoding.
#ifndef TESSERA_LIB_VIDEO_FFMPEG_MEDIA_H_
#define TESSERA_LIB_VIDEO_FFMPEG_MEDIA_H_

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libavutil/frame.h>
#include <libswscale/swscale.h>
}

#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "lib/utility/cancellation.h"
#include "lib/utility/status.h"

namespace tessera {
namespace thumbnail {
namespace ffmpeg {

struct FormatCloser {
  void operator()(AVFormatContext* p) const { avformat_close_input(&p); }
};
struct CodecFreer {
  void operator()(AVCodecContext* p) const { avcodec_free_context(&p); }
};
struct FrameFreer {
  void operator()(AVFrame* p) const { av_frame_free(&p); }
};
struct PacketFreer {
  void operator()(AVPacket* p) const { av_packet_free(&p); }
};
struct SwsFreer {
  void operator()(SwsContext* p) const { sws_freeContext(p); }
};
using FormatPtr = std::unique_ptr<AVFormatContext, FormatCloser>;
using CodecPtr = std::unique_ptr<AVCodecContext, CodecFreer>;
using FramePtr = std::unique_ptr<AVFrame, FrameFreer>;
using PacketPtr = std::unique_ptr<AVPacket, PacketFreer>;
using SwsPtr = std::unique_ptr<SwsContext, SwsFreer>;

// "<context>: <av_strerror text>".
std::string AvError(const char* context, int error);

// Largest frame time in microseconds that FrameTimeUs reports (about 29,000 years).
constexpr int64_t kMaxFrameTimeUs = INT64_MAX / 10;

// Packets read at most while looking for one decoded frame.
constexpr int kMaxPacketsPerFrame = 4000;

// Streams a file may have. Real files stay far below (a film with every
// dubbing, subtitle and font attachment has a few dozen). Files that declare
// more are refused; beyond it, a demuxer that meets new streams while
// reading makes no more of them.
constexpr unsigned kMaxStreams = 256;

// An opened file with its chosen video stream. Not thread-safe: one thread
// at a time uses it.
class MediaFile {
 public:
  ~MediaFile();

  // Opens utf8_path within `timeout` and chooses its best real video stream
  // (the container's own choice among the first few, by what probing found
  // in them), or else its first attached picture. Every other stream is
  // discarded, and where the container allows it before the streams are
  // probed, so that it costs next to nothing to probe or read. Blocking operations also stop
  // once `cancellation` (may be null) is cancelled; the file keeps a
  // reference to it. Fails with NotFound (no such file), NotSupported
  // (unknown or refused container, too many streams, no video), Timeout
  // (deadline or cancellation), or InvalidArgument (broken or oversized).
  // *out is untouched on failure. The AVERROR code, when there is one, goes
  // to *av_error (may be null).
  static Status Open(const std::string& utf8_path, std::chrono::milliseconds timeout,
                     std::shared_ptr<const utility::Cancellation> cancellation,
                     std::unique_ptr<MediaFile>* out, int* av_error = nullptr);

  AVFormatContext* format() const { return format_.get(); }
  AVStream* stream() const { return format_->streams[stream_index_]; }
  bool is_attached_picture() const { return attached_picture_; }

  // Moves to the next stream a thumbnail may be made of, when the chosen one
  // gives no frame: the other probed real video streams in file order, then
  // the attached picture. Read from its start, its decoder not yet open
  // (OpenDecoder). False when there is none left, or it cannot be reached.
  bool UseNextStream();

  // Restarts the deadline for the next blocking operations.
  void SetDeadline(std::chrono::milliseconds from_now);

  // Replaces the cancellation that stops blocking operations (null: none).
  // Not while an operation runs.
  void SetCancellation(std::shared_ptr<const utility::Cancellation> cancellation) {
    interrupt_->cancellation = std::move(cancellation);
  }

  // Whether the deadline has passed or the cancellation was cancelled.
  bool Interrupted() const { return OnInterrupt(interrupt_.get()) != 0; }

  // Opens the decoder of the chosen stream (size limits checked first) and
  // makes the demuxer skip every other stream. Returns 0 or an AVERROR.
  int OpenDecoder();

  // Decodes the next frame of the stream into *frame (unreferenced first).
  // Returns 0, AVERROR_EOF at the end, AVERROR_EXIT when interrupted, or
  // another AVERROR.
  int DecodeNextFrame(AVFrame* frame);

  // From now on, packets whose frames are shown before time_us (microseconds
  // from the start of the file; both their presentation and decoding times
  // earlier by a safety margin) are not decoded when no other frame refers
  // to them. Frames at or after time_us, and every frame a later one is
  // predicted from, decode exactly as without skipping; only the skipped
  // frames themselves are never returned. INT64_MIN turns skipping off.
  void SkipUnreferencedBefore(int64_t time_us) { skip_before_us_ = time_us; }

  // Seeks to the key frame at or before time_us (microseconds from the
  // start of the file) and flushes the decoder. Returns 0 or an AVERROR.
  int SeekTo(int64_t time_us);

  // Microseconds from the start of the file for a frame's time; INT64_MIN
  // when the frame has none, or one beyond +-kMaxFrameTimeUs (hostile files),
  // so that callers may multiply it by 10 for 100-ns units.
  int64_t FrameTimeUs(const AVFrame* frame) const;

  // Clockwise degrees (0, 90, 180, 270) that make frames upright, and whether
  // they are also mirrored. False when the stream has no display matrix.
  bool DisplayRotation(int* clockwise_degrees, bool* mirrored) const;

  // True when seeking is cheap and exact enough: a seekable file in a
  // container with an index.
  bool CanSeek() const;
  bool HasSlowSeek() const;

 private:
  MediaFile() = default;

  struct Interrupt {
    std::atomic<int64_t> deadline_us{0};
    std::shared_ptr<const utility::Cancellation> cancellation;
  };
  static int OnInterrupt(void* opaque);
  // Probes the streams, reading only the one chosen where the container
  // allows it, and chooses it. Returns 0 or an AVERROR.
  int ProbeStreams();

  std::unique_ptr<Interrupt> interrupt_ = std::make_unique<Interrupt>();
  FormatPtr format_;
  CodecPtr codec_;
  PacketPtr packet_;
  std::vector<int> candidates_;  // the streams that may be chosen, best first
  size_t next_candidate_ = 0;
  int stream_index_ = -1;
  bool attached_picture_ = false;
  bool picture_sent_ = false;
  bool draining_ = false;
  int64_t skip_before_us_ = INT64_MIN;

  // Whether the decoder may drop the current packet_ if nothing refers to it.
  bool MaySkipPacket() const;
};

// Converts a decoded frame to tightly packed 32-bit BGRA (alpha 255) of
// out_width x out_height, with the frame's own YUV matrix and range (BT.709
// for untagged HD, BT.601 for untagged SD), into rows of `stride` bytes.
// The converter's vector code may write up to image::kPixelSlack bytes past
// the last pixel, which a Bitmap's buffer allows for.
Status ConvertToBgra(const AVFrame* frame, int out_width, int out_height, uint8_t* bgra, int stride);
// The same into a new buffer; *bgra is replaced on success.
Status ConvertToBgra(const AVFrame* frame, int out_width, int out_height, std::vector<uint8_t>* bgra);
// Converts a decoded frame to the AV_PIX_FMT_GBRP16 frame `rgb` (its size
// and buffers set by the caller), with the same matrix and range as
// ConvertToBgra but the transfer kept: HDR samples stay PQ- or HLG-encoded
// for the tone mapper. Bilinear, with chroma where the frame sited it.
Status ConvertToPlanarRgb16(const AVFrame* frame, AVFrame* rgb);

}  // namespace ffmpeg
}  // namespace thumbnail
}  // namespace tessera

#endif  // TESSERA_LIB_VIDEO_FFMPEG_MEDIA_H_
