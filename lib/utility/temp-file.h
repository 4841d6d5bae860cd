// A file with a fresh random name in a chosen directory, deleted again when
// its last owner goes away unless it was kept.
//
// Copies share one ownership count (a heap int): the file goes with the last
// copy. The count is a plain int, so copies of one object must stay on one
// thread; share across threads through std::shared_ptr<TempFile>.
//
// The file is held open from its creation on (where the platform keeps a
// handle, file::OpenFile), and writers write through GetFile(): a name
// replaced by a link while the file is being filled leads nowhere. From
// Create() until Remove() or the report that names it, the path is an
// unreported file (lib/file/unreported-files.h), removed on termination.
#ifndef TESSERA_LIB_UTILITY_TEMP_FILE_H_
#define TESSERA_LIB_UTILITY_TEMP_FILE_H_

#include <memory>
#include <string>

#include "lib/file/file-op.h"

namespace tessera {
namespace utility {

class TempFile {
 public:
  // An empty dir means the default directory as it is now.
  explicit TempFile(std::string dir = std::string());
  TempFile(const TempFile& other);
  TempFile& operator=(const TempFile& other);
  ~TempFile();

  // Creates the file. 0, or -1 when this object already has a file or the
  // file cannot be made (then logs "failed to create TempFile ...").
  int Create();
  // The file's path; empty before Create() and after Remove().
  const std::string& GetPath() const { return path_; }
  // The file as Create() opened it, shared by the copies of this object and
  // closed with the last of them or by Remove(); holds nothing before
  // Create(), after Remove(), for an adopted file, and on Windows. Valid as
  // long as this object is and is not removed.
  const file::OpenFile& GetFile() const;
  // The last owner then leaves the file on disk (still unreported: the
  // registry lets it go when the report naming it is out).
  void Keep() { keep_ = true; }
  // Deletes the file now, closes it and forgets its path.
  void Remove();
  // Takes an existing file over (removing a file this object owned alone).
  // Nothing is held open for it: writers go through the path.
  void Adopt(const std::string& path);

  static int SetDefaultTempDir(const std::string& dir);

 private:
  std::string dir_;
  std::string path_;
  int* state_;  // 0 no file, 1 one owner, n >= 2 shared by n copies
  bool keep_ = false;
  std::shared_ptr<file::OpenFile> file_;  // null when nothing is held
};

}  // namespace utility
}  // namespace tessera

#endif  // TESSERA_LIB_UTILITY_TEMP_FILE_H_
