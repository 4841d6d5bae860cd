// The media source of the frame reader on FFmpeg. Every read request is
// answered on a reader thread of its own, which decodes the next frame,
// converts it to BGRX and calls the listener.
#include <chrono>
#include <memory>
#include <thread>

#include "lib/utility/cancellation.h"
#include "lib/utility/run-deadline.h"
#include "lib/utility/text-conversion.h"
#include "lib/video/ffmpeg-media.h"
#include "lib/video/media-module.h"
#include "lib/video/media-source.h"

namespace tessera {
namespace thumbnail {
namespace {

// Longer than the reader's own 10-second wait, so that a slow read is still
// reported as a time-out by the reader, but bounded, so that an abandoned
// read thread ends; and neither ever past the source's own deadline.
constexpr std::chrono::milliseconds kOpenDeadline{10000};
constexpr std::chrono::milliseconds kReadDeadline{15000};
constexpr int64_t kHnsPerUs = 10;

uint32_t PrimariesValue(AVColorPrimaries primaries) {
  switch (primaries) {
    case AVCOL_PRI_BT709: return 2;
    case AVCOL_PRI_BT470M: return 3;
    case AVCOL_PRI_BT470BG: return 4;
    case AVCOL_PRI_SMPTE170M: return 5;
    case AVCOL_PRI_SMPTE240M: return 6;
    case AVCOL_PRI_BT2020: return 9;
    default: return 0;
  }
}

uint32_t MatrixValue(AVColorSpace space) {
  switch (space) {
    case AVCOL_SPC_BT709: return 1;
    case AVCOL_SPC_BT470BG:
    case AVCOL_SPC_SMPTE170M: return 2;
    case AVCOL_SPC_SMPTE240M: return 3;
    case AVCOL_SPC_BT2020_NCL: return 4;
    case AVCOL_SPC_BT2020_CL: return 5;
    default: return 0;
  }
}

class FfmpegMediaSource : public MediaSource {
 public:
  // Every blocking operation of the file stops at `deadline` too.
  explicit FfmpegMediaSource(std::chrono::steady_clock::time_point deadline)
      : deadline_(deadline == std::chrono::steady_clock::time_point::max()
                      ? nullptr
                      : std::make_shared<utility::Cancellation>(deadline)) {}

  ~FfmpegMediaSource() override {
    if (thread_.joinable()) thread_.join();
    if (callback_ != nullptr) callback_->Release();
  }

  int32_t Open(const std::u16string& path, MediaSourceCallback* callback) override {
    std::string utf8_path;
    if (utility::UTF16ToUTF8(path, &utf8_path) != 0) return AVERROR(EINVAL);
    int error = 0;
    if (!ffmpeg::MediaFile::Open(utf8_path, kOpenDeadline, deadline_, &file_, &error).ok()) {
      return error < 0 ? error : AVERROR_UNKNOWN;
    }
    callback_ = callback;
    callback_->AddRef();
    return 0;
  }

  int32_t GetNativeVideoType(NativeVideoType* out) override {
    const AVCodecParameters* params = file_->stream()->codecpar;
    NativeVideoType type;
    type.is_video = params->codec_type == AVMEDIA_TYPE_VIDEO;
    type.codec = params->codec_id == AV_CODEC_ID_HEVC   ? VideoCodec::kHevc
                 : params->codec_id == AV_CODEC_ID_H264 ? VideoCodec::kH264
                                                        : VideoCodec::kOther;
    type.has_primaries = params->color_primaries != AVCOL_PRI_UNSPECIFIED;
    type.primaries = PrimariesValue(params->color_primaries);
    type.has_matrix = params->color_space != AVCOL_SPC_UNSPECIFIED;
    type.matrix = MatrixValue(params->color_space);
    *out = type;
    return 0;
  }

  int32_t SetFirstVideoOutputBgrx() override {
    const int error = file_->OpenDecoder();
    if (error < 0) return error;
    width_ = file_->stream()->codecpar->width;
    height_ = file_->stream()->codecpar->height;
    return width_ > 0 && height_ > 0 ? 0 : AVERROR_INVALIDDATA;
  }

  int32_t SelectFirstVideoStream() override { return 0; }  // OpenDecoder chose it

  int32_t GetFrameSize(uint32_t* width, uint32_t* height) override {
    if (width_ <= 0 || height_ <= 0) return AVERROR(EINVAL);
    *width = static_cast<uint32_t>(width_);
    *height = static_cast<uint32_t>(height_);
    return 0;
  }

  int32_t GetRotation(uint32_t* degrees) override {
    int clockwise = 0;
    bool mirrored = false;
    if (!file_->DisplayRotation(&clockwise, &mirrored)) return AVERROR(ENOENT);
    *degrees = static_cast<uint32_t>(clockwise);
    return 0;
  }

  int32_t GetCharacteristics(uint32_t* characteristics) override {
    uint32_t value = 0;
    if (file_->CanSeek()) value |= kCharacteristicCanSeek;
    if (file_->HasSlowSeek()) value |= kCharacteristicHasSlowSeek;
    *characteristics = value;
    return 0;
  }

  int32_t SetCurrentPosition(int64_t position_hns) override {
    file_->SetDeadline(kReadDeadline);
    const int error = file_->SeekTo(position_hns / kHnsPerUs);
    sought_ = error >= 0;
    frames_since_seek_ = 0;
    return error;
  }

  int32_t ReadSample() override {
    if (callback_ == nullptr) return AVERROR(EINVAL);
    if (thread_.joinable()) thread_.join();  // its answer has already come
    file_->SetDeadline(kReadDeadline);
    thread_ = std::thread([this] { ReadOnThread(); });
    return 0;
  }

 private:
  void ReadOnThread() {
    ffmpeg::FramePtr frame(av_frame_alloc());
    int error = frame ? file_->DecodeNextFrame(frame.get()) : AVERROR(ENOMEM);
    if (error == AVERROR_EOF && sought_ && frames_since_seek_ == 0) {
      // Some demuxers without an index land past the last frame when the
      // target lies near the end: read from the start instead, so that the
      // reader still finds the last frame before the end.
      sought_ = false;
      if (file_->SeekTo(0) >= 0) error = file_->DecodeNextFrame(frame.get());
    }
    if (error >= 0) ++frames_since_seek_;
    if (error == AVERROR_EOF) {
      callback_->OnReadSample(0, 0, kStreamFlagEndOfStream, 0, nullptr);
      return;
    }
    if (error < 0) {
      callback_->OnReadSample(error, 0, 0, 0, nullptr);
      return;
    }
    const int64_t us = file_->FrameTimeUs(frame.get());
    const int64_t hns = us == INT64_MIN ? MediaSample::kNoTime : us * kHnsPerUs;
    // Converted only when the frame is taken: the reader may skip dozens of
    // frames on its way to the seek time, and converting a 4K frame costs
    // more than decoding it. Every frame comes out at the size announced for
    // the stream.
    std::shared_ptr<AVFrame> decoded(frame.release(), ffmpeg::FrameFreer());
    const int width = width_;
    const int height = height_;
    auto sample = std::make_shared<MediaSample>(hns, width, height, [decoded, width, height] {
      std::vector<uint8_t> pixels;
      if (!ffmpeg::ConvertToBgra(decoded.get(), width, height, &pixels).ok()) pixels.clear();
      return pixels;
    });
    callback_->OnReadSample(0, 0, 0, hns == MediaSample::kNoTime ? 0 : hns, std::move(sample));
  }

  const std::shared_ptr<const utility::Cancellation> deadline_;  // null: none
  std::unique_ptr<ffmpeg::MediaFile> file_;
  MediaSourceCallback* callback_ = nullptr;  // one reference held
  int width_ = 0;
  int height_ = 0;
  bool sought_ = false;
  int frames_since_seek_ = 0;
  std::thread thread_;
};

}  // namespace

std::unique_ptr<MediaSource> CreateFfmpegMediaSource(std::chrono::steady_clock::time_point deadline) {
  return std::make_unique<FfmpegMediaSource>(deadline);
}

// Linked where this code is linked directly; a program that loads it as a
// module has the loader's definition instead, which passes the deadline in.
std::unique_ptr<MediaSource> MediaSource::Create() { return CreateFfmpegMediaSource(utility::RunDeadline()); }

}  // namespace thumbnail
}  // namespace tessera
