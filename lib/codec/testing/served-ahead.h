// Checks the reductions a decoder makes ahead of their request against fresh
// decodes. Test-only.
#ifndef TESSERA_LIB_CODEC_TESTING_SERVED_AHEAD_H_
#define TESSERA_LIB_CODEC_TESTING_SERVED_AHEAD_H_

#include <cstdint>
#include <cstring>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "gtest/gtest.h"
#include "lib/codec/byte-source.h"
#include "lib/codec/image-decoder.h"

namespace tessera {
namespace codec {
namespace testing {

using DecoderFactory = std::function<std::unique_ptr<ImageDecoder>()>;

inline void ExpectSameBitmap(const image::Bitmap& expected, const image::Bitmap& actual) {
  ASSERT_EQ(actual.width(), expected.width());
  ASSERT_EQ(actual.height(), expected.height());
  EXPECT_EQ(0, std::memcmp(actual.data(), expected.data(), expected.byte_size()));
}

// Decodes `bytes` for cx_values[0] with a decoder that anticipates all of
// cx_values under a new content key, then asks new decoders with that key
// for each other size with an empty source, which only a kept result can
// serve. Every result, the first one's included, must be byte for byte what
// a fresh decoder makes of the whole file: one without a key, or with
// `fresh_knows_the_run` one told the same requests under a key of its own
// (for decoders whose choice of scale depends on them). A size whose fresh
// decode fails must not be served. Returns the sizes served from kept
// results.
inline std::vector<uint32_t> ServedAhead(const DecoderFactory& create, const std::string& bytes,
                                         const std::vector<uint32_t>& cx_values, bool fresh_knows_the_run = false) {
  static int runs = 0;
  const std::string key = "served-ahead-" + std::to_string(++runs);
  auto source = [&bytes] {
    return ByteSource::FromMemory(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size());
  };
  // Before anything is kept under `key`.
  std::vector<image::Bitmap> fresh(cx_values.size());
  std::vector<bool> fresh_ok(cx_values.size());
  for (size_t i = 0; i < cx_values.size(); ++i) {
    std::unique_ptr<ImageDecoder> decoder = create();
    if (fresh_knows_the_run) {
      decoder->SetContentKey(key + "-fresh-" + std::to_string(i));
      decoder->SetAnticipatedRequests(cx_values);
    }
    fresh_ok[i] = decoder->Decode(source().get(), cx_values[i], &fresh[i]).ok();
  }
  auto keyed = [&] {
    std::unique_ptr<ImageDecoder> decoder = create();
    decoder->SetContentKey(key);
    decoder->SetAnticipatedRequests(cx_values);
    return decoder;
  };

  image::Bitmap first;
  EXPECT_EQ(keyed()->Decode(source().get(), cx_values[0], &first).ok(), fresh_ok[0]);
  if (fresh_ok[0]) ExpectSameBitmap(fresh[0], first);

  std::vector<uint32_t> served;
  const std::unique_ptr<ByteSource> empty = ByteSource::FromMemory(nullptr, 0);
  for (size_t i = 1; i < cx_values.size(); ++i) {
    SCOPED_TRACE("cx " + std::to_string(cx_values[i]));
    image::Bitmap bitmap;
    if (!keyed()->Decode(empty.get(), cx_values[i], &bitmap).ok()) continue;
    served.push_back(cx_values[i]);
    EXPECT_TRUE(fresh_ok[i]);
    if (fresh_ok[i]) ExpectSameBitmap(fresh[i], bitmap);
    // Handed out once.
    EXPECT_FALSE(keyed()->Decode(empty.get(), cx_values[i], &bitmap).ok());
  }
  return served;
}

}  // namespace testing
}  // namespace codec
}  // namespace tessera

#endif  // TESSERA_LIB_CODEC_TESTING_SERVED_AHEAD_H_
