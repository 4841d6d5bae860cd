// The POSIX thumbnail provider: our own decoders, chosen by content.
//
//   CreateItem     the path names a regular file we can open (never blocks:
//                  FIFOs and devices are refused at once)
//   BindToHandler  sniffs the first bytes and picks a decoder, telling it
//                  every request a run makes of a file; content that is no
//                  image format goes to the RAW decoder when the name has a
//                  camera RAW extension (headerless RAW files have no
//                  signature: LibRaw knows them by their size), else to the
//                  video path when a demuxer recognises it as a video (or a
//                  file with cover art)
//   GetThumbnail   decodes, shrinking on load, to a bitmap within cx
#include <errno.h>
#include <malloc.h>
#include <sys/stat.h>

#include <cstdio>

#include <algorithm>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "lib/codec/byte-source.h"
#include "lib/codec/image-decoder.h"
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

// Names a file's content for the decoders' per-process cache: path, device,
// inode, size, modification and change times, taken before and after the
// file is opened. Empty (no caching) when the two differ or stat fails, so a
// file replaced while it is opened is never mistaken for the old one.
std::string ContentKey(const std::string& path, const struct stat& before) {
  struct stat after;
  if (stat(path.c_str(), &after) != 0) return std::string();
  if (before.st_dev != after.st_dev || before.st_ino != after.st_ino ||
      before.st_size != after.st_size || before.st_mtim.tv_sec != after.st_mtim.tv_sec ||
      before.st_mtim.tv_nsec != after.st_mtim.tv_nsec ||
      before.st_ctim.tv_sec != after.st_ctim.tv_sec ||
      before.st_ctim.tv_nsec != after.st_ctim.tv_nsec) {
    return std::string();
  }
  char identity[160];
  snprintf(identity, sizeof(identity), "\n%llu:%llu:%lld:%lld.%09ld:%lld.%09ld",
           static_cast<unsigned long long>(after.st_dev), static_cast<unsigned long long>(after.st_ino),
           static_cast<long long>(after.st_size), static_cast<long long>(after.st_mtim.tv_sec),
           after.st_mtim.tv_nsec, static_cast<long long>(after.st_ctim.tv_sec), after.st_ctim.tv_nsec);
  return path + identity;
}


// The largest cx one run of the tool asks of a file.
uint32_t LargestRunRequest() {
  const std::vector<uint32_t> run = RunRequestEdges();
  return *std::max_element(run.begin(), run.end());
}

class PosixThumbnailProvider : public ThumbnailProvider {
 public:
  int32_t CreateItem(const std::u16string& path) override {
    source_.reset();
    decoder_.reset();
    video_ = false;
    content_key_.clear();
    cancellation_.reset();
    if (utility::UTF16ToUTF8(path, &path_) != 0) return -EINVAL;
    struct stat before;
    const bool have_before = stat(path_.c_str(), &before) == 0;
    Status status = codec::ByteSource::OpenFile(path_, &source_);
    if (!status.ok()) {
      LOG_DEBUG(kLogComponent, "cannot open '%s': %s", path_.c_str(), status.ToString().c_str());
      return OpenErrorCode(status);
    }
    if (have_before) content_key_ = ContentKey(path_, before);
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

// Pictures of tens of megabytes come and go once per size. glibc raises its
// mmap threshold each time such a block is freed, after which the next ones
// are carved from the heap, where freed memory stays resident and adds up
// across sizes (a 12 MP progressive JPEG peaked at 128 instead of 88 MiB).
// A fixed threshold keeps every large block in a mapping of its own, returned
// to the system when freed.
void KeepLargeBlocksMapped() {
#ifdef __GLIBC__
  static std::once_flag once;
  std::call_once(once, [] { mallopt(M_MMAP_THRESHOLD, 256 * 1024); });
#endif
}

}  // namespace

std::unique_ptr<ThumbnailProvider> CreatePlatformThumbnailProvider() {
  KeepLargeBlocksMapped();
  return std::unique_ptr<ThumbnailProvider>(new PosixThumbnailProvider());
}

}  // namespace thumbnail
}  // namespace tessera
