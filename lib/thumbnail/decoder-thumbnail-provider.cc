#include "lib/thumbnail/decoder-thumbnail-provider.h"

#include <algorithm>
#include <cerrno>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "lib/codec/byte-source.h"
#include "lib/codec/image-decoder.h"
#include "lib/image/pixel-memory.h"
#include "lib/log/log.h"
#include "lib/thumbnail/source-classification.h"
#include "lib/thumbnail/thumbnail-job.h"
#include "lib/thumbnail/thumbnail-provider.h"
#include "lib/thumbnail/thumbnail-size.h"
#include "lib/utility/text-conversion.h"
#include "lib/video/video-thumbnail.h"

namespace tessera {
namespace thumbnail {
namespace {

constexpr char kLogComponent[] = "thumbnail_debug";
// Enough for every signature SniffImageFormat knows.
constexpr size_t kHeadBytes = 32;

int32_t OpenErrorCode(const Status& status) {
  switch (status.code()) {
    case Status::Code::kNotFound:
      return -ENOENT;
    case Status::Code::kInvalidArgument:
      return -EINVAL;
    case Status::Code::kInternal:
      return -ENOMEM;
    default:
      return -EIO;
  }
}

int32_t DecodeErrorCode(const Status& status) {
  if (codec::IsImageTooLarge(status)) return kProviderTooLarge;
  switch (status.code()) {
    case Status::Code::kTimeout:
      return -ETIMEDOUT;
    case Status::Code::kNotFound:
      return -ENOENT;
    case Status::Code::kIoError:
      return -EIO;
    case Status::Code::kInternal:
      return -ENOMEM;
    default:
      return kProviderDecodeFailed;
  }
}

// The largest cx one run of the tool asks of a file.
uint32_t LargestRunRequest() {
  const std::vector<uint32_t> run = RunRequestEdges();
  return *std::max_element(run.begin(), run.end());
}

class DecoderThumbnailProvider : public ThumbnailProvider {
 public:
  int32_t CreateItem(const std::u16string& path) override {
    source_.reset();
    decoder_.reset();
    video_ = false;
    content_key_.clear();
    cancellation_.reset();
    if (utility::UTF16ToUTF8(path, &path_) != 0) return -EINVAL;
    Status status = codec::ByteSource::OpenFile(path_, &source_);
    if (!status.ok()) {
      LOG_DEBUG(kLogComponent, "cannot open '%s': %s", path_.c_str(), status.ToString().c_str());
      return OpenErrorCode(status);
    }
    // The decoders' per-process cache tells contents apart by path and by
    // the identity of the file that is open (never one that replaced it).
    const std::string identity = source_->ContentIdentity();
    if (!identity.empty()) content_key_ = path_ + "\n" + identity;
    cancellation_ = CurrentJobCancellation();
    source_->set_cancellation(cancellation_);
    return 0;
  }

  int32_t BindToHandler() override {
    if (!source_) return kProviderNotReady;
    uint8_t head[kHeadBytes];
    const int64_t got = source_->ReadAt(0, head, sizeof(head));
    if (got < 0) return -EIO;
    const codec::ImageFormat sniffed = codec::SniffImageFormat(head, static_cast<size_t>(got));
    // Content first; then a RAW name gets one try with the RAW decoder.
    const codec::ImageFormat format =
        sniffed == codec::ImageFormat::kUnknown && IsCameraRawPath(path_) ? codec::ImageFormat::kRaw : sniffed;
    decoder_ = codec::CreateImageDecoder(format);
    if (decoder_) {
      decoder_->SetContentKey(content_key_);
      decoder_->SetAnticipatedRequests(RunRequestEdges());
      // The extraction reduces what it gets to a shorter side of cx / 3:
      // a decoder may hand over that size at once.
      decoder_->SetCallerEdgeDivisor(kProviderRequestFactor);
      return 0;
    }
    if (sniffed == codec::ImageFormat::kUnknown && IsVideoContent(path_, cancellation_)) {
      video_ = true;
      return 0;
    }
    LOG_DEBUG(kLogComponent, "no decoder for '%s' (format %d)", path_.c_str(),
              static_cast<int>(format));
    return kProviderNoHandler;
  }

  int32_t GetThumbnail(uint32_t cx, image::Bitmap* out) override {
    if (!decoder_ && !video_) return kProviderNotReady;
    if (cx == 0) return -EINVAL;
    image::Bitmap bitmap;
    Status status = video_ ? ExtractVideoThumbnail(path_, cx, &bitmap, cancellation_, LargestRunRequest())
                           : decoder_->Decode(source_.get(), cx, &bitmap);
    if (!status.ok()) {
      LOG_DEBUG(kLogComponent, "decoding '%s' failed: %s", path_.c_str(),
                status.ToString().c_str());
      return DecodeErrorCode(status);
    }
    *out = std::move(bitmap);
    return 0;
  }

 private:
  std::string path_;
  std::unique_ptr<codec::ByteSource> source_;
  std::unique_ptr<codec::ImageDecoder> decoder_;
  std::string content_key_;
  // The job's, so that an abandoned decode stops (null outside a job).
  std::shared_ptr<const utility::Cancellation> cancellation_;
  bool video_ = false;
};

}  // namespace

std::unique_ptr<ThumbnailProvider> CreateDecoderThumbnailProvider() {
  image::PreferMappedLargeBlocks();
  return std::unique_ptr<ThumbnailProvider>(new DecoderThumbnailProvider());
}

}  // namespace thumbnail
}  // namespace tessera
