// A scripted MediaSource for tests: frames with given times, optional
// rotation, characteristics and native type, and a switch that makes reads
// never answer. Answers arrive on a thread of their own, as on a platform.
#ifndef TESSERA_LIB_VIDEO_TESTING_FAKE_MEDIA_SOURCE_H_
#define TESSERA_LIB_VIDEO_TESTING_FAKE_MEDIA_SOURCE_H_

#include <atomic>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include "lib/video/media-source.h"

namespace tessera {
namespace thumbnail {

struct FakeMediaScript {
  NativeVideoType native{true, VideoCodec::kH264, false, 0, false, 0};
  uint32_t width = 8;
  uint32_t height = 4;
  bool has_rotation = true;
  uint32_t rotation = 0;
  uint32_t characteristics = kCharacteristicCanSeek;
  std::vector<int64_t> frame_times_hns;  // one frame per entry, in order
  bool never_answer = false;             // reads are accepted but never answered
  int32_t open_status = kMediaOk;
};

// What the fake saw; shared so that tests can read it after the reader is gone.
struct FakeMediaLog {
  std::atomic<int> reads{0};
  std::atomic<int> seeks{0};
  std::atomic<int64_t> last_seek_hns{-1};
};

class FakeMediaSource : public MediaSource {
 public:
  FakeMediaSource(FakeMediaScript script, std::shared_ptr<FakeMediaLog> log)
      : script_(std::move(script)), log_(std::move(log)) {}
  ~FakeMediaSource() override {
    if (thread_.joinable()) thread_.join();
    if (callback_ != nullptr) callback_->Release();
  }

  int32_t Open(const std::u16string&, MediaSourceCallback* callback) override {
    if (script_.open_status < 0) return script_.open_status;
    callback_ = callback;
    callback_->AddRef();
    return kMediaOk;
  }
  int32_t GetNativeVideoType(NativeVideoType* out) override {
    *out = script_.native;
    return kMediaOk;
  }
  int32_t SetFirstVideoOutputBgrx() override { return kMediaOk; }
  int32_t SelectFirstVideoStream() override { return kMediaOk; }
  int32_t GetFrameSize(uint32_t* width, uint32_t* height) override {
    *width = script_.width;
    *height = script_.height;
    return kMediaOk;
  }
  int32_t GetRotation(uint32_t* degrees) override {
    if (!script_.has_rotation) return kMediaNotFound;
    *degrees = script_.rotation;
    return kMediaOk;
  }
  int32_t GetCharacteristics(uint32_t* characteristics) override {
    *characteristics = script_.characteristics;
    return kMediaOk;
  }
  int32_t SetCurrentPosition(int64_t position_hns) override {
    ++log_->seeks;
    log_->last_seek_hns = position_hns;
    // Like a real source: continue at the last frame at or before the position.
    next_ = 0;
    for (size_t i = 0; i < script_.frame_times_hns.size(); ++i) {
      if (script_.frame_times_hns[i] <= position_hns) next_ = i;
    }
    return kMediaOk;
  }
  int32_t ReadSample() override {
    ++log_->reads;
    if (script_.never_answer) return kMediaOk;
    if (thread_.joinable()) thread_.join();
    std::shared_ptr<MediaSample> sample;
    uint32_t flags = 0;
    int64_t time = 0;
    if (next_ < script_.frame_times_hns.size()) {
      time = script_.frame_times_hns[next_++];
      // Each frame is filled with its index, so tests can tell which one came.
      std::vector<uint8_t> bytes(size_t{script_.width} * script_.height * 4,
                                 static_cast<uint8_t>(next_ * 10));
      sample = std::make_shared<MediaSample>(time, script_.width, script_.height, std::move(bytes));
    } else {
      flags = kStreamFlagEndOfStream;
    }
    MediaSourceCallback* callback = callback_;
    thread_ = std::thread([callback, flags, time, sample] {
      callback->OnReadSample(kMediaOk, 0, flags, time, sample);
    });
    return kMediaOk;
  }

 private:
  FakeMediaScript script_;
  std::shared_ptr<FakeMediaLog> log_;
  MediaSourceCallback* callback_ = nullptr;
  size_t next_ = 0;
  std::thread thread_;
};

}  // namespace thumbnail
}  // namespace tessera

#endif  // TESSERA_LIB_VIDEO_TESTING_FAKE_MEDIA_SOURCE_H_
