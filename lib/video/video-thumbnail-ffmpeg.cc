#include "lib/video/video-thumbnail.h"

extern "C" {
#include <libavfilter/avfilter.h>
#include <libavfilter/buffersink.h>
#include <libavfilter/buffersrc.h>
#include <libavutil/macros.h>
}

#include <dlfcn.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <memory>
#include <mutex>
#include <string>
#include <type_traits>

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

// The filter library is only needed to tone-map HDR frames, and loading it
// (with the many libraries it depends on) costs about as much as loading all
// the rest of FFmpeg: it is loaded on the first HDR frame instead of with
// the program. The same major version as the headers' is required.
struct FilterLibrary {
  decltype(&avfilter_version) version;
  decltype(&avfilter_graph_alloc) graph_alloc;
  decltype(&avfilter_graph_free) graph_free;
  decltype(&avfilter_get_by_name) get_by_name;
  decltype(&avfilter_graph_create_filter) graph_create_filter;
  decltype(&avfilter_inout_alloc) inout_alloc;
  decltype(&avfilter_inout_free) inout_free;
  decltype(&avfilter_graph_parse_ptr) graph_parse_ptr;
  decltype(&avfilter_graph_config) graph_config;
  decltype(&av_buffersrc_add_frame) buffersrc_add_frame;
  decltype(&av_buffersink_get_frame) buffersink_get_frame;
};

// The loaded library (kept for the life of the process), or nullptr when it
// is missing or of another version. Thread-safe.
const FilterLibrary* Filters() {
  static std::once_flag once;
  static FilterLibrary* library = nullptr;
  std::call_once(once, [] {
    void* handle = dlopen("libavfilter.so." AV_STRINGIFY(LIBAVFILTER_VERSION_MAJOR), RTLD_NOW | RTLD_LOCAL);
    if (handle == nullptr) return;
    auto* l = new FilterLibrary;
    bool complete = true;
    auto find = [&](auto* function, const char* name) {
      *function = reinterpret_cast<std::remove_pointer_t<decltype(function)>>(dlsym(handle, name));
      complete = complete && *function != nullptr;
    };
    find(&l->version, "avfilter_version");
    find(&l->graph_alloc, "avfilter_graph_alloc");
    find(&l->graph_free, "avfilter_graph_free");
    find(&l->get_by_name, "avfilter_get_by_name");
    find(&l->graph_create_filter, "avfilter_graph_create_filter");
    find(&l->inout_alloc, "avfilter_inout_alloc");
    find(&l->inout_free, "avfilter_inout_free");
    find(&l->graph_parse_ptr, "avfilter_graph_parse_ptr");
    find(&l->graph_config, "avfilter_graph_config");
    find(&l->buffersrc_add_frame, "av_buffersrc_add_frame");
    find(&l->buffersink_get_frame, "av_buffersink_get_frame");
    if (!complete || AV_VERSION_MAJOR(l->version()) != LIBAVFILTER_VERSION_MAJOR) {
      delete l;
      dlclose(handle);
      return;
    }
    library = l;
  });
  return library;
}

struct GraphFreer {
  void operator()(AVFilterGraph* p) const { Filters()->graph_free(&p); }
};
using GraphPtr = std::unique_ptr<AVFilterGraph, GraphFreer>;

bool IsHdrTransfer(int transfer) {
  return transfer == AVCOL_TRC_SMPTE2084 || transfer == AVCOL_TRC_ARIB_STD_B67;
}

// Maps a PQ or HLG frame to BT.709 SDR BGRA of width x height: linear
// light in BT.709 primaries, a curve that keeps mid-tones and rolls off
// highlights (no desaturation, so colours keep their hue), then the BT.709
// transfer. (A filmic curve such as hable leaves reference white far too
// dark.) The first stage also scales, so that the stages on 32-bit floats
// (12 bytes a pixel, each keeping its own frame) work at the size wanted,
// not at the size of the frame. Takes the frame's reference.
Status ToneMapToBgra(AVFrame* frame, int width, int height, image::Bitmap* bitmap) {
  const FilterLibrary* filters = Filters();
  if (filters == nullptr) return Status::NotSupported("the tone-mapping filter library cannot be loaded");
  GraphPtr graph(filters->graph_alloc());
  if (!graph) return Status::Internal("avfilter_graph_alloc failed");
  graph->nb_threads = 1;
  const AVRational sar = frame->sample_aspect_ratio.num > 0 ? frame->sample_aspect_ratio : AVRational{1, 1};
  const std::string source_args = "video_size=" + std::to_string(frame->width) + "x" +
                                  std::to_string(frame->height) +
                                  ":pix_fmt=" + std::to_string(frame->format) + ":time_base=1/1" +
                                  ":pixel_aspect=" + std::to_string(sar.num) + "/" + std::to_string(sar.den);
  AVFilterContext* source = nullptr;
  AVFilterContext* sink = nullptr;
  int error = filters->graph_create_filter(&source, filters->get_by_name("buffer"), "in",
                                           source_args.c_str(), nullptr, graph.get());
  if (error < 0) return Status::Internal(ffmpeg::AvError("buffer", error));
  error = filters->graph_create_filter(&sink, filters->get_by_name("buffersink"), "out", nullptr,
                                       nullptr, graph.get());
  if (error < 0) return Status::Internal(ffmpeg::AvError("buffersink", error));

  AVFilterInOut* outputs = filters->inout_alloc();
  AVFilterInOut* inputs = filters->inout_alloc();
  if (outputs == nullptr || inputs == nullptr) {
    filters->inout_free(&outputs);
    filters->inout_free(&inputs);
    return Status::Internal("avfilter_inout_alloc failed");
  }
  outputs->name = av_strdup("in");
  outputs->filter_ctx = source;
  inputs->name = av_strdup("out");
  inputs->filter_ctx = sink;
  const std::string chain = "zscale=w=" + std::to_string(width) + ":h=" + std::to_string(height) +
                            ":t=linear:npl=100:p=bt709,format=gbrpf32le,tonemap=tonemap=mobius:desat=0,"
                            "zscale=t=bt709:m=bt709:r=pc,format=gbrp";
  error = filters->graph_parse_ptr(graph.get(), chain.c_str(), &inputs, &outputs, nullptr);
  filters->inout_free(&outputs);
  filters->inout_free(&inputs);
  if (error < 0) return Status::NotSupported(ffmpeg::AvError("tone-mapping filters", error));
  error = filters->graph_config(graph.get(), nullptr);
  if (error < 0) return Status::NotSupported(ffmpeg::AvError("avfilter_graph_config", error));

  ffmpeg::FramePtr output(av_frame_alloc());
  if (!output) return Status::Internal("out of memory");
  // The graph takes the frame over, and lets it go once it is scaled.
  error = filters->buffersrc_add_frame(source, frame);
  if (error >= 0) error = filters->buffersrc_add_frame(source, nullptr);
  if (error >= 0) error = filters->buffersink_get_frame(sink, output.get());
  if (error < 0) return Status::Internal(ffmpeg::AvError("tone mapping", error));
  if (output->format != AV_PIX_FMT_GBRP || output->width != width || output->height != height) {
    return Status::Internal("unexpected tone-mapped frame");
  }
  image::Bitmap pixels;
  Status status = image::Bitmap::Create(width, height, &pixels);
  if (!status.ok()) return status;
  for (int y = 0; y < height; ++y) {
    const uint8_t* g = output->data[0] + static_cast<ptrdiff_t>(output->linesize[0]) * y;
    const uint8_t* b = output->data[1] + static_cast<ptrdiff_t>(output->linesize[1]) * y;
    const uint8_t* r = output->data[2] + static_cast<ptrdiff_t>(output->linesize[2]) * y;
    uint8_t* row = pixels.row(y);
    for (int x = 0; x < width; ++x) {
      row[4 * x] = b[x];
      row[4 * x + 1] = g[x];
      row[4 * x + 2] = r[x];
      row[4 * x + 3] = 0xFF;
    }
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
  // works on floats (12 bytes a pixel, in every stage of it).
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
