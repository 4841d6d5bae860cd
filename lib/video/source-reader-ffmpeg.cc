// The media source of the frame reader on FFmpeg. Every read request is
// answered on a reader thread of its own, which decodes the next frame,
// converts it to BGRX and calls the listener.
#include <chrono>
#include <cstring>
#include <memory>
#include <thread>
#include <vector>

#include "lib/utility/cancellation.h"
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

// A decoded frame; converted to BGRX when it is made contiguous.
class FfmpegSample : public MediaSample {
 public:
  FfmpegSample(int64_t time_hns, int width, int height, ffmpeg::FramePtr frame)
      : MediaSample(time_hns, width, height), frame_(std::move(frame)) {}

  int32_t ConvertToContiguousBuffer() override {
    if (!frame_) return pixels_.empty() ? AVERROR(EINVAL) : 0;
    const Status status = ffmpeg::ConvertToBgra(frame_.get(), width(), height(), &pixels_);
    frame_.reset();
    return status.ok() ? 0 : AVERROR(EINVAL);
  }

  int32_t LockBuffer(uint8_t* bgrx, size_t stride) override {
    const size_t row_bytes = static_cast<size_t>(width()) * 4;
    if (width() <= 0 || height() <= 0 || stride < row_bytes || pixels_.size() / row_bytes < size_t(height())) {
      return AVERROR(EINVAL);
    }
    for (int y = 0; y < height(); ++y) {
      std::memcpy(bgrx + stride * y, pixels_.data() + row_bytes * y, row_bytes);
    }
    return 0;
  }

 private:
  ffmpeg::FramePtr frame_;  // until converted
  std::vector<uint8_t> pixels_;
};

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

  // The attribute store and video processing are Media Foundation's.
  int32_t CreateAttributes() override { return 0; }
  int32_t EnableVideoProcessing() override { return 0; }

  int32_t SetAsyncCallback(MediaSourceCallback* callback) override {
    if (callback == nullptr || callback_ != nullptr) return AVERROR(EINVAL);
    callback_ = callback;
    callback_->AddRef();
    return 0;
  }

  int32_t CreateSourceReader(const std::u16string& path) override {
    std::string utf8_path;
    if (callback_ == nullptr || utility::UTF16ToUTF8(path, &utf8_path) != 0) return AVERROR(EINVAL);
    int error = 0;
    if (!ffmpeg::MediaFile::Open(utf8_path, kOpenDeadline, deadline_, &file_, &error).ok()) {
      return error < 0 ? error : AVERROR_UNKNOWN;
    }
    return 0;
  }

  int32_t GetCurrentMediaType(NativeVideoType* out) override {
    if (!file_) return AVERROR(EINVAL);
    const AVCodecParameters* params = file_->stream()->codecpar;
    NativeVideoType type;
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

  int32_t GetMajorType(bool* is_video) override {
    if (!file_) return AVERROR(EINVAL);
    *is_video = file_->stream()->codecpar->codec_type == AVMEDIA_TYPE_VIDEO;
    return 0;
  }

  // The output type is no object of its own here: frames always leave as BGRX.
  int32_t CreateMediaType() override { return 0; }
  int32_t SetMajorTypeVideo() override { return 0; }
  int32_t SetSubtypeRgb32() override { return 0; }

  int32_t SetCurrentMediaType() override {
    if (!file_) return AVERROR(EINVAL);
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

  // The characteristics are known as soon as the file is open.
  int32_t GetPresentationAttribute() override { return file_ ? 0 : AVERROR(EINVAL); }

  int32_t ConvertPresentationAttribute(uint32_t* characteristics) override {
    if (!file_) return AVERROR(EINVAL);
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
    auto sample = std::make_shared<FfmpegSample>(hns, width_, height_, std::move(frame));
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

}  // namespace thumbnail
}  // namespace tessera
