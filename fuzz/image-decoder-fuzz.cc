// Fuzzes one format family of the provider's decoders on in-memory input.
// Built once per family with TESSERA_FUZZ_FORMAT naming an ImageFormat
// enumerator. The input is decoded by that family's decoder whatever its
// magic says (decoders must refuse foreign bytes cleanly), at a target edge
// that varies with the input, and the result is checked against the
// provider's contract: a non-empty bitmap whose longer side is at most cx,
// every byte of it readable. The families that serve a whole run from one
// decode decode each input once more the way the tool's first size does,
// anticipating the other edges, and every result kept for those must be
// what a decode of its own, told the same run, makes. Decoders work under a
// budget far below the tool's, so that no input is slow.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "lib/codec/byte-source.h"
#include "lib/codec/image-decoder.h"
#include "lib/image/bitmap.h"

#ifndef TESSERA_FUZZ_FORMAT
#error "TESSERA_FUZZ_FORMAT must name an ImageFormat enumerator"
#endif

namespace {

using tessera::image::Bitmap;
using tessera::codec::ByteSource;
using tessera::codec::ImageFormat;

// What one input may cost: pictures of up to a megapixel, 64 MiB of
// buffers. The tool's own limits let a few hundred bytes declare (and
// decode) a picture of a gigapixel, which is correct there but makes a
// fuzzing campaign crawl from one slow input to the next.
constexpr uint64_t kFuzzMaxPixels = uint64_t{1} << 20;
constexpr uint64_t kFuzzMaxBytes = uint64_t{64} << 20;

// The edges the tool asks for (three times 120, 240, 320 and 1280), plus a
// degenerate one.
constexpr uint32_t kEdges[] = {360, 720, 960, 3840, 1};

uint32_t EdgeFor(const uint8_t* data, size_t size) {
  uint32_t mix = static_cast<uint32_t>(size);
  if (size > 0) mix += data[size / 2];
  return kEdges[mix % (sizeof(kEdges) / sizeof(kEdges[0]))];
}

void CheckContract(const Bitmap& bitmap, uint32_t cx) {
  if (bitmap.empty() || bitmap.width() <= 0 || bitmap.height() <= 0) std::abort();
  const uint32_t longer = static_cast<uint32_t>(
      bitmap.width() > bitmap.height() ? bitmap.width() : bitmap.height());
  if (longer > cx) std::abort();
  // Touch every byte so that ASan sees a short buffer and MSan-like tools an
  // uninitialised one.
  volatile uint8_t sink = 0;
  const uint8_t* pixels = bitmap.data();
  for (size_t i = 0; i < bitmap.byte_size(); ++i) sink = sink ^ pixels[i];
  (void)sink;
}

constexpr ImageFormat kFormat = ImageFormat::TESSERA_FUZZ_FORMAT;
constexpr bool kKeepsOtherEdges = kFormat == ImageFormat::kJpeg || kFormat == ImageFormat::kPng ||
                                  kFormat == ImageFormat::kTiff || kFormat == ImageFormat::kGif ||
                                  kFormat == ImageFormat::kBmp || kFormat == ImageFormat::kHeif;
// What the provider tells decoders: results are reduced to a third of cx.
constexpr uint32_t kEdgeDivisor = 3;

std::unique_ptr<tessera::codec::ImageDecoder> RunDecoder(const std::string& key,
                                                         const std::vector<uint32_t>& edges) {
  std::unique_ptr<tessera::codec::ImageDecoder> decoder = tessera::codec::CreateImageDecoder(kFormat);
  decoder->SetContentKey(key);
  decoder->SetAnticipatedRequests(edges);
  decoder->SetCallerEdgeDivisor(kEdgeDivisor);
  return decoder;
}

void CheckKeptResults(const uint8_t* data, size_t size, uint32_t cx) {
  static int runs = 0;
  const std::string key = "fuzz-input-" + std::to_string(++runs);  // new bytes, new key
  const std::vector<uint32_t> edges(kEdges, kEdges + 4);
  std::unique_ptr<ByteSource> source = ByteSource::FromMemory(data, size);
  std::unique_ptr<ByteSource> empty = ByteSource::FromMemory(nullptr, 0);

  Bitmap bitmap;
  RunDecoder(key, edges)->Decode(source.get(), cx, &bitmap);
  // Only a kept result can serve an empty source. All are taken before
  // the fresh decodes, which, under keys of their own, drop what is kept.
  std::vector<std::pair<uint32_t, Bitmap>> kept;
  for (uint32_t edge : edges) {
    Bitmap result;
    if (edge != cx && RunDecoder(key, edges)->Decode(empty.get(), edge, &result).ok()) {
      kept.emplace_back(edge, std::move(result));
    }
  }
  for (const auto& entry : kept) {
    Bitmap fresh;
    const std::string fresh_key = key + "-fresh-" + std::to_string(entry.first);
    if (!RunDecoder(fresh_key, edges)->Decode(source.get(), entry.first, &fresh).ok()) std::abort();
    const Bitmap& result = entry.second;
    if (fresh.width() != result.width() || fresh.height() != result.height() ||
        std::memcmp(fresh.data(), result.data(), fresh.byte_size()) != 0) {
      std::abort();
    }
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const bool budget_set = (tessera::codec::SetDecodeBudget(kFuzzMaxPixels, kFuzzMaxBytes), true);
  (void)budget_set;
  std::unique_ptr<tessera::codec::ImageDecoder> decoder = tessera::codec::CreateImageDecoder(kFormat);
  if (decoder == nullptr) return 0;  // the family is not built into this configuration

  // The sniffer must never read past what it is given.
  (void)tessera::codec::SniffImageFormat(data, size < 16 ? size : 16);
  (void)tessera::codec::SniffImageFormat(data, size);

  const uint32_t cx = EdgeFor(data, size);
  std::unique_ptr<ByteSource> source = ByteSource::FromMemory(data, size);
  Bitmap bitmap;
  if (decoder->Decode(source.get(), cx, &bitmap).ok()) {
    CheckContract(bitmap, cx);
  } else if (!bitmap.empty()) {
    std::abort();  // output must be untouched on failure
  }
  if (kKeepsOtherEdges) CheckKeptResults(data, size, cx);
  return 0;
}
