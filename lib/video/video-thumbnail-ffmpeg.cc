#include "lib/video/video-thumbnail.h"

extern "C" {
#include <libavutil/csp.h>
#include <libavutil/mastering_display_metadata.h>
}

#include <algorithm>
#include <chrono>
#include <cstring>
#include <memory>
#include <mutex>
#include <string>

#include "lib/color/hdr-tone-map.h"
#include "lib/file/file-op.h"
#include "lib/image/area-resample.h"
#include "lib/image/limits.h"
#include "lib/image/transform.h"
#include "lib/video/ffmpeg-media.h"

namespace tessera {
namespace thumbnail {
namespace {

constexpr std::chrono::milliseconds kOpenDeadline{10000};
constexpr std::chrono::milliseconds kDecodeDeadline{20000};
constexpr int64_t kFrameTimeUs = 1000000;  // the frame at one second
// Frames decoded at most while looking for it (after the seek, or from the
// start when the file cannot seek).
constexpr int kMaxFramesDecoded = 600;

bool IsHdrTransfer(int transfer) {
  return transfer == AVCOL_TRC_SMPTE2084 || transfer == AVCOL_TRC_ARIB_STD_B67;
}

// The brightest content a frame declares (cd/m²): its MaxCLL, else its
// mastering display's peak; 0 when it says neither.
double DeclaredPeakNits(const AVFrame* frame) {
  const AVFrameSideData* light = av_frame_get_side_data(frame, AV_FRAME_DATA_CONTENT_LIGHT_LEVEL);
  if (light != nullptr && light->size >= sizeof(AVContentLightMetadata)) {
    const unsigned max_cll = reinterpret_cast<const AVContentLightMetadata*>(light->data)->MaxCLL;
    if (max_cll > 0) return max_cll;
  }
  const AVFrameSideData* mastering = av_frame_get_side_data(frame, AV_FRAME_DATA_MASTERING_DISPLAY_METADATA);
  if (mastering != nullptr && mastering->size >= sizeof(AVMasteringDisplayMetadata)) {
    const auto* display = reinterpret_cast<const AVMasteringDisplayMetadata*>(mastering->data);
    if (display->has_luminance && display->max_luminance.den > 0) {
      const double nits = av_q2d(display->max_luminance);
      if (nits > 0) return nits;
    }
  }
  return 0;
}

// The frame's primaries as chromaticities; false when they are not tagged
// (the tone mapper then assumes BT.2020, as HDR video has).
bool PrimariesOf(const AVFrame* frame, color::Chromaticities* out) {
  const AVColorPrimariesDesc* desc =
      av_csp_primaries_desc_from_id(static_cast<AVColorPrimaries>(frame->color_primaries));
  if (desc == nullptr) return false;
  *out = {{av_q2d(desc->prim.r.x), av_q2d(desc->prim.r.y)},
          {av_q2d(desc->prim.g.x), av_q2d(desc->prim.g.y)},
          {av_q2d(desc->prim.b.x), av_q2d(desc->prim.b.y)},
          {av_q2d(desc->wp.x), av_q2d(desc->wp.y)}};
  return true;
}

// Maps a PQ or HLG frame to SDR BGRA of width x height with the tone mapper
// HDR stills use, in the rendering video has (color::kVideoRendering): the
// converter scales the frame and turns its YUV into R'G'B' at 16 bits, still
// PQ- or HLG-encoded, and the tone mapper takes those planes row by row.
// The planes (6 bytes a pixel) are the only copy, at the converted size.
Status ToneMapToBgra(const AVFrame* frame, int width, int height, image::Bitmap* bitmap) {
  if (frame->width <= 0 || frame->height <= 0 || width <= 0 || height <= 0 ||
      !image::WithinPixelLimits(width, height)) {
    return Status::InvalidArgument("bad frame size");
  }
  ffmpeg::FramePtr planes(av_frame_alloc());
  if (!planes) return Status::Internal("out of memory");
  planes->format = AV_PIX_FMT_GBRP16;
  planes->width = width;
  planes->height = height;
  if (av_frame_get_buffer(planes.get(), 0) < 0) return Status::Internal("out of memory for tone mapping");
  Status status = ffmpeg::ConvertToPlanarRgb16(frame, planes.get());
  if (!status.ok()) return status;

  color::HdrSource source;
  source.transfer = frame->color_trc == AVCOL_TRC_ARIB_STD_B67 ? color::HdrTransfer::kHlg : color::HdrTransfer::kPq;
  PrimariesOf(frame, &source.primaries);
  source.bit_depth = 16;
  source.peak_nits = DeclaredPeakNits(frame);
  source.rendering = color::kVideoRendering;
  const color::HdrToneMapper mapper(source);

  image::Bitmap pixels;
  status = image::Bitmap::Create(width, height, &pixels);
  if (!status.ok()) return status;
  for (int y = 0; y < height; ++y) {
    auto plane_row = [&](int plane) {
      const uint8_t* row = planes->data[plane] + static_cast<ptrdiff_t>(planes->linesize[plane]) * y;
      return reinterpret_cast<const uint16_t*>(row);
    };
    uint8_t* row = pixels.row(y);
    // GBRP16's planes are G, B, R.
    mapper.ConvertRow(plane_row(2), plane_row(0), plane_row(1), static_cast<size_t>(width), row);
    for (int x = 0; x < width; ++x) row[4 * x + 3] = 0xFF;
  }
  *bitmap = std::move(pixels);
  return Status::OK();
}

// Decodes frames until the first at or after one second (*reached), keeping
// the latest in *frame (*have_frame). A decoding error after some frame was
// kept ends the run without one.
Status DecodeUpToFrameTime(ffmpeg::MediaFile* file, AVFrame* candidate, AVFrame* frame, bool* have_frame,
                           bool* reached) {
  for (int decoded = 0; decoded < kMaxFramesDecoded; ++decoded) {
    const int error = file->DecodeNextFrame(candidate);
    if (error == AVERROR_EOF) break;
    if (error == AVERROR_EXIT) return Status::Timeout("video decoding took too long");
    if (error < 0) {
      if (*have_frame) break;  // a damaged tail: keep what was decoded
      return Status::InvalidArgument(ffmpeg::AvError("decoding", error));
    }
    av_frame_unref(frame);
    av_frame_move_ref(frame, candidate);
    *have_frame = true;
    const int64_t time = file->FrameTimeUs(frame);
    if (time == INT64_MIN || time >= kFrameTimeUs) {
      *reached = true;
      break;
    }
  }
  return Status::OK();
}

// Decodes the representative frame of the file's current stream into
// *frame: the attached picture, or the first frame at or after one second,
// or the last frame of a shorter clip.
Status DecodeStreamFrame(ffmpeg::MediaFile* file, AVFrame* frame) {
  int error = file->OpenDecoder();
  if (error < 0) return Status::InvalidArgument(ffmpeg::AvError("decoder", error));
  if (file->is_attached_picture()) {
    error = file->DecodeNextFrame(frame);
    if (error < 0) return Status::InvalidArgument(ffmpeg::AvError("attached picture", error));
    return Status::OK();
  }

  const int64_t duration = file->format()->duration;
  const bool short_clip = duration != AV_NOPTS_VALUE && duration <= kFrameTimeUs;
  bool sought = false;
  if (!short_clip && file->CanSeek() && !file->HasSlowSeek()) {
    sought = file->SeekTo(kFrameTimeUs) >= 0;
  }

  ffmpeg::FramePtr candidate(av_frame_alloc());
  if (!candidate) return Status::Internal("out of memory");
  // Frames before one second are only decoded when later ones refer to
  // them. Should the clip end (or break) before one second after all, its
  // last frame is wanted, which may be one of those skipped: the run is
  // then repeated without skipping, from the same key frame; hence only
  // after a seek that worked.
  const bool skipping = sought;
  if (skipping) file->SkipUnreferencedBefore(kFrameTimeUs);
  bool have_frame = false;
  bool reached = false;
  Status status = DecodeUpToFrameTime(file, candidate.get(), frame, &have_frame, &reached);
  if (skipping && !reached && status.code() != Status::Code::kTimeout) {
    file->SkipUnreferencedBefore(INT64_MIN);
    if (file->SeekTo(kFrameTimeUs) < 0) return Status::InvalidArgument("cannot seek back");
    av_frame_unref(frame);
    have_frame = false;
    status = DecodeUpToFrameTime(file, candidate.get(), frame, &have_frame, &reached);
  }
  if (!status.ok()) return status;
  if (!have_frame && sought) {
    // The seek went past the last frame: read from the start instead.
    if (file->SeekTo(0) >= 0) {
      for (int decoded = 0; decoded < kMaxFramesDecoded; ++decoded) {
        error = file->DecodeNextFrame(candidate.get());
        if (error < 0) break;
        av_frame_unref(frame);
        av_frame_move_ref(frame, candidate.get());
        have_frame = true;
      }
    }
  }
  if (!have_frame) return Status::InvalidArgument("no decodable video frame");
  return Status::OK();
}

// The representative frame of the chosen stream or, when that gives none,
// of the next stream that may serve: a download cut short may declare
// video streams of which only a later one has packets. One deadline for
// all of them.
Status DecodeRepresentativeFrame(ffmpeg::MediaFile* file, AVFrame* frame) {
  file->SetDeadline(kDecodeDeadline);
  for (;;) {
    const Status status = DecodeStreamFrame(file, frame);
    if (status.ok() || status.code() == Status::Code::kTimeout || file->Interrupted()) return status;
    av_frame_unref(frame);
    if (!file->UseNextStream()) return status;
  }
}

}  // namespace

namespace {

// What tells one file's content from another's without reading it.
// A file by path and by the identity of the file there (device, file id,
// size, times).
struct FileIdentity {
  std::string path;
  std::string file;

  bool operator==(const FileIdentity& o) const { return path == o.path && file == o.file; }
};

bool IdentifyFile(const std::string& utf8_path, FileIdentity* id) {
  if (file::FSIdentifyRegularFile(utf8_path, &id->file) != 0) return false;
  id->path = utf8_path;
  return true;
}

// The file IsVideoContent() opened, for the decode that follows it: opening
// probes the streams, which decodes frames, and a second probe of the same
// file would cost as much again.
class ProbedFile {
 public:
  void Keep(const FileIdentity& id, std::unique_ptr<ffmpeg::MediaFile> file) {
    std::lock_guard<std::mutex> lock(mutex_);
    id_ = id;
    file_ = std::move(file);
  }
  std::unique_ptr<ffmpeg::MediaFile> Take(const FileIdentity& id) {
    std::lock_guard<std::mutex> lock(mutex_);
    std::unique_ptr<ffmpeg::MediaFile> file = std::move(file_);
    return file && id == id_ ? std::move(file) : nullptr;
  }

 private:
  std::mutex mutex_;
  FileIdentity id_;
  std::unique_ptr<ffmpeg::MediaFile> file_;
};

ProbedFile& TheProbedFile() {
  static ProbedFile* probed = new ProbedFile();
  return *probed;
}

// The representative frame, upright, with the size it is shown at
// (non-square pixels are only applied by the final reduction). At full size,
// or reduced for requests up to max_cx.
struct UprightFrame {
  image::Bitmap bitmap;
  int display_width = 0;
  int display_height = 0;
  uint32_t max_cx = 0;  // 0: the full frame, good for any request

  bool Serves(uint32_t cx) const { return max_cx == 0 || cx <= max_cx; }
};

// The storage size (before non-square pixels and turning) that a frame of
// width x height, shown at display_width x display_height, needs for every
// request up to cx: the whole frame when nothing would be reduced.
void SizeFor(int width, int height, int display_width, int display_height, uint32_t cx, int* out_width,
             int* out_height) {
  int fit_width = 0;
  int fit_height = 0;
  image::FitWithin(display_width, display_height, cx, &fit_width, &fit_height);
  // Rounded up, so that no later reduction has to enlarge.
  auto storage = [](int fit, int display, int stored) {
    const int64_t needed = (static_cast<int64_t>(fit) * stored + display - 1) / display;
    return static_cast<int>(std::max<int64_t>(1, std::min<int64_t>(stored, needed)));
  };
  *out_width = storage(fit_width, display_width, width);
  *out_height = storage(fit_height, display_height, height);
}

// `id` is null when the file cannot be identified. *opened tells whether the
// file opened as a video (so that a failure is one of decoding).
Status DecodeUprightFrame(const std::string& utf8_path, const FileIdentity* id, uint32_t cx, uint32_t largest_cx,
                          const std::shared_ptr<const utility::Cancellation>& cancellation,
                          UprightFrame* upright, bool* opened) {
  *opened = false;
  std::unique_ptr<ffmpeg::MediaFile> file;
  if (id != nullptr) file = TheProbedFile().Take(*id);
  Status status;
  if (file) {
    file->SetCancellation(cancellation);
  } else {
    status = ffmpeg::MediaFile::Open(utf8_path, kOpenDeadline, cancellation, &file);
  }
  if (!status.ok()) return status;
  *opened = true;
  ffmpeg::FramePtr frame(av_frame_alloc());
  if (!frame) return Status::Internal("out of memory");
  status = DecodeRepresentativeFrame(file.get(), frame.get());
  if (!status.ok()) {
    // Whatever a stopped decode failed with, it may go further another time.
    return file->Interrupted() ? Status::Timeout("video decoding was stopped: " + status.ToString()) : status;
  }

  // Frames may carry no colour tags where the stream has them.
  const AVCodecParameters* params = file->stream()->codecpar;
  if (frame->color_trc == AVCOL_TRC_UNSPECIFIED) frame->color_trc = params->color_trc;
  if (frame->color_primaries == AVCOL_PRI_UNSPECIFIED) frame->color_primaries = params->color_primaries;
  if (frame->colorspace == AVCOL_SPC_UNSPECIFIED) frame->colorspace = params->color_space;
  if (frame->color_range == AVCOL_RANGE_UNSPECIFIED) frame->color_range = params->color_range;

  // Display size before turning: non-square pixels widen (or narrow) the frame.
  const int width = frame->width;
  const int height = frame->height;
  int display_width = width;
  int display_height = height;
  AVRational sar = av_guess_sample_aspect_ratio(file->format(), file->stream(), frame.get());
  if (sar.num > 0 && sar.den > 0 && sar.num != sar.den) {
    const int64_t stretched = av_rescale(width, sar.num, sar.den);
    if (stretched > 0 && stretched <= static_cast<int64_t>(image::kMaxSide)) {
      display_width = static_cast<int>(stretched);
    }
  }
  int degrees = 0;
  bool mirrored = false;
  const bool turned = file->DisplayRotation(&degrees, &mirrored);
  // The decoder's threads and frames go before the frame is converted.
  file.reset();

  // Converted only at the size the largest request needs: a huge
  // frame would otherwise take gigabytes, above all for tone mapping, which
  // works on a 16-bit RGB copy (6 bytes a pixel).
  const uint32_t limit = std::max(cx, largest_cx);
  int converted_width = 0;
  int converted_height = 0;
  SizeFor(width, height, display_width, display_height, limit, &converted_width, &converted_height);
  const uint32_t max_cx = converted_width != width || converted_height != height ? limit : 0;
  image::Bitmap bitmap;
  if (IsHdrTransfer(frame->color_trc)) {
    status = ToneMapToBgra(frame.get(), converted_width, converted_height, &bitmap);
  } else {
    status = image::Bitmap::Create(converted_width, converted_height, &bitmap);
    if (status.ok()) {
      status = ffmpeg::ConvertToBgra(frame.get(), converted_width, converted_height, bitmap.data(),
                                     static_cast<int>(bitmap.stride()));
    }
  }
  frame.reset();
  if (!status.ok()) return status;

  if (turned) {
    if (mirrored) image::MirrorHorizontally(&bitmap);
    if (degrees != 0) {
      image::Bitmap rotated;
      status = image::RotateClockwise(bitmap, degrees / 90, &rotated);
      if (!status.ok()) return status;
      bitmap = std::move(rotated);
      if (degrees == 90 || degrees == 270) std::swap(display_width, display_height);
    }
  }

  upright->bitmap = std::move(bitmap);
  upright->display_width = display_width;
  upright->display_height = display_height;
  upright->max_cx = max_cx;
  return Status::OK();
}

// What the last file of the process gave: its decoded frame, or a failure
// that would come again. The tool asks for one file's thumbnail at several
// sizes in a row; decoding the frame once serves them all, every size being
// reduced from exactly the frame a fresh decode gives, and a file that
// cannot be done is tried once.
class FrameCache {
 public:
  struct Entry {
    std::shared_ptr<const UprightFrame> frame;  // or null, and then:
    Status failure;
    bool opened = false;  // whether the file opened as a video before it failed
  };

  // The entry for the file, if it is the last one (`found` false otherwise).
  Entry Find(const FileIdentity& id, bool* found) {
    std::lock_guard<std::mutex> lock(mutex_);
    *found = known_ && id == id_;
    return *found ? entry_ : Entry();
  }
  void Keep(const FileIdentity& id, Entry entry) {
    std::lock_guard<std::mutex> lock(mutex_);
    known_ = true;
    id_ = id;
    entry_ = std::move(entry);
  }

 private:
  std::mutex mutex_;
  bool known_ = false;
  FileIdentity id_;
  Entry entry_;
};

FrameCache& TheFrameCache() {
  static FrameCache* cache = new FrameCache();
  return *cache;
}

// Whether a failure would come again on the same file: not a time-out
// (deadline or cancellation), nor a file that is not there.
bool Repeats(const Status& status) {
  return !status.ok() && status.code() != Status::Code::kTimeout && status.code() != Status::Code::kNotFound;
}

}  // namespace

bool IsVideoContent(const std::string& utf8_path,
                    const std::shared_ptr<const utility::Cancellation>& cancellation) {
  // A file already decoded, or already failed, needs no second probe
  // (probing decodes frames too, and every size of a run asks again).
  FileIdentity id;
  const bool identified = IdentifyFile(utf8_path, &id);
  if (identified) {
    bool found = false;
    const FrameCache::Entry known = TheFrameCache().Find(id, &found);
    if (found) return known.frame != nullptr || known.opened;
  }
  std::unique_ptr<ffmpeg::MediaFile> file;
  const Status status = ffmpeg::MediaFile::Open(utf8_path, kOpenDeadline, cancellation, &file);
  if (!status.ok()) {
    if (identified && Repeats(status)) TheFrameCache().Keep(id, FrameCache::Entry{nullptr, status, false});
    return false;
  }
  if (identified) TheProbedFile().Keep(id, std::move(file));
  return true;
}

Status ExtractVideoThumbnail(const std::string& utf8_path, uint32_t cx, image::Bitmap* out,
                             const std::shared_ptr<const utility::Cancellation>& cancellation, uint32_t largest_cx) {
  if (cx == 0) return Status::InvalidArgument("cx is 0");
  FileIdentity id;
  const bool identified = IdentifyFile(utf8_path, &id);
  std::shared_ptr<const UprightFrame> frame;
  if (identified) {
    bool found = false;
    FrameCache::Entry known = TheFrameCache().Find(id, &found);
    if (found && !known.frame) return known.failure;
    if (found && known.frame->Serves(cx)) frame = std::move(known.frame);
  }
  if (!frame) {
    auto decoded = std::make_shared<UprightFrame>();
    bool opened = false;
    Status status = DecodeUprightFrame(utf8_path, identified ? &id : nullptr, cx, largest_cx, cancellation, decoded.get(),
                                       &opened);
    if (!status.ok()) {
      if (identified && Repeats(status)) TheFrameCache().Keep(id, FrameCache::Entry{nullptr, status, opened});
      return status;
    }
    frame = decoded;
    if (identified) TheFrameCache().Keep(id, FrameCache::Entry{frame, Status::OK(), true});
  }

  int width = 0;
  int height = 0;
  image::FitWithin(frame->display_width, frame->display_height, cx, &width, &height);
  if (width <= 0 || height <= 0) return Status::InvalidArgument("empty frame");
  image::Bitmap reduced;
  Status status = width == frame->bitmap.width() && height == frame->bitmap.height()
                      ? frame->bitmap.Clone(&reduced)
                      : image::AreaResample(frame->bitmap, width, height, &reduced);
  if (!status.ok()) return status;
  *out = std::move(reduced);
  return Status::OK();
}

}  // namespace thumbnail
}  // namespace tessera
