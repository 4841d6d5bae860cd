// The POSIX provider on a 24-megapixel camera-like JPEG (6000 x 4000,
// quality 90, 4:2:0), at the cx values the tool asks for (3 x 120, 3 x 240,
// 3 x 320, 3 x 1280). The file is made once per run in the temporary
// directory and removed at exit.
#include <stdlib.h>
#include <unistd.h>

#include <cmath>
#include <fstream>
#include <string>

#include "benchmark/benchmark.h"
#include "lib/codec/testing/image-fixtures.h"
#include "lib/thumbnail/thumbnail-provider.h"

namespace {

class CameraJpeg {
 public:
  CameraJpeg() {
    const char* base = getenv("TMPDIR");
    path_ = std::string(base && *base ? base : "/tmp") + "/provider-bench-" +
            std::to_string(getpid()) + ".jpg";
    // Smooth shading with fine texture, so the entropy coder has real work.
    tessera::codec::testing::RgbImage image(6000, 4000);
    uint32_t seed = 12345;
    for (int y = 0; y < image.height; ++y) {
      for (int x = 0; x < image.width; ++x) {
        seed = seed * 1664525u + 1013904223u;
        const int noise = static_cast<int>(seed >> 28) - 8;
        uint8_t* p = &image.rgb[(static_cast<size_t>(y) * image.width + x) * 3];
        const double wave = 40 * std::sin(x * 0.01) * std::cos(y * 0.013);
        p[0] = static_cast<uint8_t>(std::fmin(255, std::fmax(0, 120 + wave + noise + x / 100)));
        p[1] = static_cast<uint8_t>(std::fmin(255, std::fmax(0, 110 - wave + noise + y / 80)));
        p[2] = static_cast<uint8_t>(std::fmin(255, std::fmax(0, 90 + wave / 2 + noise)));
      }
    }
    tessera::codec::testing::JpegOptions options;
    options.quality = 90;
    options.full_chroma = false;
    std::ofstream(path_, std::ios::binary) << tessera::codec::testing::EncodeJpeg(image, options);
  }
  ~CameraJpeg() { unlink(path_.c_str()); }
  const std::string& path() const { return path_; }

 private:
  std::string path_;
};

const CameraJpeg& Fixture() {
  static const CameraJpeg* fixture = new CameraJpeg();  // removed by the atexit below
  static const bool registered = (atexit([] { delete fixture; }), true);
  (void)registered;
  return *fixture;
}

void BM_ProviderJpeg24Mp(benchmark::State& state) {
  const std::string& path = Fixture().path();
  const std::u16string wide(path.begin(), path.end());
  const uint32_t cx = static_cast<uint32_t>(state.range(0));
  for (auto _ : state) {
    auto provider = tessera::thumbnail::CreatePlatformThumbnailProvider();
    tessera::image::Bitmap bitmap;
    if (provider->CreateItem(wide) != 0 || provider->BindToHandler() != 0 ||
        provider->GetThumbnail(cx, &bitmap) != 0) {
      state.SkipWithError("provider failed");
      break;
    }
    benchmark::DoNotOptimize(bitmap.data());
  }
}
BENCHMARK(BM_ProviderJpeg24Mp)->Arg(360)->Arg(720)->Arg(960)->Arg(3840)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
