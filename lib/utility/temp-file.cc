#include "lib/utility/temp-file.h"

#include <mutex>
#include <string>
#include <utility>

#include "lib/file/file-op.h"
#include "lib/file/unreported-files.h"
#include "lib/log/log.h"

namespace tessera {
namespace utility {
namespace {

constexpr char kComponent[] = "utility_debug";

// The process-wide default directory, empty until set. Neither the string
// nor its mutex is destroyed: both stay usable while the process exits.
std::mutex& DefaultDirMutex() {
  static std::mutex* mutex = new std::mutex;
  return *mutex;
}

std::string& DefaultDirStorage() {
  static std::string* dir = new std::string();  // never destroyed: usable during exit
  return *dir;
}

std::string DefaultDir() {
  std::lock_guard<std::mutex> lock(DefaultDirMutex());
  return DefaultDirStorage();
}

// Detaches an object from the copies that share its state, leaving it a
// count of its own (0). The other copies keep counting among themselves, so
// none of them frees the shared count while another still uses it, and the
// last of them still deletes the file.
void ReleaseShare(int** state) {
  if (**state >= 2) {
    --**state;
    *state = new int(0);
  }
}

}  // namespace

int TempFile::SetDefaultTempDir(const std::string& dir) {
  std::lock_guard<std::mutex> lock(DefaultDirMutex());
  DefaultDirStorage() = dir;
  return 0;
}

TempFile::TempFile(std::string dir) : dir_(dir.empty() ? DefaultDir() : std::move(dir)), state_(new int(0)) {}

TempFile::TempFile(const TempFile& other) : dir_(other.dir_), path_(other.path_), keep_(other.keep_) {
  if (path_.empty()) {
    state_ = new int(0);
  } else {
    state_ = other.state_;
    ++*state_;
    file_ = other.file_;
  }
}

TempFile& TempFile::operator=(const TempFile& other) {
  if (this == &other) return *this;
  if (*state_ == 1) Remove();
  dir_ = other.dir_;
  path_ = other.path_;
  keep_ = other.keep_;
  if (state_ == other.state_) return *this;  // already copies of each other
  ReleaseShare(&state_);
  file_.reset();
  if (!path_.empty()) {
    delete state_;
    state_ = other.state_;
    ++*state_;
    file_ = other.file_;
  }
  return *this;
}

TempFile::~TempFile() {
  if (*state_ >= 2) {
    --*state_;
    return;
  }
  if (*state_ == 1 && !keep_) Remove();
  delete state_;
}

const file::OpenFile& TempFile::GetFile() const {
  static const file::OpenFile* const kNothing = new file::OpenFile;  // never destroyed: usable during exit
  return file_ ? *file_ : *kNothing;
}

int TempFile::Create() {
  if (*state_ != 0) return -1;
  file::OpenFile opened;
  if (file::FSMktemp(dir_, &path_, &opened) < 0) {
    LOG_ERROR(kComponent, "failed to create TempFile ...");
    path_.clear();
    return -1;
  }
  file_ = std::make_shared<file::OpenFile>(std::move(opened));
  *state_ = 1;
  LOG_DEBUG(kComponent, "creating TempFile '%s'", path_.c_str());
  return 0;
}

void TempFile::Remove() {
  LOG_DEBUG(kComponent, "removing TempFile '%s'", path_.c_str());
  file_.reset();
  // A missing file counts as removed; a failure is logged by the file layer.
  // Forgotten only once it is gone, so that a termination in between still
  // removes it.
  if (!path_.empty()) {
    file::FSRemove(path_);
    file::ForgetUnreportedFile(path_);
  }
  ReleaseShare(&state_);
  *state_ = 0;
  path_.clear();
}

void TempFile::Adopt(const std::string& path) {
  if (path == path_) return;
  if (*state_ == 1) Remove();
  ReleaseShare(&state_);
  dir_ = DefaultDir();
  path_ = path;
  keep_ = false;
  file_.reset();
  *state_ = 1;
}

}  // namespace utility
}  // namespace tessera
