// Providers tried one after the other for the same request: the first link
// that gets through all three steps makes the thumbnail. On Windows the
// Shell's handler is the first link and our own decoders the second, so that
// a file the Shell has no handler for, or whose handler fails, still gets
// its thumbnail in the same attempt (same time limit, same cancellation).
//
// The chain is itself a ThumbnailProvider. When a link fails a step, the
// next link is made and taken through every step up to the failed one; the
// chain answers with the code of the last link it asked, so when every link
// fails the caller sees the last failure, and logs it as it would any other.
// A link's failure is logged at INFO only.
//
// BoundedProvider keeps a link from holding the request up: it runs a
// provider on a thread of its own and gives up waiting once a bound has
// passed, so that a handler that never returns costs the bound, not the
// attempt.
#ifndef TESSERA_LIB_THUMBNAIL_PROVIDER_CHAIN_H_
#define TESSERA_LIB_THUMBNAIL_PROVIDER_CHAIN_H_

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "lib/image/bitmap.h"
#include "lib/thumbnail/thumbnail-provider.h"

namespace tessera {
namespace thumbnail {

// Returned by a BoundedProvider step that did not answer within its bound
// (HRESULT_FROM_WIN32(ERROR_TIMEOUT)).
constexpr int32_t kProviderTimedOut = static_cast<int32_t>(0x800705B4);

class ProviderChain : public ThumbnailProvider {
 public:
  // `links` in the order they are tried; each is called at most once per
  // CreateItem, and only once the links before it failed.
  explicit ProviderChain(std::vector<ThumbnailProviderFactory> links);

  int32_t CreateItem(const std::u16string& path) override;
  int32_t BindToHandler() override;
  int32_t GetThumbnail(uint32_t cx, image::Bitmap* out) override;

 private:
  // After the current link failed step `failed` (1, 2 or 3) with `code`:
  // moves on to the next links, taking each through steps 1 to `failed`,
  // until one gets through; returns the code of the last step asked.
  int32_t FallBack(int failed, int32_t code, uint32_t cx, image::Bitmap* out);

  std::vector<ThumbnailProviderFactory> links_;
  size_t current_ = 0;
  std::unique_ptr<ThumbnailProvider> provider_;
  std::u16string path_;
};

// Runs the provider `inner` makes, and every step of it, on a thread of its
// own, on which COM is initialised as the Shell needs it (a single-threaded
// apartment), and waits for each step only until `bound` after CreateItem,
// or the run's deadline or the cancellation of the job it serves, whichever
// comes first. A step that does not answer in time gives kProviderTimedOut;
// its thread is then left to finish (or end with the process), the process
// is told so (RecordAbandonedWork), and later requests for the same path in
// this process time out at once instead of waiting again.
//
// Destroying the provider releases the inner provider on its own thread.
class BoundedProvider : public ThumbnailProvider {
 public:
  BoundedProvider(ThumbnailProviderFactory inner, std::chrono::steady_clock::duration bound);
  ~BoundedProvider() override;
  BoundedProvider(const BoundedProvider&) = delete;
  BoundedProvider& operator=(const BoundedProvider&) = delete;

  int32_t CreateItem(const std::u16string& path) override;
  int32_t BindToHandler() override;
  int32_t GetThumbnail(uint32_t cx, image::Bitmap* out) override;

  struct Worker;

 private:
  int32_t Run(int step, uint32_t cx, image::Bitmap* out);

  ThumbnailProviderFactory inner_;
  const std::chrono::steady_clock::duration bound_;
  std::chrono::steady_clock::time_point deadline_;
  std::u16string path_;
  std::shared_ptr<Worker> worker_;
};

}  // namespace thumbnail
}  // namespace tessera

#endif  // TESSERA_LIB_THUMBNAIL_PROVIDER_CHAIN_H_
