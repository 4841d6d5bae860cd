// A file with a fresh random name in a chosen directory, deleted again when
// its last owner goes away unless it was kept.
//
// Copies share one ownership count (a heap int): the file goes with the last
// copy. The count is a plain int, so copies of one object must stay on one
// thread; share across threads through std::shared_ptr<TempFile>.
#ifndef TESSERA_LIB_UTILITY_TEMP_FILE_H_
#define TESSERA_LIB_UTILITY_TEMP_FILE_H_

#include <string>

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
  // The last owner then leaves the file on disk.
  void Keep() { keep_ = true; }
  // Deletes the file now and forgets its path.
  void Remove();
  // Takes an existing file over (removing a file this object owned alone).
  void Adopt(const std::string& path);

  static int SetDefaultTempDir(const std::string& dir);

 private:
  std::string dir_;
  std::string path_;
  int* state_;  // 0 no file, 1 one owner, n >= 2 shared by n copies
  bool keep_ = false;
};

}  // namespace utility
}  // namespace tessera

#endif  // TESSERA_LIB_UTILITY_TEMP_FILE_H_
