// A scripted MediaSource for tests: frames with given times, optional
// rotation, characteristics and native type, a step made to fail, and a
// switch that makes reads never answer. Answers arrive on a thread of their
// own, as on a platform.
#ifndef TESSERA_LIB_VIDEO_TESTING_FAKE_MEDIA_SOURCE_H_
#define TESSERA_LIB_VIDEO_TESTING_FAKE_MEDIA_SOURCE_H_

#include <atomic>
#include <cstring>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "lib/video/media-source.h"

namespace tessera {
namespace thumbnail {

struct FakeMediaScript {
  bool is_video = true;
  NativeVideoType native{VideoCodec::kH264, false, 0, false, 0};
  uint32_t width = 8;
  uint32_t height = 4;
  bool has_rotation = true;
  uint32_t rotation = 0;
  uint32_t characteristics = kCharacteristicCanSeek;
  std::vector<int64_t> frame_times_hns;  // one frame per entry, in order
  bool never_answer = false;             // reads are accepted but never answered
  // The step (named as its method, samples' steps included) that fails
  // with kMediaFail; empty for none.
  std::string failing_step;
};

// What the fake saw; shared so that tests can read it after the reader is gone.
struct FakeMediaLog {
  std::atomic<int> reads{0};
  std::atomic<int> seeks{0};
  std::atomic<int64_t> last_seek_hns{-1};
  std::atomic<int> conversions{0};  // frames made contiguous
};

// Frame n (1-based) is filled with the grey value 10 * n.
class FakeMediaSample : public MediaSample {
 public:
  FakeMediaSample(int64_t time, int width, int height, uint8_t value, const FakeMediaScript& script,
                  std::shared_ptr<FakeMediaLog> log)
      : MediaSample(time, width, height), value_(value), failing_step_(script.failing_step), log_(std::move(log)) {}
  int32_t ConvertToContiguousBuffer() override {
    ++log_->conversions;
    return failing_step_ == "ConvertToContiguousBuffer" ? kMediaFail : kMediaOk;
  }
  int32_t LockBuffer(uint8_t* bgrx, size_t stride) override {
    if (failing_step_ == "LockBuffer") return kMediaFail;
    for (int y = 0; y < height(); ++y) std::memset(bgrx + stride * y, value_, size_t(width()) * 4);
    return kMediaOk;
  }

 private:
  uint8_t value_;
  std::string failing_step_;
  std::shared_ptr<FakeMediaLog> log_;
};

class FakeMediaSource : public MediaSource {
 public:
  FakeMediaSource(FakeMediaScript script, std::shared_ptr<FakeMediaLog> log)
      : script_(std::move(script)), log_(std::move(log)) {}
  ~FakeMediaSource() override {
    if (thread_.joinable()) thread_.join();
    if (callback_ != nullptr) callback_->Release();
  }

  int32_t CreateAttributes() override { return Step("CreateAttributes"); }
  int32_t EnableVideoProcessing() override { return Step("EnableVideoProcessing"); }
  int32_t SetAsyncCallback(MediaSourceCallback* callback) override {
    if (Step("SetAsyncCallback") < 0) return kMediaFail;
    callback_ = callback;
    callback_->AddRef();
    return kMediaOk;
  }
  int32_t CreateSourceReader(const std::u16string&) override { return Step("CreateSourceReader"); }
  int32_t GetCurrentMediaType(NativeVideoType* out) override {
    *out = script_.native;
    return Step("GetCurrentMediaType");
  }
  int32_t GetMajorType(bool* is_video) override {
    *is_video = script_.is_video;
    return Step("GetMajorType");
  }
  int32_t CreateMediaType() override { return Step("CreateMediaType"); }
  int32_t SetMajorTypeVideo() override { return Step("SetMajorTypeVideo"); }
  int32_t SetSubtypeRgb32() override { return Step("SetSubtypeRgb32"); }
  int32_t SetCurrentMediaType() override { return Step("SetCurrentMediaType"); }
  int32_t SelectFirstVideoStream() override { return Step("SelectFirstVideoStream"); }
  int32_t GetFrameSize(uint32_t* width, uint32_t* height) override {
    *width = script_.width;
    *height = script_.height;
    return Step("GetFrameSize");
  }
  int32_t GetRotation(uint32_t* degrees) override {
    if (!script_.has_rotation) return kMediaNotFound;
    *degrees = script_.rotation;
    return kMediaOk;
  }
  int32_t GetPresentationAttribute() override { return Step("GetPresentationAttribute"); }
  int32_t ConvertPresentationAttribute(uint32_t* characteristics) override {
    *characteristics = script_.characteristics;
    return Step("ConvertPresentationAttribute");
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
      sample = std::make_shared<FakeMediaSample>(time, script_.width, script_.height, static_cast<uint8_t>(next_ * 10),
                                                 script_, log_);
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
  int32_t Step(const char* name) const { return script_.failing_step == name ? kMediaFail : kMediaOk; }

  FakeMediaScript script_;
  std::shared_ptr<FakeMediaLog> log_;
  MediaSourceCallback* callback_ = nullptr;
  size_t next_ = 0;
  std::thread thread_;
};

}  // namespace thumbnail
}  // namespace tessera

#endif  // TESSERA_LIB_VIDEO_TESTING_FAKE_MEDIA_SOURCE_H_
