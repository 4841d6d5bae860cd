#include "lib/video/source-reader.h"

#include <atomic>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <utility>
#include <vector>

#include "lib/image/bitmap.h"
#include "lib/log/log.h"
#include "lib/video/frame-writer.h"
#include "lib/video/media-source.h"

namespace tessera {
namespace thumbnail {
namespace {

constexpr char kComponent[] = "thumbnail_debug";
constexpr int64_t kHnsPerSecond = 10000000;
// A source that keeps answering "nothing" without ending would otherwise be
// read for ever.
constexpr int kMaxEmptyReads = 1000;

// An auto-reset event: Set wakes one wait and is consumed by it.
class AutoResetEvent {
 public:
  void Set() {
    std::lock_guard<std::mutex> lock(mutex_);
    signaled_ = true;
    cv_.notify_one();
  }
  // True when signalled within `timeout` (the signal is then reset).
  bool WaitFor(std::chrono::milliseconds timeout) {
    std::unique_lock<std::mutex> lock(mutex_);
    if (!cv_.wait_for(lock, timeout, [this] { return signaled_; })) return false;
    signaled_ = false;
    return true;
  }

 private:
  std::mutex mutex_;
  std::condition_variable cv_;
  bool signaled_ = false;
};

// Readers whose request never came back. They are kept reachable (and never
// destroyed) because their reader thread may still use them.
std::mutex& AbandonedMutex() {
  static std::mutex* mutex = new std::mutex;
  return *mutex;
}
std::vector<std::unique_ptr<MediaSource>>& AbandonedReaders() {
  static auto* readers = new std::vector<std::unique_ptr<MediaSource>>;
  return *readers;
}

}  // namespace

// What the callback writes and the reading thread reads after the event.
// Guarded by the listener's critical section.
struct SourceReader::State {
  std::shared_ptr<MediaSample> last_sample;
  int32_t last_status = kMediaOk;
  bool end_of_stream = false;
  std::shared_ptr<AutoResetEvent> sample_event;
};

class SourceReader::SourceReaderListener : public MediaSourceCallback {
 public:
  using SampleCallback = std::function<int32_t(int32_t status, uint32_t stream_index, uint32_t flags,
                                               int64_t timestamp, std::shared_ptr<MediaSample> sample)>;

  explicit SourceReaderListener(SampleCallback callback) : callback_(std::move(callback)) {}

  uint32_t AddRef() override { return ref_count_.fetch_add(1) + 1; }
  uint32_t Release() override {
    const uint32_t count = ref_count_.fetch_sub(1) - 1;
    if (count == 0) delete this;
    return count;
  }
  int32_t OnReadSample(int32_t status, uint32_t stream_index, uint32_t flags, int64_t timestamp,
                       std::shared_ptr<MediaSample> sample) override {
    std::lock_guard<std::mutex> lock(critical_section_);
    return callback_(status, stream_index, flags, timestamp, std::move(sample));
  }
  int32_t OnFlush(uint32_t) override { return kMediaOk; }
  int32_t OnEvent(uint32_t) override { return kMediaOk; }

  std::mutex& critical_section() { return critical_section_; }

 private:
  ~SourceReaderListener() override = default;

  std::atomic<uint32_t> ref_count_{1};
  std::mutex critical_section_;
  SampleCallback callback_;
};

SourceReader::SourceReader(const std::u16string& path)
    : SourceReader(MediaSource::Create(), path, kDefaultReadWait) {}

SourceReader::SourceReader(std::unique_ptr<MediaSource> source, const std::u16string& path,
                           std::chrono::milliseconds read_wait)
    : reader_(std::move(source)), state_(std::make_shared<State>()), read_wait_(read_wait) {
  // The SampleCallback runs on the reader thread under the listener's lock.
  // It is bound to the shared state, not to this reader, so that an answer
  // arriving after the reader is gone touches nothing freed.
  std::shared_ptr<State> state = state_;
  listener_ = new SourceReaderListener(
      [state](int32_t status, uint32_t /*stream_index*/, uint32_t flags, int64_t /*timestamp*/,
              std::shared_ptr<MediaSample> sample) -> int32_t {
        if (status >= 0 && sample != nullptr) state->last_sample = std::move(sample);
        if (flags & kStreamFlagEndOfStream) state->end_of_stream = true;
        state->last_status = status;
        if (state->sample_event) state->sample_event->Set();
        return kMediaOk;
      });
  try {
    Construct(path);
  } catch (...) {
    reader_.reset();
    listener_->Release();
    throw;
  }
}

void SourceReader::Construct(const std::u16string& path) {
  int32_t hr = reader_ != nullptr ? reader_->CreateAttributes() : kMediaFail;
  if (hr < 0) ThrowOnError("Failed to create attributes", hr);
  hr = reader_->EnableVideoProcessing();
  if (hr < 0) ThrowOnError("Failed to enable video processing", hr);
  hr = reader_->SetAsyncCallback(listener_);
  if (hr < 0) ThrowOnError("Failed to set async callback", hr);
  hr = reader_->CreateSourceReader(path);
  if (hr < 0) ThrowOnError("Failed to create source reader", hr);
  // Decided on the compressed type, before the output type is set.
  is_hdr_ = IsHdrVideo();
  SelectFirstVideoStream();
}

SourceReader::~SourceReader() {
  {
    std::lock_guard<std::mutex> lock(listener_->critical_section());
    state_->last_sample.reset();
    state_->sample_event.reset();
  }
  listener_->Release();
  if (stuck_) {
    // Its request is still outstanding: releasing it could block on, or
    // free under, the reader thread. Park it until the process ends.
    std::lock_guard<std::mutex> lock(AbandonedMutex());
    AbandonedReaders().push_back(std::move(reader_));
  }
  reader_.reset();
}

bool SourceReader::IsHdrVideo() {
  NativeVideoType type;
  int32_t hr = reader_->GetCurrentMediaType(&type);
  if (hr < 0) ThrowOnError("Failed to get current media type", hr);
  bool is_video = false;
  hr = reader_->GetMajorType(&is_video);
  if (hr < 0) ThrowOnError("Failed to get major type", hr);
  if (!is_video || type.codec != VideoCodec::kHevc) return false;
  const uint32_t primaries = type.has_primaries ? type.primaries : 0;
  const uint32_t matrix = type.has_matrix ? type.matrix : 0;
  return primaries == kPrimariesBt2020 &&
         (matrix == kMatrixBt2020Ten || matrix == kMatrixBt2020Twelve);
}

void SourceReader::SelectFirstVideoStream() {
  int32_t hr = reader_->CreateMediaType();
  if (hr < 0) ThrowOnError("Failed to create media type", hr);
  hr = reader_->SetMajorTypeVideo();
  if (hr < 0) ThrowOnError("Failed to set major type to video", hr);
  hr = reader_->SetSubtypeRgb32();
  if (hr < 0) ThrowOnError("Failed to set subtype to RGB32", hr);
  hr = reader_->SetCurrentMediaType();
  if (hr < 0) ThrowOnError("Failed to set current media type to first video", hr);
  hr = reader_->SelectFirstVideoStream();
  if (hr < 0) ThrowOnError("Failed to set stream selection to first video", hr);
}

bool SourceReader::IsSeekable() {
  if (reader_->GetPresentationAttribute() < 0) {
    LOG_INFO(kComponent, "Failed to get presentation attribute, treeating as non-seekable");
    return false;
  }
  uint32_t characteristics = 0;
  if (reader_->ConvertPresentationAttribute(&characteristics) < 0) {
    LOG_INFO(kComponent, "Failed to convert presentation attribute to uint32, treating as non-seekable");
    return false;
  }
  // A source that seeks slowly is read forward from its start instead.
  return (characteristics & (kCharacteristicCanSeek | kCharacteristicHasSlowSeek)) ==
         kCharacteristicCanSeek;
}

std::shared_ptr<MediaSample> SourceReader::ReadSample() {
  std::shared_ptr<AutoResetEvent> event = std::make_shared<AutoResetEvent>();
  {
    std::lock_guard<std::mutex> lock(listener_->critical_section());
    state_->sample_event = event;
  }
  const int32_t hr = reader_->ReadSample();
  if (hr < 0) ThrowOnError("Failed to read sample asynchronously", hr);

  int32_t status = kMediaPending;
  for (int wait = 0; wait < kReadWaits && status == kMediaPending; ++wait) {
    if (event->WaitFor(read_wait_)) {
      std::lock_guard<std::mutex> lock(listener_->critical_section());
      status = state_->last_status;
    }
  }
  if (status == kMediaPending) {
    stuck_ = true;
    LOG_ERROR(kComponent, "ReadSample stuck for more than 10 seconds");  // tests the level itself
    ThrowOnError("Failed to get sample from listener [timeout]", 0);
  }
  if (status < 0) ThrowOnError("Failed to get sample from listener", status);
  std::lock_guard<std::mutex> lock(listener_->critical_section());
  return state_->last_sample;
}

std::shared_ptr<MediaSample> SourceReader::GetDesiredFrame(int32_t seek_seconds) {
  if (IsSeekable() && seek_seconds > 0) {
    const int32_t hr = reader_->SetCurrentPosition(int64_t{seek_seconds} * kHnsPerSecond);
    if (hr < 0) LOG_ERROR(kComponent, "Failed to seek to desired frame, ignore seek_time: %d", hr);
  }
  // A 32-bit product on purpose: seek times above 214 s wrap around.
  const int64_t target = static_cast<int32_t>(static_cast<uint32_t>(seek_seconds) *
                                              static_cast<uint32_t>(kHnsPerSecond));
  int skipped = 0;
  int empty_reads = 0;
  std::shared_ptr<MediaSample> kept;
  for (;;) {
    std::shared_ptr<MediaSample> sample = ReadSample();
    bool end_of_stream;
    {
      std::lock_guard<std::mutex> lock(listener_->critical_section());
      end_of_stream = state_->end_of_stream;
    }
    if (end_of_stream) return kept;
    if (sample == nullptr) {
      if (++empty_reads >= kMaxEmptyReads) return kept;
      continue;
    }
    kept = std::move(sample);
    int64_t time = 0;
    const int32_t hr = kept->GetSampleTime(&time);
    if (hr < 0) {
      LOG_ERROR(kComponent, "Failed to seek to desired frame, use this sample anyway: %d", hr);
      return kept;
    }
    if (time >= target) return kept;
    if (skipped >= kMaxSkipFrames) {
      LOG_INFO(kComponent, "reach kMaxSkipFrames, return current frame");
      return kept;
    }
    ++skipped;
  }
}

void SourceReader::ExportFrame(const std::u16string& output_path, int32_t seek_seconds) {
  if (is_hdr_) ThrowOnError("HDR video is not supported", 0);

  VideoFrameInfo info;
  int32_t hr = reader_->GetFrameSize(&info.width, &info.height);
  if (hr < 0) ThrowOnError("Failed to get frame size", hr);
  if (reader_->GetRotation(&info.rotation) < 0) {
    info.rotation = 0;
    LOG_INFO(kComponent, "Failed to get video rotation, setting to 0");
  }

  std::shared_ptr<MediaSample> sample = GetDesiredFrame(seek_seconds);
  if (sample == nullptr) ThrowOnError("Failed to get desired frame", 0);

  // Only the frame taken is converted and read.
  hr = sample->ConvertToContiguousBuffer();
  if (hr < 0) ThrowOnError("Failed to convert frame to contiguous buffer", hr);
  if (info.width == 0 || info.height == 0 || sample->width() != static_cast<int>(info.width) ||
      sample->height() != static_cast<int>(info.height)) {
    ThrowOnError("Failed to lock media buffer", kMediaFail);
  }
  image::Bitmap bitmap;
  const Status status =
      image::Bitmap::Create(static_cast<int>(info.width), static_cast<int>(info.height), &bitmap);
  if (!status.ok()) ThrowOnError("Failed to create GDI+ bitmap", static_cast<int32_t>(status.code()));
  hr = sample->LockBuffer(bitmap.data(), bitmap.stride());
  if (hr < 0) ThrowOnError("Failed to lock media buffer", hr);
  // The fourth byte of each pixel is undefined in BGRX: make it opaque.
  for (size_t i = 3; i < bitmap.byte_size(); i += 4) bitmap.data()[i] = 0xFF;

  WriteFrameAsJpeg(output_path, bitmap, info);
}

size_t AbandonedReaderCount() {
  std::lock_guard<std::mutex> lock(AbandonedMutex());
  return AbandonedReaders().size();
}

}  // namespace thumbnail
}  // namespace tessera
