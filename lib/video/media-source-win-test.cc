// Media Foundation behind MediaSource, on a small H.264 clip (96x64, 2 s at
// 10 frames/s, white above and black below).
#include <windows.h>
// Media Foundation declarations need the Windows types first.
#include <mfapi.h>
#include <mferror.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <condition_variable>
#include <cstring>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <vector>

#include "lib/utility/com-init.h"
#include "lib/utility/text-conversion.h"
#include "lib/video/media-buffer-win.h"
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
    ASSERT_GE(source->CreateAttributes(), 0);
    ASSERT_GE(source->EnableVideoProcessing(), 0);
    ASSERT_GE(source->SetAsyncCallback(&answers), 0);
    ASSERT_GE(source->CreateSourceReader(utility::UTF8ToUTF16(DataPath("clip-96x64.mp4"))), 0);
    NativeVideoType native;
    ASSERT_GE(source->GetCurrentMediaType(&native), 0);
    bool is_video = false;
    ASSERT_GE(source->GetMajorType(&is_video), 0);
    EXPECT_TRUE(is_video);
    if (!RunningUnderWine()) {
      EXPECT_EQ(native.codec, VideoCodec::kH264);
    }
    ASSERT_GE(source->CreateMediaType(), 0);
    ASSERT_GE(source->SetMajorTypeVideo(), 0);
    ASSERT_GE(source->SetSubtypeRgb32(), 0);
    ASSERT_GE(source->SetCurrentMediaType(), 0);
    ASSERT_GE(source->SelectFirstVideoStream(), 0);
    uint32_t width = 0;
    uint32_t height = 0;
    ASSERT_GE(source->GetFrameSize(&width, &height), 0);
    EXPECT_EQ(width, 96u);
    EXPECT_EQ(height, 64u);
    uint32_t characteristics = 0;
    ASSERT_GE(source->GetPresentationAttribute(), 0);
    ASSERT_GE(source->ConvertPresentationAttribute(&characteristics), 0);
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
    ASSERT_EQ(sample->width(), 96);
    ASSERT_EQ(sample->height(), 64);
    int64_t time = 0;
    ASSERT_GE(sample->GetSampleTime(&time), 0);
    EXPECT_GE(time, 0);
    ASSERT_GE(sample->ConvertToContiguousBuffer(), 0);
    std::vector<uint8_t> bytes(96u * 64u * 4u);
    ASSERT_GE(sample->LockBuffer(bytes.data(), 96 * 4), 0);
    // The clip is white above and black below:
    // a frame delivered upside down would have them the other way round.
    auto luma = [&bytes](int y) {
      int sum = 0;
      for (int x = 0; x < 96; ++x) sum += bytes[(y * 96 + x) * 4 + 1];
      return sum;
    };
    EXPECT_GT(luma(4), luma(60));
  }
  EXPECT_EQ(answers.references(), 1u);  // the source let go of its reference
}

// A frame delivered after a change of media type may be smaller than the
// size announced: its buffer is refused, not read past.
TEST_F(MediaSourceWinTest, BuffersShorterThanTheirRowsAreRefused) {
  ASSERT_GE(MFStartup(MF_VERSION, MFSTARTUP_FULL), 0);
  constexpr uint32_t kWidth = 16;
  constexpr uint32_t kHeight = 8;
  struct Case {
    const char* name;
    bool two_dimensional;
    uint32_t buffer_height;  // rows the buffer really holds
    HRESULT expected;
  };
  const Case cases[] = {
      {"plain, whole frame", false, kHeight, S_OK},
      {"plain, smaller frame", false, kHeight / 2, MF_E_BUFFERTOOSMALL},
      {"2D, whole frame", true, kHeight, S_OK},
      {"2D, smaller frame", true, kHeight / 2, MF_E_BUFFERTOOSMALL},
  };
  for (const Case& c : cases) {
    IMFMediaBuffer* buffer = nullptr;
    if (c.two_dimensional) {
      ASSERT_GE(MFCreate2DMediaBuffer(kWidth, c.buffer_height, 22 /* D3DFMT_X8R8G8B8 */, FALSE, &buffer), 0) << c.name;
    } else {
      ASSERT_GE(MFCreateMemoryBuffer(kWidth * c.buffer_height * 4, &buffer), 0) << c.name;
      buffer->SetCurrentLength(kWidth * c.buffer_height * 4);
    }
    BYTE* bytes = nullptr;
    DWORD length = 0;
    ASSERT_GE(buffer->Lock(&bytes, nullptr, &length), 0) << c.name;
    std::memset(bytes, 0x40, length);
    buffer->Unlock();
    std::vector<uint8_t> rows(kWidth * kHeight * 4, 0x11);
    EXPECT_EQ(CopyRgb32(buffer, kWidth, kHeight, 0, rows.data(), kWidth * 4), c.expected) << c.name;
    EXPECT_EQ(rows.back(), c.expected == S_OK ? 0x40 : 0x11) << c.name;  // nothing copied when refused
    buffer->Release();
  }
}

}  // namespace
}  // namespace thumbnail
}  // namespace tessera
