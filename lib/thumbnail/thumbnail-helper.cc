#include "lib/thumbnail/thumbnail-helper.h"

#include <algorithm>
#include <functional>
#include <memory>

#include "lib/file/file-op.h"
#include "lib/file/unreported-files.h"
#include "lib/log/log.h"
#include "lib/thumbnail/source-classification.h"
#include "lib/thumbnail/thumbnail-extraction.h"
#include "lib/thumbnail/thumbnail-job.h"
#include "lib/thumbnail/thumbnail-provider.h"
#include "lib/utility/com-init.h"
#include "lib/utility/temp-file.h"
#include "lib/utility/text-conversion.h"
#include "lib/video/source-reader.h"

namespace tessera {
namespace thumbnail {
namespace {

constexpr char kComponent[] = "thumbnail_debug";

// The seek time of the exported frame.
constexpr int32_t kFrameSeekSeconds = 1;

using OutputList = std::vector<std::shared_ptr<utility::TempFile>>;

// Job result (0 done, 1 timed out, -1 failed) to error; false for 0.
bool JobError(int32_t result, ThumbnailError* error) {
  switch (result) {
    case 1:
      *error = kTimeout;
      return true;
    case -1:
      *error = kFailed;
      return true;
    default:
      return false;
  }
}

}  // namespace

int32_t ExportVideoFrame(const std::string& src, const std::string& frame_path) {
  CleanupList cleanup;
  const int32_t com = utility::ComInitialize(utility::kCoinitApartmentThreaded);
  if (com < 0) {
    LOG_ERROR(kComponent, "Failed to CoInitializeEx: %d", com);
    return com;
  }
  cleanup.Add([] { utility::ComUninitialize(); });

  const std::u16string wide_src = utility::UTF8ToUTF16(src);
  const std::u16string wide_frame = utility::UTF8ToUTF16(frame_path);
  SourceReader reader(wide_src);
  reader.ExportFrame(wide_frame, kFrameSeekSeconds);
  return 0;
}

std::string ThumbnailHelper::LowercaseExtension() const {
  return ToLowerAscii(extension_.empty() ? GetExtension(src_) : extension_);
}

bool ThumbnailHelper::Refuse(const std::string& extension, ThumbnailError* error) const {
  if (!IsSupportedExtension(extension)) {
    *error = kUnsupportedType;
    return true;
  }
  for (uint32_t option : options_) {
    if (kSupportedOptions().count(option) == 0) {
      *error = kUnsupportedOption;
      return true;
    }
  }
  return false;
}

template <typename RunJob>
int32_t ThumbnailHelper::RetryFromFrame(int32_t first_result, RunJob run_job) {
  if (!export_failed_for_.empty() && export_failed_for_ == src_) {
    LOG_ERROR(kComponent, "Failed to export frame '%s'", src_.c_str());
    return first_result;
  }
  const std::string frame_path = NormalizeSeparators(file::RandomPath(output_dir_) + ".jpg");
  // Registered before the frame writer creates it, forgotten once it is
  // gone: a termination in between removes it.
  const bool registered = file::RegisterUnreportedFile(frame_path);
  int32_t result = first_result;
  bool abandoned = false;
  try {
    // The platform's media reader has no time limit of its own until it
    // reads (opening a file can hang): the export runs on a thread of its
    // own, which is left behind if it is still busy at the run's deadline.
    const std::string src = src_;
    if (RunBeforeRunDeadline([src, frame_path] { ExportVideoFrame(src, frame_path); }, {frame_path})) {
      result = run_job(frame_path);
    } else {
      abandoned = true;
      LOG_WARNING(kComponent, "frame export of '%s' did not end before the run's deadline", src_.c_str());
      LOG_ERROR(kComponent, "Failed to export frame '%s'", src_.c_str());
    }
  } catch (...) {
    export_failed_for_ = src_;
    LOG_ERROR(kComponent, "Failed to export frame '%s'", src_.c_str());
  }
  if (abandoned) export_failed_for_ = src_;
  file::FSRemove(frame_path);
  // A frame file that an abandoned export may still write stays unreported:
  // the end of the process removes it, whichever way the process ends.
  if (registered && !abandoned) file::ForgetUnreportedFile(frame_path);
  return result;
}

ThumbnailResult ThumbnailHelper::GenerateForSize() {
  src_ = NormalizeSeparators(src_);
  const std::string extension = LowercaseExtension();
  ThumbnailError error = kFailed;
  if (Refuse(extension, &error)) return error;

  auto output = std::make_shared<utility::TempFile>(output_dir_);
  output->Create();  // a failure shows as a failed save
  const uint32_t edge = PixelSize(size_);

  int32_t result = GenerateOne(*this, src_, extension, edge, false, output);
  if (result != 0 && IsVideoExtension(extension)) {
    result = RetryFromFrame(result, [&](const std::string& frame_path) {
      return GenerateOne(*this, frame_path, extension, edge, false, output);
    });
  }
  if (JobError(result, &error)) return error;  // the last owner removes the file
  output->Keep();
  return NormalizeSeparators(output->GetPath());
}

AllSizesResult ThumbnailHelper::GenerateAllSizes() {
  AllSizesResult all;
  src_ = NormalizeSeparators(src_);
  const std::string extension = LowercaseExtension();
  if (Refuse(extension, &all.error)) return all;

  static const std::vector<ThumbnailSize> kLargestFirst = {3, 2, 1, 0};
  std::vector<uint32_t> edges;
  for (ThumbnailSize id : kLargestFirst) edges.push_back(PixelSize(id));
  std::sort(edges.begin(), edges.end(), std::greater<uint32_t>());
  OutputList outputs;
  for (size_t i = 0; i < edges.size(); ++i) {
    outputs.push_back(std::make_shared<utility::TempFile>(output_dir_));
    outputs.back()->Create();
  }

  int32_t result = GenerateThumbnail(*this, src_, extension, edges, false, outputs);
  if (result != 0 && IsVideoExtension(extension)) {
    result = RetryFromFrame(result, [&](const std::string& frame_path) {
      return GenerateThumbnail(*this, frame_path, extension, edges, false, outputs);
    });
  }
  if (JobError(result, &all.error)) return all;
  all.ok = true;
  for (size_t i = 0; i < outputs.size(); ++i) {
    outputs[i]->Keep();
    all.paths.emplace_back(SizeName(kLargestFirst[i]), NormalizeSeparators(outputs[i]->GetPath()));
  }
  return all;
}

}  // namespace thumbnail
}  // namespace tessera
