#include "lib/thumbnail/thumbnail-extraction.h"

#include <cerrno>
#include <stdexcept>
#include <utility>

#include "lib/image/area-resample.h"
#include "lib/image/bitmap.h"
#include "lib/image/image-encoder.h"
#include "lib/log/log.h"
#include "lib/thumbnail/thumbnail-job.h"
#include "lib/utility/com-init.h"
#include "lib/utility/text-conversion.h"

namespace tessera {
namespace thumbnail {
namespace {

constexpr char kComponent[] = "thumbnail_debug";

// Bounds-checked element access with the message that callers of the
// extraction rely on (std::vector::at words it differently).
uint32_t SizeAt(const std::vector<uint32_t>& sizes, size_t i) {
  if (i >= sizes.size()) throw std::out_of_range("invalid vector subscript");
  return sizes[i];
}

std::mutex& FactoryMutex() {
  static std::mutex mutex;
  return mutex;
}

ThumbnailProviderFactory& CurrentFactory() {
  static ThumbnailProviderFactory factory;
  return factory;
}

// The errno-style number that stands for a failed Status in the messages
// that carry the platform's last error.
int ErrorNumber(const Status& status) {
  switch (status.code()) {
    case Status::Code::kOk:
      return 0;
    case Status::Code::kInvalidArgument:
      return EINVAL;
    case Status::Code::kNotFound:
      return ENOENT;
    case Status::Code::kIoError:
      return EIO;
    case Status::Code::kTimeout:
      return ETIMEDOUT;
    default:
      return ENOMEM;
  }
}

// Writes through the file the output was created with, never by opening its
// path again: a name replaced by a link during the decode leads nowhere.
Status SaveOutput(const image::Bitmap& bitmap, const utility::TempFile* output, bool as_png) {
  std::lock_guard<std::timed_mutex> lock(OutputWriteMutex());
  // A job whose caller stopped waiting (its cancellation has no deadline
  // of its own: it is cancelled exactly then) writes nothing more: a later
  // attempt may have completed this very file, and the report may name it
  // already. Asked under the lock, which every later save of the file also
  // takes.
  const std::shared_ptr<const utility::Cancellation> cancellation = CurrentJobCancellation();
  if (cancellation && cancellation->IsCancelled()) return Status::Timeout("the job was abandoned");
  if (output == nullptr) return Status::InvalidArgument("no output file");
  const file::OpenFile& file = output->GetFile();
  return as_png ? image::SavePng(bitmap, file, output->GetPath())
                : image::SaveJpeg(bitmap, file, output->GetPath());
}

}  // namespace

CleanupList::~CleanupList() {
  for (auto it = actions_.rbegin(); it != actions_.rend(); ++it) (*it)();
}

ThumbnailProviderFactory SetThumbnailProviderFactory(ThumbnailProviderFactory factory) {
  std::lock_guard<std::mutex> lock(FactoryMutex());
  std::swap(CurrentFactory(), factory);
  return factory;
}

std::timed_mutex& OutputWriteMutex() {
  static std::timed_mutex mutex;
  return mutex;
}

bool ExtractShellThumbnails(const std::u16string& path, std::vector<uint32_t> sizes, bool as_png,
                            std::vector<std::shared_ptr<utility::TempFile>> outputs) {
  ThumbnailProviderFactory factory;
  {
    std::lock_guard<std::mutex> lock(FactoryMutex());
    factory = CurrentFactory();
  }
  if (!factory) factory = CreatePlatformThumbnailProvider;
  return ExtractShellThumbnails(factory, path, std::move(sizes), as_png, std::move(outputs));
}

bool ExtractShellThumbnails(const ThumbnailProviderFactory& factory, const std::u16string& path,
                            std::vector<uint32_t> sizes, bool as_png,
                            std::vector<std::shared_ptr<utility::TempFile>> outputs) {
  // Declared before the clean-up list, so that its actions may refer to them.
  image::Bitmap source;  // the provider's bitmap, then each written target
  std::unique_ptr<ThumbnailProvider> provider;
  CleanupList cleanup;
  const std::string utf8_path = utility::UTF16ToUTF8(path);

  // The provider's bitmap goes last of all, whether or not one was obtained.
  cleanup.Add([&source] { source = image::Bitmap(); });

  const int32_t com = utility::ComInitialize(utility::kCoinitApartmentThreaded | utility::kCoinitDisableOle1Dde);
  if (com < 0) {
    LOG_ERROR_AT(66, kComponent, "Failed to init COINIT_APARTMENTTHREADED | COINIT_DISABLE_OLE1DDE, '%d'",
                 com);
    return false;
  }
  cleanup.Add([] { utility::ComUninitialize(); });

  // The provider object holds the item and, once bound, the handler:
  // releasing it releases both.
  provider = factory ? factory() : nullptr;
  const int32_t item = provider ? provider->CreateItem(path) : kProviderNoHandler;
  if (item < 0) {
    LOG_ERROR_AT(75, kComponent, "Failed to SHCreateItemFromParsingName '%s' '%d'", utf8_path.c_str(),
                 item);
    return false;
  }
  cleanup.Add([&provider] { provider.reset(); });

  const int32_t bound = provider->BindToHandler();
  if (bound < 0) {
    LOG_ERROR_AT(84, kComponent, "Failed to BindToHandler BHID_ThumbnailHandler '%d'", bound);
    return false;
  }

  const uint32_t cx = ProviderRequestEdge(SizeAt(sizes, 0));
  const int32_t got = provider->GetThumbnail(cx, &source);
  if (got < 0) {
    LOG_ERROR_AT(95, kComponent, "Failed to GetThumbnail '%s' '%d', 3 * size = '%d'", utf8_path.c_str(),
                 got, static_cast<int32_t>(cx));
    return false;
  }

  for (size_t i = 0; i < outputs.size(); ++i) {
    const uint32_t size = SizeAt(sizes, i);
    int target_width = 0;
    int target_height = 0;
    // One cascade step: the shorter side becomes `size`.
    image::ShorterSideTo(source.width(), source.height(), size, &target_width, &target_height);

    image::Bitmap target;
    Status status = image::Bitmap::Create(target_width, target_height, &target);
    if (!status.ok()) {
      LOG_ERROR_AT(121, kComponent, "Create CImage for '%s' failed ec: %d", utf8_path.c_str(),
                   ErrorNumber(status));
      return false;
    }

    // The area-average reduction is the halftone stretch; its mode and brush
    // origin are fixed, so there is nothing to set and nothing that can fail.
    // A picture already at the target size (one never enlarged) is taken
    // as it is rather than copied.
    if (target_width == source.width() && target_height == source.height()) {
      target = std::move(source);
    } else {
      status = image::AreaResample(source, target_width, target_height, &target);
    }
    if (!status.ok()) {
      LOG_ERROR_AT(144, kComponent, "StretchBlt for '%s' failed, ec: %d", utf8_path.c_str(),
                   ErrorNumber(status));
      return false;
    }
    // The source is done with: let it go before the encoder adds its own
    // buffers, so the largest bitmap of a run never meets them in memory.
    source = image::Bitmap();

    status = SaveOutput(target, outputs[i].get(), as_png);
    if (!status.ok()) {
      LOG_ERROR_AT(152, kComponent, "Failed to save thumbnail as %s '%s', hr = %u", as_png ? "png" : "jpg",
                   utf8_path.c_str(), static_cast<uint32_t>(-ErrorNumber(status)));
      return false;
    }

    // Cascade: the next size is reduced from the image just written.
    source = std::move(target);
  }
  return true;
}

}  // namespace thumbnail
}  // namespace tessera
