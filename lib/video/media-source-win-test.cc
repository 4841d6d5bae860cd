// Media Foundation behind MediaSource, on a small H.264 clip (96x64, 2 s at
// 10 frames/s, white above and black below).
#include <windows.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>

#include "lib/utility/com-init.h"
#include "lib/utility/text-conversion.h"
#include "lib/video/media-source.h"

namespace tessera {
namespace thumbnail {
namespace {

// A Unix source folder (cross build run under Wine) is Wine's Z: drive.
std::string DataPath(const std::string& name) {
  std::string path = std::string(TESSERA_VIDEO_TEST_DATA) + "/" + name;
  return path[0] == '/' ? "Z:" + path : path;
}

// Wine's media source hands out streams already decoded, so their codec
// cannot be told there.
bool RunningUnderWine() {
  HMODULE ntdll = GetModuleHandleW(L"ntdll.dll");
  return ntdll != nullptr && GetProcAddress(ntdll, "wine_get_version") != nullptr;
}

// Collects the answers of the source; waits for one at a time.
class Answers : public MediaSourceCallback {
 public:
  uint32_t AddRef() override { return ++references_; }
  uint32_t Release() override { return --references_; }  // lives on the test's stack
  int32_t OnReadSample(int32_t status, uint32_t, uint32_t flags, int64_t,
                       std::shared_ptr<MediaSample> sample) override {
    std::lock_guard<std::mutex> lock(mutex_);
    status_ = status;
    flags_ = flags;
    sample_ = std::move(sample);
    answered_ = true;
    condition_.notify_all();
    return 0;
  }
  int32_t OnFlush(uint32_t) override { return 0; }
  int32_t OnEvent(uint32_t) override { return 0; }

  bool Wait(int32_t* status, uint32_t* flags, std::shared_ptr<MediaSample>* sample) {
    std::unique_lock<std::mutex> lock(mutex_);
    if (!condition_.wait_for(lock, std::chrono::seconds(10), [this] { return answered_; })) return false;
    answered_ = false;
    *status = status_;
    *flags = flags_;
    *sample = sample_;
    return true;
  }
  uint32_t references() const { return references_; }

 private:
  std::atomic<uint32_t> references_{1};
  std::mutex mutex_;
  std::condition_variable condition_;
  bool answered_ = false;
  int32_t status_ = 0;
  uint32_t flags_ = 0;
  std::shared_ptr<MediaSample> sample_;
};

class MediaSourceWinTest : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_GE(utility::ComInitialize(utility::kCoinitApartmentThreaded), 0); }
  void TearDown() override { utility::ComUninitialize(); }
};

TEST_F(MediaSourceWinTest, DeliversUprightBgrxFramesAfterASeek) {
  Answers answers;
  {
    std::unique_ptr<MediaSource> source = MediaSource::Create();
    ASSERT_GE(source->Open(utility::UTF8ToUTF16(DataPath("clip-96x64.mp4")), &answers), 0);
    NativeVideoType native;
    ASSERT_GE(source->GetNativeVideoType(&native), 0);
    EXPECT_TRUE(native.is_video);
    if (!RunningUnderWine()) {
      EXPECT_EQ(native.codec, VideoCodec::kH264);
    }
    ASSERT_GE(source->SetFirstVideoOutputBgrx(), 0);
    ASSERT_GE(source->SelectFirstVideoStream(), 0);
    uint32_t width = 0;
    uint32_t height = 0;
    ASSERT_GE(source->GetFrameSize(&width, &height), 0);
    EXPECT_EQ(width, 96u);
    EXPECT_EQ(height, 64u);
    uint32_t characteristics = 0;
    ASSERT_GE(source->GetCharacteristics(&characteristics), 0);
    EXPECT_TRUE(characteristics & kCharacteristicCanSeek);

    ASSERT_GE(source->SetCurrentPosition(10000000), 0);
    std::shared_ptr<MediaSample> sample;
    int32_t status = -1;
    uint32_t flags = 0;
    for (int reads = 0; reads < 30 && !sample; ++reads) {
      ASSERT_GE(source->ReadSample(), 0);
      ASSERT_TRUE(answers.Wait(&status, &flags, &sample));
      ASSERT_GE(status, 0);
      ASSERT_EQ(flags & kStreamFlagEndOfStream, 0u);
    }
    ASSERT_TRUE(sample);
    ASSERT_EQ(sample->bytes().size(), 96u * 64u * 4u);
    int64_t time = 0;
    ASSERT_GE(sample->GetSampleTime(&time), 0);
    EXPECT_GE(time, 0);
    // The clip is white above and black below:
    // a frame delivered upside down would have them the other way round.
    auto luma = [&sample](int y) {
      int sum = 0;
      for (int x = 0; x < 96; ++x) sum += sample->bytes()[(y * 96 + x) * 4 + 1];
      return sum;
    };
    EXPECT_GT(luma(4), luma(60));
  }
  EXPECT_EQ(answers.references(), 1u);  // the source let go of its reference
}

}  // namespace
}  // namespace thumbnail
}  // namespace tessera
