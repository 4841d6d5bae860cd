#include "lib/video/ffmpeg-media.h"

extern "C" {
#include <libavutil/dict.h>
#include <libavutil/display.h>
#include <libavutil/imgutils.h>
#include <libavutil/log.h>
#include <libavutil/opt.h>
#include <libavutil/pixdesc.h>
#include <libavutil/avstring.h>
#include <libavutil/cpu.h>
#include <libavutil/time.h>
}


#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstddef>
#include <cstdarg>
#include <cstring>
#include <mutex>

#include "lib/file/file-op.h"
#include "lib/image/limits.h"
#include "lib/image/pixel-memory.h"
#include "lib/log/log.h"

namespace tessera {
namespace thumbnail {
namespace ffmpeg {
namespace {

// Containers of single files. Everything that reads other files or URLs
// (playlists, concat lists, image sequences, manifests) is left out, and so
// are still-image demuxers: images are the image decoders' business.
constexpr char kAllowedDemuxers[] =
    "mov,mp4,m4a,3gp,3g2,mj2,matroska,webm,avi,flv,asf,mpegts,mpeg,mpegvideo,"
    "h264,hevc,m4v,ogg,mxf,nut,dv,ivf,rm,wtv,swf,yuv4mpegpipe,mp3,flac";

// Containers without an index, where a seek has to search the file.
constexpr const char* kSlowSeekDemuxers[] = {"mpegts", "mpeg", "mpegvideo", "h264", "hevc", "m4v"};

void LogFromFfmpeg(void* avcl, int level, const char* format, va_list args) {
  if (level > AV_LOG_WARNING) return;
  char line[512];
  int print_prefix = 1;
  av_log_format_line2(avcl, level, format, args, line, sizeof(line), &print_prefix);
  const size_t length = std::strlen(line);
  if (length > 0 && line[length - 1] == '\n') line[length - 1] = '\0';
  LOG_DEBUG("thumbnail_debug", "ffmpeg: %s", line);
}

// FFmpeg writes to standard error by default; route it to our logger.
void InstallLogger() {
  static std::once_flag once;
  std::call_once(once, [] {
    av_log_set_level(AV_LOG_WARNING);
    av_log_set_callback(LogFromFfmpeg);
  });
}

// How much earlier than the skipping limit a packet's times must be, so that
// rounding of times never drops the frame at the limit.
constexpr int64_t kSkipMarginUs = 50000;

int64_t NowUs() { return av_gettime_relative(); }

// *sum = a + b; false when hostile times would overflow.
bool AddTime(int64_t a, int64_t b, int64_t* sum) { return !__builtin_add_overflow(a, b, sum); }

Status AvStatus(const char* context, int error) {
  if (error == AVERROR_EXIT) return Status::Timeout(AvError(context, error));
  if (error == AVERROR(ENOENT)) return Status::NotFound(AvError(context, error));
  if (error == AVERROR_INVALIDDATA || error == AVERROR(EINVAL) || error == AVERROR_DEMUXER_NOT_FOUND)
    return Status::NotSupported(AvError(context, error));
  return Status::InvalidArgument(AvError(context, error));
}

// Real video streams probed at most. Probing decodes a frame of every
// stream it is given; the choice among them rests on what it found.
constexpr int kMaxProbedVideoStreams = 4;

bool IsVideo(const AVStream* stream) { return stream->codecpar->codec_type == AVMEDIA_TYPE_VIDEO; }
bool IsAttachedPicture(const AVStream* stream) { return (stream->disposition & AV_DISPOSITION_ATTACHED_PIC) != 0; }
bool IsRealVideo(const AVStream* stream) { return IsVideo(stream) && !IsAttachedPicture(stream); }
bool HoldsPicture(const AVStream* stream) {
  return IsVideo(stream) && IsAttachedPicture(stream) && stream->attached_pic.size > 0;
}

// The streams a thumbnail may be made of, best first: the real video stream
// the container's own choice gives (av_find_best_stream: the one whose
// packets probing found and decoded, else the first), the other real video
// streams in file order, then the attached pictures that hold one.
std::vector<int> RankStreams(AVFormatContext* format) {
  std::vector<int> ranked;
  const int best = av_find_best_stream(format, AVMEDIA_TYPE_VIDEO, -1, -1, nullptr, 0);
  if (best >= 0 && IsRealVideo(format->streams[best])) ranked.push_back(best);
  for (unsigned i = 0; i < format->nb_streams; ++i) {
    if (IsRealVideo(format->streams[i]) && static_cast<int>(i) != best) ranked.push_back(static_cast<int>(i));
  }
  for (unsigned i = 0; i < format->nb_streams; ++i) {
    if (HoldsPicture(format->streams[i])) ranked.push_back(static_cast<int>(i));
  }
  return ranked;
}

bool IsYuvjFormat(int format) {
  return format == AV_PIX_FMT_YUVJ420P || format == AV_PIX_FMT_YUVJ422P ||
         format == AV_PIX_FMT_YUVJ444P || format == AV_PIX_FMT_YUVJ440P ||
         format == AV_PIX_FMT_YUVJ411P;
}

}  // namespace

std::string AvError(const char* context, int error) {
  char text[AV_ERROR_MAX_STRING_SIZE] = {0};
  av_strerror(error, text, sizeof(text));
  return std::string(context) + ": " + text;
}

MediaFile::~MediaFile() = default;

int MediaFile::OnInterrupt(void* opaque) {
  const Interrupt* interrupt = static_cast<const Interrupt*>(opaque);
  if (NowUs() > interrupt->deadline_us.load()) return 1;
  return interrupt->cancellation && interrupt->cancellation->IsCancelled() ? 1 : 0;
}

void MediaFile::SetDeadline(std::chrono::milliseconds from_now) {
  interrupt_->deadline_us = NowUs() + static_cast<int64_t>(from_now.count()) * 1000;
}

Status MediaFile::Open(const std::string& utf8_path, std::chrono::milliseconds timeout,
                       std::shared_ptr<const utility::Cancellation> cancellation,
                       std::unique_ptr<MediaFile>* out, int* av_error) {
  InstallLogger();
  int dummy = 0;
  int& error = av_error != nullptr ? *av_error : dummy;
  error = 0;

  std::string identity;
  const int identified = file::FSIdentifyRegularFile(utf8_path, &identity);
  if (identified == -ENOENT) {
    error = AVERROR(ENOENT);
    return Status::NotFound("no such file");
  }
  if (identified != 0) {
    error = AVERROR(EINVAL);
    return Status::NotSupported("not a regular file");
  }

  std::unique_ptr<MediaFile> file(new MediaFile);
  file->SetDeadline(timeout);
  file->SetCancellation(std::move(cancellation));
  if (file->Interrupted()) {
    error = AVERROR_EXIT;
    return Status::Timeout("cancelled before opening");
  }

  AVFormatContext* raw = avformat_alloc_context();
  if (raw == nullptr) {
    error = AVERROR(ENOMEM);
    return Status::Internal("avformat_alloc_context failed");
  }
  raw->interrupt_callback.callback = &MediaFile::OnInterrupt;
  raw->interrupt_callback.opaque = file->interrupt_.get();

  AVDictionary* options = nullptr;
  av_dict_set(&options, "protocol_whitelist", "file", 0);
  av_dict_set(&options, "format_whitelist", kAllowedDemuxers, 0);
  av_dict_set_int(&options, "max_streams", kMaxStreams, 0);
  // The "file:" prefix keeps a name with a colon from naming a protocol.
  const std::string url = "file:" + utf8_path;
  error = avformat_open_input(&raw, url.c_str(), nullptr, &options);  // frees raw on failure
  av_dict_free(&options);
  // An interrupted read may surface as any error: it is a time-out all the same.
  if (error < 0 && file->Interrupted()) error = AVERROR_EXIT;
  if (error < 0) return AvStatus("avformat_open_input", error);
  file->format_.reset(raw);

  // Checked again here, by name, in case the whitelist option was ignored.
  if (!av_match_list(raw->iformat->name, kAllowedDemuxers, ',')) {
    error = AVERROR_DEMUXER_NOT_FOUND;
    return Status::NotSupported(std::string("refused container ") + raw->iformat->name);
  }
  if (raw->nb_streams > kMaxStreams) {
    error = AVERROR_INVALIDDATA;
    return Status::NotSupported("too many streams");
  }
  raw->probesize = 5 << 20;
  raw->max_analyze_duration = 5 * AV_TIME_BASE;
  // Frame rates are never used: no frames are read only to estimate one.
  raw->fps_probe_size = 0;
  error = file->ProbeStreams();
  if (error < 0 && file->Interrupted()) error = AVERROR_EXIT;
  if (error < 0) return AvStatus("avformat_find_stream_info", error);
  if (file->stream_index_ < 0) {
    error = file->Interrupted() ? AVERROR_EXIT : AVERROR_STREAM_NOT_FOUND;
    return error == AVERROR_EXIT ? AvStatus("avformat_find_stream_info", error)
                                 : Status::NotSupported("no video stream");
  }
  *out = std::move(file);
  return Status::OK();
}

int MediaFile::ProbeStreams() {
  AVFormatContext* format = format_.get();
  // Probing (FFmpeg 5.1) treats every stream alike, discarded or not: it
  // opens a parser and a decoder for each, decodes its first frames and
  // reads on until each has its parameters, so a file of a hundred 4K
  // tracks decodes a hundred 4K frames. A stream that is discarded and made
  // a data stream without a codec is complete as it is: nothing of it is
  // opened, decoded or waited for. The streams that may be chosen are kept
  // before probing when no better one can appear later (the container
  // declared all its streams up front, or a real video stream is known
  // already): the first few real video streams, or else the first attached
  // picture; every other stream is made such a data stream.
  std::vector<bool> keep(format->nb_streams, false);
  int kept_videos = 0;
  for (unsigned i = 0; i < format->nb_streams && kept_videos < kMaxProbedVideoStreams; ++i) {
    if (IsRealVideo(format->streams[i])) {
      keep[i] = true;
      ++kept_videos;
    }
  }
  if (kept_videos == 0) {
    for (unsigned i = 0; i < format->nb_streams; ++i) {
      if (HoldsPicture(format->streams[i])) {
        keep[i] = true;
        break;
      }
    }
  }
  const bool all_declared = (format->ctx_flags & AVFMTCTX_NOHEADER) == 0;
  const bool any_kept = std::find(keep.begin(), keep.end(), true) != keep.end();
  if (any_kept && (all_declared || kept_videos > 0)) {
    for (unsigned i = 0; i < format->nb_streams; ++i) {
      if (keep[i]) continue;
      AVStream* other = format->streams[i];
      other->discard = AVDISCARD_ALL;
      other->codecpar->codec_type = AVMEDIA_TYPE_DATA;
      other->codecpar->codec_id = AV_CODEC_ID_NONE;
    }
    // An MPEG-TS demuxer adds a stream for every new program entry or packet
    // identifier it meets, and probing would decode each: with the video
    // stream at hand, it is told to add none (other demuxers ignore this).
    if (!all_declared) av_opt_set_int(format, "skip_changes", 1, AV_OPT_SEARCH_CHILDREN);
  }

  // Probing decodes a frame of the stream; frame threads would cost more to
  // start than that one frame.
  std::vector<AVDictionary*> stream_options(format->nb_streams, nullptr);
  for (AVDictionary*& stream_option : stream_options) av_dict_set(&stream_option, "threads", "1", 0);
  const int error = avformat_find_stream_info(format, stream_options.empty() ? nullptr : stream_options.data());
  for (AVDictionary*& stream_option : stream_options) av_dict_free(&stream_option);
  if (error < 0) return error;

  candidates_ = RankStreams(format);
  next_candidate_ = 0;
  UseNextStream();  // none: the file has no stream to make a thumbnail of
  return 0;
}

bool MediaFile::UseNextStream() {
  if (next_candidate_ >= candidates_.size()) return false;
  const bool first = next_candidate_ == 0;
  stream_index_ = candidates_[next_candidate_++];
  attached_picture_ = IsAttachedPicture(format_->streams[stream_index_]);
  codec_.reset();
  packet_.reset();
  picture_sent_ = false;
  draining_ = false;
  skip_before_us_ = INT64_MIN;
  if (first) return true;
  // The decoder of the stream before discarded every other one, and read
  // on: this one is read from the start.
  format_->streams[stream_index_]->discard = AVDISCARD_DEFAULT;
  return attached_picture_ || SeekTo(0) >= 0;
}

int MediaFile::OpenDecoder() {
  const AVCodecParameters* params = stream()->codecpar;
  if (!image::WithinPixelLimits(params->width > 0 ? params->width : 0,
                                params->height > 0 ? params->height : 0)) {
    return AVERROR_INVALIDDATA;
  }
  const AVCodec* codec = avcodec_find_decoder(params->codec_id);
  if (codec == nullptr) return AVERROR_DECODER_NOT_FOUND;
  CodecPtr context(avcodec_alloc_context3(codec));
  if (!context) return AVERROR(ENOMEM);
  int error = avcodec_parameters_to_context(context.get(), params);
  if (error < 0) return error;
  // A thread per core, at most four: the library's own choice (one more than
  // the cores) oversubscribes a small machine, and every frame thread adds a
  // frame decoded past the one wanted before it comes out.
  context->thread_count = std::max(1, std::min(av_cpu_count(), 4));
  context->pkt_timebase = stream()->time_base;
  error = avcodec_open2(context.get(), codec, nullptr);
  if (error < 0) return error;
  codec_ = std::move(context);
  packet_.reset(av_packet_alloc());
  if (!packet_) return AVERROR(ENOMEM);
  for (unsigned i = 0; i < format_->nb_streams; ++i) {
    if (static_cast<int>(i) != stream_index_) format_->streams[i]->discard = AVDISCARD_ALL;
  }
  return 0;
}

int MediaFile::DecodeNextFrame(AVFrame* frame) {
  if (!codec_) return AVERROR(EINVAL);
  av_frame_unref(frame);
  for (int packets = 0; packets <= kMaxPacketsPerFrame; ++packets) {
    // Reads from the demuxer's buffer do not reach the interrupt callback.
    if (Interrupted()) return AVERROR_EXIT;
    int error = avcodec_receive_frame(codec_.get(), frame);
    if (error == 0) {
      if (!image::WithinPixelLimits(frame->width > 0 ? frame->width : 0,
                                    frame->height > 0 ? frame->height : 0)) {
        av_frame_unref(frame);
        return AVERROR_INVALIDDATA;
      }
      return 0;
    }
    if (error != AVERROR(EAGAIN)) return error;  // AVERROR_EOF after draining
    if (draining_) return AVERROR_EOF;

    if (attached_picture_) {
      // The picture is one packet kept by the demuxer, followed by the end.
      if (!picture_sent_) {
        picture_sent_ = true;
        error = avcodec_send_packet(codec_.get(), &stream()->attached_pic);
        if (error < 0) return error;
      } else {
        draining_ = true;
        avcodec_send_packet(codec_.get(), nullptr);
      }
      continue;
    }

    error = av_read_frame(format_.get(), packet_.get());
    if (error == AVERROR_EOF || (error < 0 && format_->pb != nullptr && avio_feof(format_->pb))) {
      draining_ = true;
      avcodec_send_packet(codec_.get(), nullptr);
      continue;
    }
    if (error < 0) return error;
    if (packet_->stream_index == stream_index_) {
      // Read by the decoder (or copied to a frame thread) for this packet only.
      codec_->skip_frame = MaySkipPacket() ? AVDISCARD_NONREF : AVDISCARD_DEFAULT;
      error = avcodec_send_packet(codec_.get(), packet_.get());
      // Broken packets are skipped; the decoder resynchronises on the next.
      if (error < 0 && error != AVERROR_INVALIDDATA && error != AVERROR(EAGAIN)) {
        av_packet_unref(packet_.get());
        return error;
      }
    }
    av_packet_unref(packet_.get());
  }
  return AVERROR_INVALIDDATA;  // too many packets without a frame
}

bool MediaFile::MaySkipPacket() const {
  if (skip_before_us_ == INT64_MIN) return false;
  // A frame's time is its packet's presentation time, or its decoding time
  // when the presentation times look wrong: both must be early.
  if (packet_->pts == AV_NOPTS_VALUE || packet_->dts == AV_NOPTS_VALUE) return false;
  const AVRational time_base = stream()->time_base;
  int64_t latest = std::max(av_rescale_q(packet_->pts, time_base, AV_TIME_BASE_Q),
                            av_rescale_q(packet_->dts, time_base, AV_TIME_BASE_Q));
  if (format_->start_time != AV_NOPTS_VALUE && !AddTime(latest, -format_->start_time, &latest)) {
    return false;
  }
  int64_t limit = 0;
  return AddTime(skip_before_us_, -kSkipMarginUs, &limit) && latest < limit;
}

int MediaFile::SeekTo(int64_t time_us) {
  if (attached_picture_) return AVERROR(ENOSYS);
  const AVStream* s = stream();
  int64_t target = time_us;
  if (format_->start_time != AV_NOPTS_VALUE && !AddTime(target, format_->start_time, &target)) {
    return AVERROR_INVALIDDATA;
  }
  target = av_rescale_q(target, AV_TIME_BASE_Q, s->time_base);
  const int error = av_seek_frame(format_.get(), stream_index_, target, AVSEEK_FLAG_BACKWARD);
  if (error < 0) return error;
  if (codec_) avcodec_flush_buffers(codec_.get());
  draining_ = false;
  return 0;
}

int64_t MediaFile::FrameTimeUs(const AVFrame* frame) const {
  int64_t pts = frame->best_effort_timestamp;
  if (pts == AV_NOPTS_VALUE) pts = frame->pts;
  if (pts == AV_NOPTS_VALUE) return INT64_MIN;
  int64_t us = av_rescale_q(pts, stream()->time_base, AV_TIME_BASE_Q);
  if (format_->start_time != AV_NOPTS_VALUE && !AddTime(us, -format_->start_time, &us)) return INT64_MIN;
  // Callers count in 100-ns units; a time that cannot be one is no time.
  if (us > kMaxFrameTimeUs || us < -kMaxFrameTimeUs) return INT64_MIN;
  return us;
}

bool MediaFile::DisplayRotation(int* clockwise_degrees, bool* mirrored) const {
  size_t size = 0;
  const uint8_t* data = av_stream_get_side_data(stream(), AV_PKT_DATA_DISPLAYMATRIX, &size);
  if (data == nullptr || size < 9 * sizeof(int32_t)) return false;
  int32_t matrix[9];
  std::memcpy(matrix, data, sizeof(matrix));
  // A mirrored matrix has a negative determinant; unmirror it before reading
  // the angle.
  const double det = static_cast<double>(matrix[0]) * matrix[4] -
                     static_cast<double>(matrix[1]) * matrix[3];
  *mirrored = det < 0;
  if (*mirrored) av_display_matrix_flip(matrix, 1, 0);
  const double counter_clockwise = av_display_rotation_get(matrix);
  if (std::isnan(counter_clockwise)) return false;
  int degrees = static_cast<int>(std::lround(-counter_clockwise / 90.0)) * 90;
  degrees %= 360;
  if (degrees < 0) degrees += 360;
  *clockwise_degrees = degrees;
  return true;
}

bool MediaFile::CanSeek() const {
  return !attached_picture_ && format_->pb != nullptr &&
         (format_->pb->seekable & AVIO_SEEKABLE_NORMAL) != 0;
}

bool MediaFile::HasSlowSeek() const {
  for (const char* name : kSlowSeekDemuxers) {
    if (std::strcmp(format_->iformat->name, name) == 0) return true;
  }
  return format_->duration == AV_NOPTS_VALUE;
}

namespace {

// A converter from the frame's pixels to `out_format` at out_width x
// out_height with the given scaler flags, with the frame's own YUV matrix
// and range (see ConvertToBgra), or null when there is none. With
// `chroma_sited`, subsampled chroma is placed where the frame says it was
// sampled (left of centre in H.264, HEVC and most video); otherwise the
// converter's default, centred between luma samples, is kept.
SwsPtr ConverterFor(const AVFrame* frame, int out_width, int out_height, AVPixelFormat out_format, int flags,
                    bool chroma_sited) {
  const AVPixelFormat format = static_cast<AVPixelFormat>(frame->format);
  SwsPtr sws(sws_alloc_context());
  if (!sws) return nullptr;
  SwsContext* c = sws.get();
  av_opt_set_int(c, "srcw", frame->width, 0);
  av_opt_set_int(c, "srch", frame->height, 0);
  av_opt_set_int(c, "src_format", format, 0);
  av_opt_set_int(c, "dstw", out_width, 0);
  av_opt_set_int(c, "dsth", out_height, 0);
  av_opt_set_int(c, "dst_format", out_format, 0);
  av_opt_set_int(c, "sws_flags", flags, 0);
  const AVPixFmtDescriptor* desc = av_pix_fmt_desc_get(format);
  int x = 0;
  int y = 0;
  if (chroma_sited && desc != nullptr && frame->chroma_location != AVCHROMA_LOC_UNSPECIFIED &&
      avcodec_enum_to_chroma_pos(&x, &y, static_cast<AVChromaLocation>(frame->chroma_location)) == 0) {
    if (desc->log2_chroma_w > 0) av_opt_set_int(c, "src_h_chr_pos", x, 0);
    if (desc->log2_chroma_h > 0) av_opt_set_int(c, "src_v_chr_pos", y, 0);
  }
  if (sws_init_context(c, nullptr, nullptr) < 0) return nullptr;

  int colorspace = frame->colorspace;
  if (colorspace == AVCOL_SPC_UNSPECIFIED || colorspace == AVCOL_SPC_RESERVED) {
    colorspace = frame->height > 576 ? AVCOL_SPC_BT709 : AVCOL_SPC_SMPTE170M;
  }
  if (colorspace == AVCOL_SPC_BT2020_CL) colorspace = AVCOL_SPC_BT2020_NCL;
  const int src_range = (frame->color_range == AVCOL_RANGE_JPEG || IsYuvjFormat(format)) ? 1 : 0;
  const int* coefficients = sws_getCoefficients(colorspace);
  sws_setColorspaceDetails(c, coefficients, src_range, sws_getCoefficients(SWS_CS_DEFAULT), 1, 0, 1 << 16,
                           1 << 16);
  return sws;
}

}  // namespace

Status ConvertToBgra(const AVFrame* frame, int out_width, int out_height, uint8_t* bgra, int stride) {
  if (frame->width <= 0 || frame->height <= 0 || out_width <= 0 || out_height <= 0 ||
      !image::WithinPixelLimits(out_width, out_height) || stride < out_width * 4) {
    return Status::InvalidArgument("bad frame size");
  }
  // Bicubic chroma, interpolated to every pixel. Accurate rounding would
  // move no value by more than one step and makes the conversion of a 1080p
  // frame three times slower (it leaves the SIMD paths).
  SwsPtr sws = ConverterFor(frame, out_width, out_height, AV_PIX_FMT_BGRA, SWS_BICUBIC | SWS_FULL_CHR_H_INT,
                            false);
  if (!sws) return Status::NotSupported("no conversion from this pixel format");

  uint8_t* planes[4] = {bgra, nullptr, nullptr, nullptr};
  int strides[4] = {stride, 0, 0, 0};
  const int rows = sws_scale(sws.get(), frame->data, frame->linesize, 0, frame->height, planes, strides);
  if (rows != out_height) return Status::Internal("sws_scale failed");
  for (int y = 0; y < out_height; ++y) {
    uint8_t* row = bgra + static_cast<ptrdiff_t>(stride) * y;
    for (int x = 0; x < out_width; ++x) row[4 * x + 3] = 0xFF;
  }
  return Status::OK();
}

Status ConvertToPlanarRgb16(const AVFrame* frame, AVFrame* rgb) {
  if (frame->width <= 0 || frame->height <= 0 || rgb->format != AV_PIX_FMT_GBRP16 || rgb->width <= 0 ||
      rgb->height <= 0 || !image::WithinPixelLimits(rgb->width, rgb->height)) {
    return Status::InvalidArgument("bad frame size");
  }
  // Bilinear: a bicubic kernel's overshoot at edges, small in code values,
  // becomes bright halos once the steep PQ curve turns them into light.
  SwsPtr sws = ConverterFor(frame, rgb->width, rgb->height, AV_PIX_FMT_GBRP16, SWS_BILINEAR | SWS_FULL_CHR_H_INT,
                            true);
  if (!sws) return Status::NotSupported("no conversion from this pixel format");
  const int rows = sws_scale(sws.get(), frame->data, frame->linesize, 0, frame->height, rgb->data, rgb->linesize);
  if (rows != rgb->height) return Status::Internal("sws_scale failed");
  return Status::OK();
}

Status ConvertToBgra(const AVFrame* frame, int out_width, int out_height, std::vector<uint8_t>* bgra) {
  if (out_width <= 0 || out_height <= 0 || !image::WithinPixelLimits(out_width, out_height)) {
    return Status::InvalidArgument("bad frame size");
  }
  // The converter may write past the last pixel: see ConvertToBgra above.
  const size_t bytes = static_cast<size_t>(out_width) * out_height * 4;
  std::vector<uint8_t> pixels(bytes + image::kPixelSlack);
  Status status = ConvertToBgra(frame, out_width, out_height, pixels.data(), out_width * 4);
  if (!status.ok()) return status;
  pixels.resize(bytes);
  *bgra = std::move(pixels);
  return Status::OK();
}

}  // namespace ffmpeg
}  // namespace thumbnail
}  // namespace tessera
