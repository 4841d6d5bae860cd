// lib/video: video files — the media-source interface (media-source.h) with
// its FFmpeg and Media Foundation implementations, this frame reader and the
// frame writer (frame-writer.h) of the generator's frame fallback, and the
// FFmpeg video thumbnails
// (video-thumbnail.h), loaded as a module (media-module.h). Its classes are
// in tessera::thumbnail, the namespace of the generator whose fallback they
// serve; it depends on lib/image and lib/color (HDR tone mapping), never on
// lib/thumbnail.
//
// Takes one still frame out of a video file and writes it as an upright JPEG.
//
// SourceReader drives the platform's media source (media-source.h) in its
// asynchronous mode: every read request is answered on a reader thread of the
// platform through SourceReaderListener, and the calling thread waits for the
// answer with a hard limit (10 waits of one second), so that a decoder that
// never answers cannot hang the tool. After such a time-out the platform
// reader is deliberately never released (its request is still outstanding);
// it is parked in a process-wide list so that it stays reachable until exit.
//
// Every failure is raised as std::runtime_error carrying a fixed English
// message, after one ERROR line "<message>: <code>" (see ThrowOnError in
// frame-writer.h).
//
// Thread-safety: one SourceReader is used by one thread at a time.
#ifndef TESSERA_LIB_VIDEO_SOURCE_READER_H_
#define TESSERA_LIB_VIDEO_SOURCE_READER_H_

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>

namespace tessera {
namespace thumbnail {

class MediaSource;
class MediaSample;

class SourceReader {
 public:
  // How long one wait for a sample lasts; ReadSample waits kReadWaits times.
  static constexpr std::chrono::milliseconds kDefaultReadWait{1000};
  static constexpr int kReadWaits = 10;
  // Frames passed over at most while looking for the seek target.
  static constexpr int kMaxSkipFrames = 60;

  // Opens `path` (UTF-16) with the platform's media source, decides whether
  // the video is HDR and selects its first video stream as 32-bit BGRX.
  // Throws std::runtime_error on failure.
  explicit SourceReader(const std::u16string& path);

  // The same over a given media source (tests use fakes), with the length of
  // one sample wait. Takes ownership of `source`.
  SourceReader(std::unique_ptr<MediaSource> source, const std::u16string& path,
               std::chrono::milliseconds read_wait);

  SourceReader(const SourceReader&) = delete;
  SourceReader& operator=(const SourceReader&) = delete;

  // Releases everything; a reader that timed out is not released but parked.
  ~SourceReader();

  // Writes one JPEG of the frame at or after `seek_seconds` to `output_path`
  // (UTF-16), turned upright by the stream's rotation. Throws
  // std::runtime_error on failure; the output file may then be partly
  // written or absent.
  void ExportFrame(const std::u16string& output_path, int32_t seek_seconds);

  class SourceReaderListener;

 private:
  struct State;

  void Construct(const std::u16string& path);
  bool IsHdrVideo();
  void SelectFirstVideoStream();
  bool IsSeekable();
  std::shared_ptr<MediaSample> ReadSample();
  std::shared_ptr<MediaSample> GetDesiredFrame(int32_t seek_seconds);

  std::unique_ptr<MediaSource> reader_;
  SourceReaderListener* listener_ = nullptr;  // one reference held
  std::shared_ptr<State> state_;              // what the callback writes
  std::chrono::milliseconds read_wait_;
  bool is_hdr_ = false;
  bool stuck_ = false;
};

// Number of readers parked after a time-out in this process (for tests).
size_t AbandonedReaderCount();

}  // namespace thumbnail
}  // namespace tessera

#endif  // TESSERA_LIB_VIDEO_SOURCE_READER_H_
